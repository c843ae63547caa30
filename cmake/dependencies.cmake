# Libraries of other makers. What needs one that is missing, or is there for another architecture
# only, is left out with a message.
include(CheckCXXSourceCompiles)

# postwire_check_library(NAME TARGET PACKAGE SOURCE): POSTWIRE_HAS_NAME, whether what is built here
# can use it.
function(postwire_check_library name target package source)
  if(TARGET ${target})
    set(CMAKE_REQUIRED_LIBRARIES ${target})
    set(CMAKE_REQUIRED_QUIET ON)
    unset(POSTWIRE_HAS_${name} CACHE)
    check_cxx_source_compiles("${source}" POSTWIRE_HAS_${name})
    set(missing_${name} "${package} is there for another architecture" PARENT_SCOPE)
  else()
    set(missing_${name} "Debian package ${package}" PARENT_SCOPE)
  endif()
endfunction()

# postwire_has_all(RESULT NAME LIBRARY...): whether NAME can be built with these.
function(postwire_has_all result name)
  foreach(library IN LISTS ARGN)
    if(NOT POSTWIRE_HAS_${library})
      message(STATUS "${name}: left out (${missing_${library}})")
      set(${result} FALSE PARENT_SCOPE)
      return()
    endif()
  endforeach()
  set(${result} TRUE PARENT_SCOPE)
endfunction()

find_package(OpenSSL QUIET)
postwire_check_library(OpenSSL OpenSSL::SSL libssl-dev
  "#include <openssl/ssl.h>\nint main() { SSL_CTX_free(SSL_CTX_new(TLS_method())); }")
set(Boost_NO_BOOST_CMAKE ON)  # headers alone, which are the same for all architectures
find_package(Boost QUIET)
postwire_check_library(BoostUrl Boost::headers libboost-url1.81-dev
  "#include <boost/url/src.hpp>\nint main() {}")
