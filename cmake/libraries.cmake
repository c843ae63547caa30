# The libraries: each is a set of objects, linked into its shared library and, so that internal
# classes can be reached, into the unit tests.

function(postwire_add_library name map)
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  add_library(${name}_objects OBJECT ${sources})
  target_include_directories(${name}_objects PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name}_objects
    PRIVATE postwire_warnings PUBLIC Threads::Threads ${CMAKE_DL_LIBS})
  # Nobody replaces our operations from outside: calls within a library are bound when it is made.
  target_compile_options(${name}_objects PRIVATE -fno-semantic-interposition)
  # Inline members are hidden as well: whether they exist out of line differs by compiler and
  # optimisation, and the list of exported symbols must not.
  set_target_properties(${name}_objects PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)

  add_library(${name} SHARED)
  target_link_libraries(${name} PRIVATE ${name}_objects)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src> $<INSTALL_INTERFACE:include/postwire>)
  target_link_options(${name} PRIVATE
    LINKER:-Bsymbolic-functions LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/${map})
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/${map})
endfunction()

postwire_add_library(qorcore platform.map platform/core/*.cpp)
postwire_add_library(zulstream platform.map platform/stream/*.cpp)
postwire_add_library(postwire postwire.map src/*/*.cpp)
target_link_libraries(zulstream PUBLIC qorcore)
target_link_libraries(postwire PUBLIC zulstream qorcore)

file(GLOB sources CONFIGURE_DEPENDS platform/resolver/*.cpp)
add_library(TOV_Crypto_Interface MODULE ${sources})
target_include_directories(TOV_Crypto_Interface PRIVATE ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(TOV_Crypto_Interface PRIVATE postwire_warnings)
set_target_properties(TOV_Crypto_Interface PROPERTIES
  CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)

# Installed: the libraries, the resolver module beside the core library that looks for it there,
# and the headers in their folders, but for those that the library keeps to itself.
include(GNUInstallDirs)
set(installed qorcore zulstream postwire TOV_Crypto_Interface)
set_target_properties(${installed} PROPERTIES INSTALL_RPATH $ORIGIN)
install(TARGETS ${installed} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT library NAMELINK_COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/postwire
  COMPONENT development FILES_MATCHING PATTERN "*.h"
  PATTERN AsciiText.h EXCLUDE
  PATTERN GuardedAllocation.h EXCLUDE
  PATTERN HttpOutputStream.h EXCLUDE
  PATTERN QORSocketAddress.h EXCLUDE)
