# The floor above the library: servers and clients that programs embed. A shared library of its own,
# which the other one does not know. What it takes of other makers stays within it, unseen by those
# who link it: their names in cmake/dependencies.cmake, and the targets that are linked.
set(libraries OpenSSL BoostUrl)
set(targets OpenSSL::SSL Boost::headers)
postwire_has_all(complete postwire-service ${libraries})
if(NOT complete)
  return()
endif()

postwire_add_library(postwire-service postwire-service.map src/service/*.cpp)
# Where Boost's parser of URLs is compiled, in which g++ sees null pointers at -O3 that can't be.
set_source_files_properties(src/service/Url.cpp PROPERTIES COMPILE_OPTIONS -Wno-null-dereference)
target_link_libraries(postwire-service_objects PRIVATE ${targets})
# Where it is installed, by name and not yet known as a target here: the library is installed in two
# places, and CMake could not say which of the two is meant.
target_link_libraries(postwire-service
  PUBLIC $<BUILD_INTERFACE:postwire> $<INSTALL_INTERFACE:postwire::$<1:postwire>>)
