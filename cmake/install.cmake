# Installed, under any prefix: the libraries, the resolver module beside the core library that looks
# for it there, the headers that show something to others, in their folders, and what find_package
# and pkg-config read. The programs are installed where they are made.
include(CMakePackageConfigHelpers)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/postwire)
set_target_properties(qorcore zulstream postwire PROPERTIES INSTALL_RPATH $ORIGIN)
install(TARGETS qorcore zulstream postwire EXPORT postwire
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS TOV_Crypto_Interface
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/src src/*/*.h)
foreach(header IN LISTS headers)
  file(STRINGS src/${header} shown REGEX POSTWIRE_EXPORT LIMIT_COUNT 1)
  if(shown)
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/postwire/${folder}
      COMPONENT development)
  endif()
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/postwire COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/postwire COMPONENT development
  PATTERN man EXCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/postwire COMPONENT development
  FILES_MATCHING PATTERN "*.cpp")

install(EXPORT postwire NAMESPACE postwire:: FILE postwire-config.cmake
  DESTINATION ${package} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/postwire-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/postwire-config-version.cmake
  DESTINATION ${package} COMPONENT development)

# The prefix is wherever the file is found, so that an installed tree can be moved.
file(RELATIVE_PATH to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
file(RELATIVE_PATH libraries ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH headers ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/postwire.pc.in ${PROJECT_BINARY_DIR}/postwire.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/postwire.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
