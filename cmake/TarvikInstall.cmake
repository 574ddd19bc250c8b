# Installation: the library with its SONAME, every public header flat under
# include/tarvik/ (they include each other by bare file name), a pkg-config
# module, a CMake package (Tarvik::Tarvik) and the udev rule.
include(CMakePackageConfigHelpers)

get_property(_tarvik_public_headers GLOBAL PROPERTY TARVIK_PUBLIC_HEADERS)
set(_tarvik_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Tarvik)

install(TARGETS Tarvik
  EXPORT TarvikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)
install(FILES ${_tarvik_public_headers}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarvik COMPONENT devel)

# Relocatable: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH TARVIK_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
string(REGEX REPLACE "/$" "" TARVIK_PC_TO_PREFIX "${TARVIK_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/libtarvik.pc.in
  ${PROJECT_BINARY_DIR}/libtarvik.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libtarvik.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)

install(EXPORT TarvikTargets NAMESPACE Tarvik:: DESTINATION ${_tarvik_cmake_dir} COMPONENT devel)
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/TarvikConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarvikConfig.cmake INSTALL_DESTINATION ${_tarvik_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarvikConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarvikConfig.cmake ${PROJECT_BINARY_DIR}/TarvikConfigVersion.cmake
  DESTINATION ${_tarvik_cmake_dir} COMPONENT devel)

# udev rules live under lib/udev/rules.d of the prefix (/usr/lib/udev/rules.d for /usr).
set(TARVIK_UDEV_RULES_DIR "lib/udev/rules.d" CACHE STRING "Where the udev rule is installed")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/70-tarvik.rules
  DESTINATION ${TARVIK_UDEV_RULES_DIR}
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ COMPONENT runtime)
