# Every target of this project takes its warnings from vorlan_warnings.
# g++ 12 sees overlapping copies in the standard library's own "text" + std::string when it optimises: -Wno-restrict.
add_library(vorlan_warnings INTERFACE)
target_compile_options(vorlan_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
  -Wnull-dereference -Wformat=2 -Wimplicit-fallthrough
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict> $<$<BOOL:${VORLAN_WERROR}>:-Werror>)
