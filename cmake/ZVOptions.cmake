# Warnings and sanitizers shared by every target of the project.
add_library(zv_warnings INTERFACE)
target_compile_options(zv_warnings INTERFACE -Wall -Wextra -Wpedantic)

if(ZV_SANITIZE)
  add_compile_options(-fsanitize=${ZV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZV_SANITIZE})
endif()
