# cpack runs this before it makes a package.
if(CPACK_DIAG_REFUSAL)
  message(FATAL_ERROR "${CPACK_DIAG_REFUSAL}")
endif()
