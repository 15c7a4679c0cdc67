# Warnings for the project's own targets only; third-party headers come in as
# system includes through their imported targets and are not affected.
function(lumora_target_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wformat=2)
  # GCC on 32-bit ARM notes every std::vector<T>::iterator it passes by value
  # ("parameter passing ... changed in GCC 7.1"): a difference from code built
  # by GCC 6, which nothing here links with.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    target_compile_options(${target} PRIVATE -Wno-psabi)
  endif()
  if(LUMORA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
