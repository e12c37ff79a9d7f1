# What the toolchain files of the other processors share; cross_processor and cross_triplet are set, and the file has
# Debian's name of the architecture. The tests need nothing of those machines but the compiler's own libraries: the
# simulation takes the MQTT library's place, and GoogleTest is built from source. The Debian packages are linked
# with the libraries in DIAG_CROSS_ROOT, which packaging/build-cross fills.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${cross_processor})
set(CMAKE_CXX_COMPILER ${cross_triplet}-g++)
# Of the sanitizers those whose findings depend on the processor. No debug information: it costs compile time.
set(CMAKE_CXX_FLAGS_DEBUG
    "-O1 ${cross_test_options} -fsanitize=alignment,bounds,shift,signed-integer-overflow -fno-sanitize-recover=all"
    CACHE STRING "")

if(DIAG_CROSS_ROOT)
  set(CMAKE_FIND_ROOT_PATH ${DIAG_CROSS_ROOT} /usr/${cross_triplet})
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_LIBRARY_ARCHITECTURE ${cross_triplet})
  set(library_dirs ${DIAG_CROSS_ROOT}/usr/lib/${cross_triplet} ${DIAG_CROSS_ROOT}/lib/${cross_triplet})
  set(ENV{PKG_CONFIG_LIBDIR} ${DIAG_CROSS_ROOT}/usr/lib/${cross_triplet}/pkgconfig)
  list(TRANSFORM library_dirs PREPEND -Wl,-rpath-link, OUTPUT_VARIABLE CMAKE_EXE_LINKER_FLAGS_INIT)
  list(JOIN CMAKE_EXE_LINKER_FLAGS_INIT " " CMAKE_EXE_LINKER_FLAGS_INIT)
  cmake_path(GET CMAKE_TOOLCHAIN_FILE STEM CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${library_dirs})
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${cross_processor};-L;${DIAG_CROSS_ROOT})
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${cross_processor};-L;/usr/${cross_triplet})
endif()

# Headers that are the same everywhere, apart from this machine's own in the same folder.
set(CMAKE_INCLUDE_PATH ${CMAKE_BINARY_DIR}/include)
foreach(header mosquitto.h uthash.h utlist.h)
  if(NOT EXISTS ${CMAKE_BINARY_DIR}/include/${header})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/include)
    file(CREATE_LINK /usr/include/${header} ${CMAKE_BINARY_DIR}/include/${header} SYMBOLIC)
  endif()
endforeach()
