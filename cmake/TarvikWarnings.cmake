# Warning set for the project's own targets (third-party code is built without it).
function(tarvik_own_target target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
    -Wnon-virtual-dtor -Wcast-align -Wformat=2 -Wnull-dereference
    "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
  if(TARVIK_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
