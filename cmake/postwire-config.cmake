# What find_package(postwire) loads: the library, and of what stands above it the components that are
# asked for, each a file that its own package brings.
include(${CMAKE_CURRENT_LIST_DIR}/postwire-targets.cmake)
foreach(postwire_component IN LISTS postwire_FIND_COMPONENTS)
  set(postwire_targets ${CMAKE_CURRENT_LIST_DIR}/postwire-${postwire_component}-targets.cmake)
  if(EXISTS ${postwire_targets})
    include(${postwire_targets})
    set(postwire_${postwire_component}_FOUND TRUE)
  elseif(postwire_FIND_REQUIRED_${postwire_component})
    set(postwire_FOUND FALSE)
    set(postwire_NOT_FOUND_MESSAGE "the component ${postwire_component} is not installed")
  endif()
endforeach()
