# Debian packages, by cpack -G DEB in the build folder: of each family the libraries and what
# developing with them takes, and the programs with their man pages.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL)
if(TARGET postwire-serve)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(NOT CPACK_PACKAGE_CONTACT)
  set(CPACK_PACKAGE_CONTACT "postwire <postwire@example.com>")
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

# Where Debian keeps libraries, so that those of two architectures stand side by side.
set(libdir ${CMAKE_INSTALL_LIBDIR})
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND CMAKE_SYSTEM_PROCESSOR MATCHES "86")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
  set(libdir lib/i386-linux-gnu)
elseif(CMAKE_LIBRARY_ARCHITECTURE)
  set(libdir lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()

# What the system's libraries are called is asked of dpkg-shlibdeps, where it is installed.
find_program(SHLIBDEPS dpkg-shlibdeps)
if(SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
  if(CPACK_DEBIAN_PACKAGE_ARCHITECTURE STREQUAL i386)
    file(WRITE ${PROJECT_BINARY_DIR}/packages/settings.cmake
      "set(SHLIBDEPS_EXECUTABLE ${PROJECT_SOURCE_DIR}/cmake/shlibdeps-i386)\n")
    set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/packages/settings.cmake)
  endif()
else()
  message(STATUS "Packages name no system libraries they need (Debian package dpkg-dev)")
endif()

# The same in the packages of every architecture, else they would not stand side by side.
set(folder ${PROJECT_BINARY_DIR}/packages)
configure_file(cmake/changelog ${folder}/changelog @ONLY)
postwire_compress(${folder}/changelog changelog)

# postwire_package(COMPONENT NAME SECTION SUMMARY [COMPONENT...]): and the components it needs.
function(postwire_package component name section summary)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${summary}" PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DEPENDS ${ARGN} PARENT_SCOPE)
  install(FILES cmake/copyright ${changelog} COMPONENT ${component} EXCLUDE_FROM_ALL
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name})
endfunction()

# Who links a family's libraries needs their package. CPack's own way to say so complains about the
# resolver module, which nobody links.
file(WRITE ${folder}/triggers "activate-noawait ldconfig\n")
function(postwire_shlibs family component)
  foreach(library IN LISTS ${family}_LIBRARIES)
    string(APPEND shlibs "lib${library} ${POSTWIRE_SOVERSION} "
      "lib${family}${POSTWIRE_SOVERSION} (>= ${PROJECT_VERSION})\n")
  endforeach()
  file(WRITE ${folder}/${family}/shlibs "${shlibs}")
  string(TOUPPER CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA control)
  set(${control} ${folder}/${family}/shlibs ${folder}/triggers PARENT_SCOPE)
endfunction()

# A second line is a field of its own: CPack has no word for Multi-Arch before 3.31.
set(same "\nMulti-Arch: same")
foreach(family IN LISTS POSTWIRE_FAMILIES)
  list(TRANSFORM ${family}_COMPONENTS PREPEND package_ OUTPUT_VARIABLE components)
  list(GET components 0 library)
  list(GET components 1 development)
  list(APPEND CPACK_COMPONENTS_ALL ${components})
  postwire_install(${family} ${libdir} ${components} EXCLUDE_FROM_ALL)
  set(what ${${family}_DESCRIPTION})
  postwire_package(${library} lib${family}${POSTWIRE_SOVERSION} "libs${same}"
    "${what}: shared libraries" ${below})
  postwire_package(${development} lib${family}-dev "libdevel${same}" "${what}: development files"
    ${library} ${below_development})
  postwire_shlibs(${family} ${library})
  list(APPEND below ${library})
  list(APPEND below_development ${development})
endforeach()
postwire_package(tools postwire-tools web "${PROJECT_DESCRIPTION}: command-line programs" ${below})
include(CPack)
