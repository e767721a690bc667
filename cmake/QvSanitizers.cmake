# Applies QV_SANITIZE to every target of the build directory.
if(QV_SANITIZE)
  list(JOIN QV_SANITIZE "," _qv_san)
  add_compile_options(-fsanitize=${_qv_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  # The agent and the stand-in are built without type information, so the dynamic-type check cannot
  # tell their objects apart from foreign ones; every other check of the undefined-behaviour set stays.
  if("undefined" IN_LIST QV_SANITIZE)
    add_compile_options(-fno-sanitize=vptr)
  endif()
  add_link_options(-fsanitize=${_qv_san})
  # The library is C++: C programs that link it need the C++ parts of the sanitizer runtime.
  add_link_options($<$<AND:$<LINK_LANGUAGE:C>,$<C_COMPILER_ID:Clang>>:-fsanitize-link-c++-runtime>)
  link_libraries($<$<AND:$<LINK_LANGUAGE:C>,$<C_COMPILER_ID:Clang>>:stdc++>)
endif()
