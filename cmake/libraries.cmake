# The libraries: each is a set of objects, linked into its shared library and, so that internal
# classes can be reached, into the unit tests. POSTWIRE_LIBRARIES lists them; all of them are
# installed and packaged. Others link postwire::NAME, and postwire::service for postwire-service.

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
  string(REGEX REPLACE "^postwire-" "" short ${name})
  add_library(postwire::${short} ALIAS ${name})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/postwire>)
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_link_options(${name} PRIVATE
    LINKER:-Bsymbolic-functions LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/${map})
  set_target_properties(${name} PROPERTIES
    EXPORT_NAME ${short} VERSION ${PROJECT_VERSION} SOVERSION ${POSTWIRE_SOVERSION}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/${map})
  set(POSTWIRE_LIBRARIES ${POSTWIRE_LIBRARIES} ${name} PARENT_SCOPE)
endfunction()

set(POSTWIRE_FOLDERS src/foundation src/message src/parser src/sender src/socket)
postwire_add_library(qorcore platform.map platform/core/*.cpp)
postwire_add_library(zulstream platform.map platform/stream/*.cpp)
list(TRANSFORM POSTWIRE_FOLDERS APPEND /*.cpp OUTPUT_VARIABLE sources)
postwire_add_library(postwire postwire.map ${sources})
target_link_libraries(zulstream PUBLIC qorcore)
target_link_libraries(postwire PUBLIC zulstream qorcore)

file(GLOB sources CONFIGURE_DEPENDS platform/resolver/*.cpp)
add_library(TOV_Crypto_Interface MODULE ${sources})
target_include_directories(TOV_Crypto_Interface PRIVATE ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(TOV_Crypto_Interface PRIVATE postwire_warnings)
# It stands among shared libraries, where Debian expects each to have a name.
target_link_options(TOV_Crypto_Interface PRIVATE LINKER:-soname,libTOV_Crypto_Interface.so)
set_target_properties(TOV_Crypto_Interface PROPERTIES
  CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
# Loaded by the core library when a host or a port is resolved, so built wherever that is.
add_dependencies(qorcore TOV_Crypto_Interface)
