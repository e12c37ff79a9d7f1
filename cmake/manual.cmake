# The manual pages, made of packaging/man/NAME.SECTION.scd, with the version in their feet. Sets man_pages to the list of
# them, empty without scdoc.

find_program(SCDOC scdoc)
set(man_pages)
if(SCDOC)
  file(GLOB man_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/man/*.scd)
  foreach(source IN LISTS man_sources)
    cmake_path(GET source STEM LAST_ONLY name)
    set(page ${CMAKE_BINARY_DIR}/man/${name})
    add_custom_command(OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
      COMMAND sh -c "sed '1s/$/ \"diag ${PROJECT_VERSION}\"/' \"$2\" | \"$1\" >\"$3\"" sh ${SCDOC} ${source} ${page}
      DEPENDS ${source} VERBATIM)
    list(APPEND man_pages ${page})
  endforeach()
  add_custom_target(manual ALL DEPENDS ${man_pages})
  if(DIAG_TESTS)
    # A page that man can't set without a warning; its status doesn't tell.
    add_test(NAME manual COMMAND sh -c
      "export LC_ALL=C.UTF-8 MANWIDTH=100; for page; do \
         warnings=$(man --warnings -l \"$page\" 2>&1 >/dev/null) && [ -z \"$warnings\" ] || \
           { echo \"$page: $warnings\"; exit 1; }; done"
      manual ${man_pages})
  endif()
else()
  message(STATUS "scdoc is missing: no manual pages")
endif()
