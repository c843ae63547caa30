# Installed, under any prefix: the libraries, the resolver module beside the core library that looks
# for it there, the headers that show something to others, in their folders, and what find_package
# and pkg-config read. The programs are installed where they are made.
include(CMakePackageConfigHelpers)

set_target_properties(${POSTWIRE_LIBRARIES} PROPERTIES INSTALL_RPATH $ORIGIN)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/postwire-config-version.cmake
  COMPATIBILITY SameMinorVersion)
file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/src src/*/*.h)
list(FILTER headers EXCLUDE REGEX ^service/)  # no package holds that library yet

# postwire_install(LIBDIR LIBRARY DEVELOPMENT [EXCLUDE_FROM_ALL]): as these two components, with the
# libraries in LIBDIR.
function(postwire_install libdir library development)
  set(package ${libdir}/cmake/postwire)
  install(TARGETS ${POSTWIRE_LIBRARIES} EXPORT ${development}
    LIBRARY DESTINATION ${libdir} COMPONENT ${library} NAMELINK_COMPONENT ${development} ${ARGN})
  install(TARGETS TOV_Crypto_Interface
    LIBRARY DESTINATION ${libdir} COMPONENT ${library} ${ARGN})
  foreach(header IN LISTS headers)
    file(STRINGS src/${header} shown REGEX POSTWIRE_EXPORT LIMIT_COUNT 1)
    # And what a public class holds by value.
    if(shown OR header STREQUAL message/HeaderLines.h)
      get_filename_component(folder ${header} DIRECTORY)
      install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/postwire/${folder}
        COMPONENT ${development} ${ARGN})
    endif()
  endforeach()
  set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/postwire)
  install(FILES README.md CHANGELOG.md DESTINATION ${doc} COMPONENT ${development} ${ARGN})
  install(DIRECTORY docs DESTINATION ${doc} COMPONENT ${development} ${ARGN}
    PATTERN man EXCLUDE)
  install(DIRECTORY examples DESTINATION ${doc} COMPONENT ${development} ${ARGN}
    FILES_MATCHING PATTERN "*.cpp")

  install(EXPORT ${development} NAMESPACE postwire:: FILE postwire-config.cmake
    DESTINATION ${package} COMPONENT ${development} ${ARGN})
  install(FILES ${PROJECT_BINARY_DIR}/postwire-config-version.cmake
    DESTINATION ${package} COMPONENT ${development} ${ARGN})

  # The prefix is wherever the file is found, so that an installed tree can be moved.
  cmake_path(ABSOLUTE_PATH libdir BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE folder)
  file(RELATIVE_PATH to_prefix ${folder}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
  file(RELATIVE_PATH libraries ${CMAKE_INSTALL_PREFIX} ${folder})
  file(RELATIVE_PATH headers ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  set(pc ${PROJECT_BINARY_DIR}/pkgconfig/${development}/postwire.pc)
  configure_file(cmake/postwire.pc.in ${pc} @ONLY)
  install(FILES ${pc} DESTINATION ${libdir}/pkgconfig COMPONENT ${development} ${ARGN})
endfunction()

postwire_install(${CMAKE_INSTALL_LIBDIR} library development)

# postwire_compress(FILE RESULT): the file as Debian wants manual pages and changelogs, the same bytes
# each time; as it is where there is no gzip.
find_program(GZIP gzip)
function(postwire_compress file result)
  if(GZIP)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    get_filename_component(name ${file} NAME)
    set(compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
    execute_process(COMMAND ${GZIP} -9n INPUT_FILE ${file} OUTPUT_FILE ${compressed}
      COMMAND_ERROR_IS_FATAL ANY)
    set(file ${compressed})
  endif()
  set(${result} ${file} PARENT_SCOPE)
endfunction()
