# cmake -DCHANGELOG=debian/changelog -DVERSION=<project version> -P CheckChangelogVersion.cmake
# Fails unless the upstream part of the newest changelog entry's version (no
# epoch, no Debian revision) equals the CMake project version.
file(STRINGS "${CHANGELOG}" _first LIMIT_COUNT 1)
if(NOT _first MATCHES "^[a-z0-9][a-z0-9.+-]* \\(([^)]+)\\)")
  message(FATAL_ERROR "${CHANGELOG}: no version on the first line: ${_first}")
endif()
set(_debian "${CMAKE_MATCH_1}")
string(REGEX REPLACE "^[0-9]+:" "" _upstream "${_debian}")
string(REGEX REPLACE "-[^-]*$" "" _upstream "${_upstream}")
if(NOT _upstream STREQUAL VERSION)
  message(FATAL_ERROR "debian/changelog says ${_debian} (upstream ${_upstream}), "
    "CMakeLists.txt says ${VERSION}: add a changelog entry (dch -v ${VERSION}-1) or fix project()")
endif()
message(STATUS "debian/changelog ${_debian} matches the project version ${VERSION}")
