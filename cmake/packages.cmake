# Debian packages, by cpack -G DEB in the build folder: the libraries, what developing with them
# takes, and the programs with their man pages.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL library development)
if(TARGET postwire-serve)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(NOT CPACK_PACKAGE_CONTACT)
  set(CPACK_PACKAGE_CONTACT "postwire <postwire@localhost>")
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND CMAKE_SYSTEM_PROCESSOR MATCHES "86")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()

# What the system's libraries are called is asked of dpkg-shlibdeps, where it is installed.
find_program(SHLIBDEPS dpkg-shlibdeps)
if(SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
else()
  message(STATUS "Packages name no system libraries they need (Debian package dpkg-dev)")
endif()

# postwire_package(COMPONENT NAME SECTION SUMMARY [COMPONENT...]): and the components it needs.
function(postwire_package component name section summary)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${PROJECT_DESCRIPTION}: ${summary}" PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DEPENDS ${ARGN} PARENT_SCOPE)
endfunction()

postwire_package(library libpostwire${POSTWIRE_SOVERSION} libs "shared libraries")
postwire_package(development libpostwire-dev libdevel "development files" library)
postwire_package(tools postwire-tools web "command-line programs" library)

# Who links the libraries needs their package. CPack's own way to say so complains about the
# resolver module, which nobody links.
foreach(library IN ITEMS postwire qorcore zulstream)
  string(APPEND shlibs "lib${library} ${POSTWIRE_SOVERSION} "
    "libpostwire${POSTWIRE_SOVERSION} (>= ${PROJECT_VERSION})\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/packages/shlibs "${shlibs}")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packages/shlibs)
include(CPack)
