# Read by CPack before each package. Without dpkg-shlibdeps a DEB would not depend on the libraries
# that the program needs.
if(CPACK_GENERATOR STREQUAL "DEB")
  find_program(KLT_SHLIBDEPS dpkg-shlibdeps)
  if(NOT KLT_SHLIBDEPS)
    message(FATAL_ERROR "dpkg-shlibdeps is missing: install dpkg-dev, or build cpack -G TGZ only")
  endif()
endif()
