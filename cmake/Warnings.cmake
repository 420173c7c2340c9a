# One interface target carries the warnings and the sanitizers, so that every target is held to the same ones.
add_library(project_options INTERFACE)
target_compile_options(project_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(QUORVANED_WERROR)
  target_compile_options(project_options INTERFACE -Werror)
endif()
if(QUORVANED_SANITIZE)
  target_compile_options(project_options INTERFACE -fsanitize=${QUORVANED_SANITIZE} -fno-omit-frame-pointer
                                                   -fno-sanitize-recover=all)
  target_link_options(project_options INTERFACE -fsanitize=${QUORVANED_SANITIZE})
endif()
