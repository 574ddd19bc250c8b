# Installation: the library with its SONAME, and every public header flat under
# include/tarvik/ (the headers include each other by bare file name).
get_property(_tarvik_public_headers GLOBAL PROPERTY TARVIK_PUBLIC_HEADERS)

install(TARGETS Tarvik
  EXPORT TarvikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)
install(FILES ${_tarvik_public_headers}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarvik COMPONENT devel)
