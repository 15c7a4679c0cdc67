# Warnings for the project's own targets only; third-party headers come in as
# system includes through their imported targets and are not affected.
function(lumora_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wformat=2)
  if(LUMORA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
