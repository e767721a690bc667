# Warning flags shared by every target of the project: warnings are errors.
add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE
  -Wall -Wextra -Werror -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>)

# Library code (agent and platform stand-in) also refuses silent narrowing.
add_library(qv_strict INTERFACE)
target_link_libraries(qv_strict INTERFACE qv_warnings)
target_compile_options(qv_strict INTERFACE -Wconversion -Wsign-conversion)

# The agent and the stand-in never throw and never ask for type information.
add_library(qv_core_flags INTERFACE)
target_compile_options(qv_core_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
