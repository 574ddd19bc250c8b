# The version is written once, in project(). From it come the library's VERSION
# and SOVERSION, the pkg-config and CMake package versions, the man pages'
# version and tarvik_version.h in the build tree (TARVIK_VERSION "x.y.z"), which
# any target may include by linking tarvik_version: the library does, and so
# does everything that links Tarvik. debian/changelog is checked against it
# (ctest packaging.version_matches_changelog, scripts/check-packages.sh).
set(TARVIK_GENERATED_INCLUDE_DIR ${PROJECT_BINARY_DIR}/generated)
configure_file(${PROJECT_SOURCE_DIR}/cmake/tarvik_version.h.in
  ${TARVIK_GENERATED_INCLUDE_DIR}/tarvik_version.h @ONLY)
add_library(tarvik_version INTERFACE)
target_include_directories(tarvik_version INTERFACE ${TARVIK_GENERATED_INCLUDE_DIR})
target_link_libraries(tarvik_obj PUBLIC tarvik_version)
