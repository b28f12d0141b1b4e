# What every target of this project is compiled with; consumers of the library see none of it.
function(kp_target_defaults target)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF CXX_STANDARD 17
                                             CXX_STANDARD_REQUIRED ON)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wcast-qual -Wformat=2
    -Wnull-dereference -Wextra-semi)
  if(KP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(KP_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${KP_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${KP_SANITIZE})
  endif()
endfunction()
