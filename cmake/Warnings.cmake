# Every target of this project takes its warnings from vorlan_warnings.
add_library(vorlan_warnings INTERFACE)
target_compile_options(vorlan_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
  -Wnull-dereference -Wformat=2 -Wimplicit-fallthrough
  $<$<BOOL:${VORLAN_WERROR}>:-Werror>)
