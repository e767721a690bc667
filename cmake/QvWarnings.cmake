# Warning flags shared by every target of the project. Warnings are on in every build; they become
# errors only with QV_WARNINGS_AS_ERRORS (scripts/test and CI switch it on), so a user's or packager's
# build never stops on a warning of a compiler version we have not tried.
option(QV_WARNINGS_AS_ERRORS "Turn compiler warnings into errors" OFF)

add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE
  -Wall -Wextra -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>
  $<$<BOOL:${QV_WARNINGS_AS_ERRORS}>:-Werror>)

# Library code (agent and platform stand-in) also refuses silent narrowing.
add_library(qv_strict INTERFACE)
target_link_libraries(qv_strict INTERFACE qv_warnings)
target_compile_options(qv_strict INTERFACE -Wconversion -Wsign-conversion)

# The agent and the stand-in never throw and never ask for type information.
add_library(qv_core_flags INTERFACE)
target_compile_options(qv_core_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
