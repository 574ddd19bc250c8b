# Installation: the library with its SONAME, every public header flat under
# include/tarvik/ (they include each other by bare file name), a pkg-config
# module, a CMake package (Tarvik::Tarvik) and the udev rule.
include(CMakePackageConfigHelpers)

set(_tarvik_public_headers ${TARVIK_PUBLIC_HEADERS})
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

# The tools find the library relative to themselves ($ORIGIN/../lib), so that
# they run from any prefix without LD_LIBRARY_PATH. None where the library sits
# in a directory the linker searches anyway (/usr/lib/<multiarch>: Debian's
# packages carry no RPATH), and none on the library itself.
option(TARVIK_INSTALL_RPATH "Give the installed tools an RPATH relative to themselves" ON)
list(FIND CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" _tarvik_libdir_implicit)
if(TARVIK_INSTALL_RPATH AND _tarvik_libdir_implicit EQUAL -1)
  file(RELATIVE_PATH _tarvik_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  foreach(_tool tarvikctl tarvik-sim)
    if(TARGET ${_tool})
      set_target_properties(${_tool} PROPERTIES INSTALL_RPATH "$ORIGIN/${_tarvik_bin_to_lib}")
    endif()
  endforeach()
endif()

# The udev rule goes where udev reads it for the prefix: <prefix>/lib/udev/rules.d
# is /usr/lib/udev/rules.d for /usr and /usr/local/lib/udev/rules.d for
# /usr/local (Debian 12's systemd-udevd reads both). Under any other prefix udev
# reads none: the rule is still installed there, and the install says where it
# is and that it must be copied to /etc/udev/rules.d (cmake/UdevRuleNote.cmake).
# TARVIK_UDEV_RULES_DIR (absolute, or relative to the prefix) puts it elsewhere.
set(TARVIK_UDEV_RULES_DIR "lib/udev/rules.d" CACHE STRING
  "Where the udev rule is installed (absolute, or relative to the prefix)")
install(FILES ${PROJECT_SOURCE_DIR}/packaging/70-tarvik.rules
  DESTINATION ${TARVIK_UDEV_RULES_DIR}
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ COMPONENT runtime)
install(CODE "set(TARVIK_UDEV_RULES_DIR [[${TARVIK_UDEV_RULES_DIR}]])" COMPONENT runtime)
install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/UdevRuleNote.cmake COMPONENT runtime)
