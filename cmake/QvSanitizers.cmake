# Applies QV_SANITIZE to every target of the build directory.
if(QV_SANITIZE)
  list(JOIN QV_SANITIZE "," _qv_san)
  add_compile_options(-fsanitize=${_qv_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_qv_san})
endif()
