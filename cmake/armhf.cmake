# 32-bit ARM: pointers and sizes of 32 bits, and times too unless the build asks for more. The tests are ARM code and not
# Thumb, whose odd function addresses the sanitizer takes for misaligned objects; the notes of -Wpsabi are about
# compilers before version 7.
set(cross_processor arm)
set(cross_triplet arm-linux-gnueabihf)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(cross_test_options -marm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
