# What every target of the project is compiled with.

# kova_target_defaults(TARGET): warnings, and file names in the binary that do not depend on where the tree lies.
function(kova_target_defaults target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align -Wformat=2
    -Wundef -Wno-psabi
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
    $<$<BOOL:${KOVA_WERROR}>:-Werror>)
endfunction()
