# What every target of the project is compiled with.

# kova_target_defaults(TARGET): warnings, and file names in the binary that do not depend on where the tree lies.
function(kova_target_defaults target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align -Wformat=2
    -Wundef -Wno-psabi
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
    $<$<BOOL:${KOVA_WERROR}>:-Werror>)
endfunction()

# What the address sanitizer lacks on the target is linked into every program.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "ppc" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize=[a-z,]*address")
  add_library(kova_sanitizer_sync OBJECT ${PROJECT_SOURCE_DIR}/target/sanitizer/sync.c)
  target_compile_options(kova_sanitizer_sync PRIVATE -fno-sanitize=all)
  link_libraries($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:kova_sanitizer_sync>>)
endif()
