# Writes the files of the page as a C++ source. Their text goes through as it is: none of them may have the raw string's end.
file(GLOB page_files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/web/page/*)
set(entries "")
foreach(path IN LISTS page_files)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
  cmake_path(GET path FILENAME name)
  file(SHA256 ${path} tag)
  file(READ ${path} text)
  string(APPEND entries "    {\"/${name}\", \"${tag}\", R\"page(${text})page\"},\n")
endforeach()
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/generated/page_files.cpp @ONLY CONTENT
"#include \"web/page_files.h\"

#include <array>

namespace
{

constexpr auto FILES = std::to_array<page_file>({
@entries@});

} // namespace

std::span<const page_file> page_files()
{
    return FILES;
}
")
