# rrm_warnings(TARGET): the warnings of this project, all of them errors.
function(rrm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
endfunction()

# Log records and assertions name files relative to the source folder.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
