# Writes OUTPUT, the header with the version of a build, from version.h.in. Runs at every build and
# touches the header only if it changes: with a commit, or with the day.
#
# Needs SOURCE_DIR, OUTPUT and PROJECT_VERSION. The version is that of the project, followed by the
# commit if the sources are a git checkout. The date is that of SOURCE_DATE_EPOCH if this is set in
# the environment, so that a build can be reproduced byte for byte.

set(KLT_VERSION "${PROJECT_VERSION}")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND "${GIT_EXECUTABLE}" describe --always --dirty=.modified --exclude=*
                          --abbrev=10
                  WORKING_DIRECTORY "${SOURCE_DIR}"
                  OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(commit)
    string(APPEND KLT_VERSION "+g${commit}")
  endif()
endif()

# string(TIMESTAMP) uses SOURCE_DATE_EPOCH. A number with a leading zero would be octal.
foreach(part Y m d)
  string(TIMESTAMP value "%${part}" UTC)
  string(REGEX REPLACE "^0+" "" KLT_BUILD_${part} "${value}")
endforeach()

configure_file("${SOURCE_DIR}/cmake/version.h.in" "${OUTPUT}" @ONLY)
