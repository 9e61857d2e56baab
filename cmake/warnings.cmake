# Every target of ours compiles with warnings as errors.
add_library(halyx_warnings INTERFACE)
target_compile_options(halyx_warnings INTERFACE
  -Wall -Wextra -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:C>:-pedantic>)
