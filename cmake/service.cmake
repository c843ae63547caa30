# The floor above the library: a server that programs embed. A shared library of its own, which the
# other one does not know.
postwire_add_library(postwire-service postwire-service.map src/service/*.cpp)
target_link_libraries(postwire-service PUBLIC postwire)
list(REMOVE_ITEM POSTWIRE_LIBRARIES postwire-service)  # not installed yet
