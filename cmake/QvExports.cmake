# The linker version script of the shared library, made from the list of exported names (one name a
# line, '#' starts a comment line). The list is read when CMake configures, and an edit of it
# configures again, so a name added to the list is exported by the next build.

# qv_version_script(NAMES-FILE SCRIPT): writes SCRIPT, which makes the listed names global and every
# other symbol local. A name listed twice is written once (the exports check reports it).
function(qv_version_script names_file script)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${names_file})
  file(STRINGS ${names_file} lines)
  set(names "")
  foreach(line IN LISTS lines)
    string(STRIP "${line}" line)
    if(line STREQUAL "" OR line MATCHES "^#")
      continue()
    endif()
    if(NOT line MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
      message(FATAL_ERROR "${names_file}: '${line}' is not a C name")
    endif()
    list(APPEND names ${line})
  endforeach()
  list(REMOVE_DUPLICATES names)
  list(JOIN names ";\n    " globals)
  # file(CONFIGURE) leaves an unchanged script untouched, so the library is relinked only on a change.
  file(CONFIGURE OUTPUT ${script} @ONLY CONTENT
"/* Made by CMake from ${names_file}: edit that list, not this file. */
{
  global:
    @globals@;
  local:
    *;
};
")
endfunction()
