# Applies QV_SANITIZE to every target of the build directory.
if(QV_SANITIZE)
  list(JOIN QV_SANITIZE "," _qv_san)
  add_compile_options(-fsanitize=${_qv_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_qv_san})
  # The library is C++: C programs that link it need the C++ parts of the sanitizer runtime.
  add_link_options($<$<AND:$<LINK_LANGUAGE:C>,$<C_COMPILER_ID:Clang>>:-fsanitize-link-c++-runtime>)
  link_libraries($<$<AND:$<LINK_LANGUAGE:C>,$<C_COMPILER_ID:Clang>>:stdc++>)
endif()
