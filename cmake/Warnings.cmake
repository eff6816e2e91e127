# One place for the warning policy so every target of the project gets the same flags.
function(velmora_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Wold-style-cast -Wcast-align -Woverloaded-virtual)
  if(VELMORA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
