# Warnings that find real faults, all of them errors, but for those who build us within a project
# of theirs, with a compiler of theirs. Linked by our own targets alone, so that GoogleTest's sources
# are compiled as they come.
add_library(postwire_warnings INTERFACE)
target_compile_options(postwire_warnings INTERFACE
  $<$<BOOL:${PROJECT_IS_TOP_LEVEL}>:-Werror> -Wall -Wextra -Wpedantic -Wshadow
  -Wconversion -Wsign-conversion -Wdouble-promotion -Wold-style-cast -Wcast-qual -Wcast-align
  -Wnon-virtual-dtor -Woverloaded-virtual -Wsuggest-override -Wextra-semi
  -Wformat=2 -Wundef -Wnull-dereference -Wimplicit-fallthrough -Wvla
  -Wzero-as-null-pointer-constant -Wmissing-declarations
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond;-Wduplicated-branches;-Wlogical-op;-Wcatch-value=3;-Wredundant-decls>
  $<$<CXX_COMPILER_ID:Clang>:-Wunreachable-code;-Wcomma;-Wheader-hygiene;-Wmissing-variable-declarations>)
