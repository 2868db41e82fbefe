# What every target of the project has in common.

# kiv_target(<target>): warnings (errors in our presets), hidden symbols, the sanitizers of the build.
function(kiv_target target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                           $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
  set_target_properties(${target} PROPERTIES C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden
                                             VISIBILITY_INLINES_HIDDEN ON)
  if(KIV_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all
                                             # gcc takes the sanitizers' own paths for uninitialised reads.
                                             $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(${target} PUBLIC -fsanitize=${KIV_SANITIZE})
  endif()
endfunction()
