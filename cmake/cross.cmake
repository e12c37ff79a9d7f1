# What the toolchain files of the other processors share; cross_processor and cross_triplet are set. The tests
# need nothing of those machines but the compiler's own libraries: the simulated platform takes the MQTT
# library's place, and GoogleTest is built from source.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${cross_processor})
set(CMAKE_CXX_COMPILER ${cross_triplet}-g++)
# Of the sanitizers those whose findings depend on the processor. No debug information: it costs compile time.
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -fsanitize=alignment,bounds,shift,signed-integer-overflow -fno-sanitize-recover=all"
    CACHE STRING "")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${cross_processor};-L;/usr/${cross_triplet})

# Headers that are the same everywhere, apart from this machine's own in the same folder.
set(CMAKE_INCLUDE_PATH ${CMAKE_BINARY_DIR}/include)
foreach(header mosquitto.h uthash.h utlist.h)
  if(NOT EXISTS ${CMAKE_BINARY_DIR}/include/${header})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/include)
    file(CREATE_LINK /usr/include/${header} ${CMAKE_BINARY_DIR}/include/${header} SYMBOLIC)
  endif()
endforeach()
