# The word table of the challenge that guards activate and remote download: 127 lines, one word of 6 to 31
# printable ASCII characters each, in index order. It is deployment data shared with the authorised clients,
# so every real build names its own file.
set(DIAG_DEVELOPMENT_SECRETS ${CMAKE_CURRENT_LIST_DIR}/../src/secrets.development.txt)
cmake_path(NORMAL_PATH DIAG_DEVELOPMENT_SECRETS)
set(DIAG_SECRETS_FILE ${DIAG_DEVELOPMENT_SECRETS} CACHE FILEPATH "Word table of the challenge (127 lines)")

if(NOT EXISTS ${DIAG_SECRETS_FILE})
  message(FATAL_ERROR "DIAG_SECRETS_FILE: ${DIAG_SECRETS_FILE} does not exist")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${DIAG_SECRETS_FILE})

# Read as hexadecimal: file(STRINGS) would skip empty lines and split at semicolons and brackets.
file(READ ${DIAG_SECRETS_FILE} secrets_hex HEX)
string(REGEX REPLACE "(..)" "\\1 " secrets_hex "${secrets_hex}")
string(REGEX REPLACE "0a $" "" secrets_hex "${secrets_hex}")
string(REPLACE "0a " ";" secrets_lines "${secrets_hex}")
list(LENGTH secrets_lines secrets_count)
if(NOT secrets_count EQUAL 127)
  message(FATAL_ERROR "DIAG_SECRETS_FILE: ${DIAG_SECRETS_FILE} has ${secrets_count} lines, must have 127")
endif()
set(secrets_line_number 0)
set(secrets_table "")
foreach(line IN LISTS secrets_lines)
  math(EXPR secrets_line_number "${secrets_line_number} + 1")
  string(LENGTH "${line}" line_length)
  math(EXPR line_length "${line_length} / 3")
  if(line_length LESS 6 OR line_length GREATER 31 OR NOT line MATCHES "^((2[0-9a-f]|[3-6][0-9a-f]|7[0-9a-e]) )*$")
    message(FATAL_ERROR "DIAG_SECRETS_FILE: line ${secrets_line_number} of ${DIAG_SECRETS_FILE} "
                        "must be 6 to 31 printable ASCII characters")
  endif()
  string(REGEX REPLACE "(..) " "\\\\x\\1" word "${line}")
  string(APPEND secrets_table "\"${word}\",\n")
endforeach()

file(SHA256 ${DIAG_SECRETS_FILE} secrets_hash)
file(SHA256 ${DIAG_DEVELOPMENT_SECRETS} secrets_development_hash)
if(secrets_hash STREQUAL secrets_development_hash)
  message(WARNING "Building with the development word table, which is public: "
                  "set DIAG_SECRETS_FILE to the deployment's own table before installing this build")
endif()

# The initialisers of the table in auth.cpp, each character as its code.
set(DIAG_SECRETS_DIR ${CMAKE_CURRENT_BINARY_DIR}/secrets)
file(CONFIGURE OUTPUT ${DIAG_SECRETS_DIR}/secrets.inc CONTENT "@secrets_table@" @ONLY)
