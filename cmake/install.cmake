# Installed, under any prefix: the libraries, the resolver module beside the core library that looks
# for it there, the headers that show something to others, in their folders, and what find_package
# and pkg-config read. The programs are installed where they are made.
include(CMakePackageConfigHelpers)

# The families: libraries with components, packages and a pkg-config file of their own.
set(POSTWIRE_FAMILIES postwire)
set(postwire_LIBRARIES ${POSTWIRE_LIBRARIES})
set(postwire_HEADERS foundation message parser sender socket)
set(postwire_DESCRIPTION ${PROJECT_DESCRIPTION})
if(TARGET postwire-service)
  list(APPEND POSTWIRE_FAMILIES postwire-service)
  list(REMOVE_ITEM postwire_LIBRARIES postwire-service)
  set(postwire-service_LIBRARIES postwire-service)
  set(postwire-service_HEADERS service)
  set(postwire-service_DESCRIPTION "Servers of SOAP services within a program")
  set(postwire-service_REQUIRES postwire)
endif()

set_target_properties(${POSTWIRE_LIBRARIES} PROPERTIES INSTALL_RPATH $ORIGIN)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/postwire-config-version.cmake
  COMPATIBILITY SameMinorVersion)

# postwire_install_common(LIBDIR LIBRARY DEVELOPMENT [EXCLUDE_FROM_ALL]): what there is once.
function(postwire_install_common libdir library development)
  install(TARGETS TOV_Crypto_Interface
    LIBRARY DESTINATION ${libdir} COMPONENT ${library} ${ARGN})
  set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/postwire)
  install(FILES README.md CHANGELOG.md DESTINATION ${doc} COMPONENT ${development} ${ARGN})
  install(DIRECTORY docs DESTINATION ${doc} COMPONENT ${development} ${ARGN}
    PATTERN man EXCLUDE)
  install(DIRECTORY examples DESTINATION ${doc} COMPONENT ${development} ${ARGN}
    FILES_MATCHING PATTERN "*.cpp")
  install(FILES cmake/postwire-config.cmake ${PROJECT_BINARY_DIR}/postwire-config-version.cmake
    DESTINATION ${libdir}/cmake/postwire COMPONENT ${development} ${ARGN})
endfunction()

# postwire_install(FAMILY LIBDIR LIBRARY DEVELOPMENT [EXCLUDE_FROM_ALL]): as these two components,
# with the libraries in LIBDIR.
function(postwire_install family libdir library development)
  if(family STREQUAL postwire)
    postwire_install_common(${libdir} ${library} ${development} ${ARGN})
  endif()
  install(TARGETS ${${family}_LIBRARIES} EXPORT ${development}
    LIBRARY DESTINATION ${libdir} COMPONENT ${library} NAMELINK_COMPONENT ${development} ${ARGN})
  install(EXPORT ${development} NAMESPACE postwire:: FILE ${family}-targets.cmake
    DESTINATION ${libdir}/cmake/postwire COMPONENT ${development} ${ARGN})

  list(TRANSFORM ${family}_HEADERS REPLACE "(.+)" src/\\1/*.h OUTPUT_VARIABLE folders)
  file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/src ${folders})
  foreach(header IN LISTS headers)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS src/${header})
    file(STRINGS src/${header} shown REGEX POSTWIRE_EXPORT LIMIT_COUNT 1)
    # And what a public class holds by value.
    if(shown OR header STREQUAL message/HeaderLines.h)
      get_filename_component(folder ${header} DIRECTORY)
      install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/postwire/${folder}
        COMPONENT ${development} ${ARGN})
    endif()
  endforeach()

  # The prefix is wherever the file is found, so that an installed tree can be moved.
  cmake_path(ABSOLUTE_PATH libdir BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE folder)
  file(RELATIVE_PATH to_prefix ${folder}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
  file(RELATIVE_PATH libraries ${CMAKE_INSTALL_PREFIX} ${folder})
  file(RELATIVE_PATH headers ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  set(description ${${family}_DESCRIPTION})
  set(requires ${${family}_REQUIRES})
  list(REVERSE ${family}_LIBRARIES)  # who needs another stands before it
  list(TRANSFORM ${family}_LIBRARIES PREPEND -l)
  list(JOIN ${family}_LIBRARIES " " link)
  set(pc ${PROJECT_BINARY_DIR}/pkgconfig/${development}/${family}.pc)
  configure_file(cmake/postwire.pc.in ${pc} @ONLY)
  install(FILES ${pc} DESTINATION ${libdir}/pkgconfig COMPONENT ${development} ${ARGN})
endfunction()

# The components: library and development, service_library and service_development.
foreach(family IN LISTS POSTWIRE_FAMILIES)
  string(REGEX REPLACE "^postwire-?" "" name ${family})
  set(${family}_COMPONENTS ${name}_library ${name}_development)
  list(TRANSFORM ${family}_COMPONENTS REPLACE "^_" "")
  postwire_install(${family} ${CMAKE_INSTALL_LIBDIR} ${${family}_COMPONENTS})
endforeach()

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
