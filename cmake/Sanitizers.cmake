# RRM_SANITIZE: a comma-separated list for -fsanitize (address,undefined or thread), empty for none.
set(RRM_SANITIZE "" CACHE STRING "Sanitizers of this build")
if(RRM_SANITIZE)
  add_compile_options(-fsanitize=${RRM_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${RRM_SANITIZE})
  if(RRM_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
