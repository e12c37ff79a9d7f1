# cpack runs this before it makes the packages of CPACK_COMPONENTS_ALL.
if(CPACK_DIAG_REFUSAL AND CPACK_COMPONENTS_ALL MATCHES daemon)
  message(FATAL_ERROR "${CPACK_DIAG_REFUSAL}")
endif()
