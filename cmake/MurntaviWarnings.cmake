# Warnings for the project's own targets (generated protobuf code is left alone).
function(murntavi_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
endfunction()
