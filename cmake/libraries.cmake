# The libraries: each is a set of objects, linked into its shared library and, so that internal
# classes can be reached, into the unit tests.

function(postwire_add_objects name)
  file(GLOB sources CONFIGURE_DEPENDS ${ARGN})
  if(NOT sources)
    add_library(${name} INTERFACE)
    return()
  endif()
  add_library(${name} OBJECT ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE postwire_warnings PUBLIC Threads::Threads)
  # Inline members are hidden as well: whether they exist out of line differs by compiler and
  # optimisation, and the list of exported symbols must not.
  set_target_properties(${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

function(postwire_add_shared name objects)
  get_target_property(type ${objects} TYPE)
  if(NOT type STREQUAL OBJECT_LIBRARY)
    return()
  endif()
  add_library(${name} SHARED)
  target_link_libraries(${name} PRIVATE ${objects})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src> $<INSTALL_INTERFACE:include/postwire>)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()

postwire_add_objects(qorcore_objects platform/core/*.cpp)
postwire_add_objects(zulstream_objects platform/stream/*.cpp)
postwire_add_objects(postwire_objects src/*/*.cpp)
if(NOT CMAKE_DL_LIBS STREQUAL "")
  target_link_libraries(qorcore_objects INTERFACE ${CMAKE_DL_LIBS})
  target_link_libraries(postwire_objects INTERFACE ${CMAKE_DL_LIBS})
endif()

postwire_add_shared(qorcore qorcore_objects)
postwire_add_shared(zulstream zulstream_objects)
postwire_add_shared(postwire postwire_objects)
if(TARGET zulstream)
  target_link_libraries(zulstream PUBLIC qorcore)
endif()
if(TARGET postwire)
  target_link_libraries(postwire PUBLIC zulstream qorcore)
  set(map ${CMAKE_CURRENT_LIST_DIR}/postwire.map)
  target_link_options(postwire PRIVATE LINKER:--version-script=${map})
  set_target_properties(postwire PROPERTIES LINK_DEPENDS ${map})
endif()

file(GLOB resolver CONFIGURE_DEPENDS platform/resolver/*.cpp)
if(resolver)
  add_library(TOV_Crypto_Interface MODULE ${resolver})
  target_link_libraries(TOV_Crypto_Interface PRIVATE postwire_warnings)
  target_include_directories(TOV_Crypto_Interface PRIVATE ${PROJECT_SOURCE_DIR}/src)
  set_target_properties(TOV_Crypto_Interface PROPERTIES
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endif()

# Installed: the libraries, the resolver module beside the core library that looks for it there,
# and the headers in their folders, but for those that the library keeps to itself.
include(GNUInstallDirs)
foreach(library IN ITEMS qorcore zulstream postwire TOV_Crypto_Interface)
  if(TARGET ${library})
    set_target_properties(${library} PROPERTIES INSTALL_RPATH $ORIGIN)
    install(TARGETS ${library} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/postwire
  FILES_MATCHING PATTERN "*.h"
  PATTERN AsciiText.h EXCLUDE
  PATTERN AsciiText.h EXCLUDE
  PATTERN GuardedAllocation.h EXCLUDE
  PATTERN HttpOutputStream.h EXCLUDE
  PATTERN QORSocketAddress.h EXCLUDE)
