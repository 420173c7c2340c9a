# One interface target carries the warnings, the sanitizers and the hardening, so that every target is held to the same.
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

# Position independent, read-only once relocated, guarded stacks, checked buffers. The sanitizers bring checks of their
# own, and those of buffers need an optimizing build.
target_compile_options(project_options INTERFACE -fPIE -fstack-protector-strong)
target_link_options(project_options INTERFACE -pie -Wl,-z,relro,-z,now)
if(NOT QUORVANED_SANITIZE)
  target_compile_options(project_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()

# Small before fast: the time goes to the kernel and the bus, and memory on a gateway is counted in pages. Functions that
# nobody calls, most of them of header-only libraries, are left out.
if(NOT QUORVANED_SANITIZE)
  target_compile_options(project_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-Os> -ffunction-sections -fdata-sections)
  target_link_options(project_options INTERFACE -Wl,--gc-sections)
endif()

# For the few sources that run with each start, death, line of the log and status report.
function(quick_rather_than_small)
  if(NOT QUORVANED_SANITIZE)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS $<$<NOT:$<CONFIG:Debug>>:-O2>)
  endif()
endfunction()
