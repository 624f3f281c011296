# Test programs. GoogleTest is built from Debian's sources, so that it fits every flavour (sanitizers,
# 32 bits, target).
#
# kova_add_test(TARGET SOURCES files... LIBRARIES targets... [INTERPOSE] [LABELS labels...])
#
# One program in tests/bin of the build tree. CTest runs each test case as a process of its own in fresh
# namespaces (tests/support/nsrun), so that cases may run in any order and in parallel. Every program has the
# fixtures and helpers of tests/support/leak_check.h; INTERPOSE adds the trace spy and the faked libc, which
# then take the library's calls, and processes that play a part (tests/support/process.h).
#
# In a build for the target each program is one test, board.TARGET: all its cases run in one process, in one
# boot of the emulated board. The cases' results are left in tests/board/TARGET/result.xml of the build tree.

include(GoogleTest)
find_package(Threads REQUIRED)

set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
block()
  set(CMAKE_LIBRARY_OUTPUT_DIRECTORY)
  set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY)
  set(CMAKE_CXX_VISIBILITY_PRESET)
  set(CMAKE_VISIBILITY_INLINES_HIDDEN)
  set(CMAKE_SUPPRESS_DEVELOPER_WARNINGS ON)
  add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endblock()

# The thread sanitizer of GCC 12 cannot place its shadow memory when addresses are randomised by more than 28
# bits.
set(kova_test_launcher "${PROJECT_SOURCE_DIR}/tests/support/nsrun;${PROJECT_BINARY_DIR}")
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=thread" AND EXISTS /proc/sys/vm/mmap_rnd_bits)
  file(READ /proc/sys/vm/mmap_rnd_bits kova_mmap_rnd_bits)
  if(kova_mmap_rnd_bits GREATER 28)
    list(APPEND kova_test_launcher setarch -R)
  endif()
endif()
set(KOVA_TEST_LAUNCHER "${kova_test_launcher}" CACHE INTERNAL "What test programs run through")

# What test objects and test programs have in common.
function(kova_test_defaults target)
  kova_target_defaults(${target})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src)
  # The library under test finds the faked functions by name, and back-traces print names.
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET default VISIBILITY_INLINES_HIDDEN OFF)
  # Fortified calls have other names than those that the tests fake.
  target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE)
endfunction()

add_library(kova_test_common OBJECT
  ${PROJECT_SOURCE_DIR}/tests/support/leak_check.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/sanitizer_options.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/second_host.cpp)
add_library(kova_test_support OBJECT
  ${PROJECT_SOURCE_DIR}/tests/support/fake_libc.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/process.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/trace_recorder.cpp)
foreach(target IN ITEMS kova_test_common kova_test_support)
  kova_test_defaults(${target})
  target_link_libraries(${target} PUBLIC GTest::gtest Threads::Threads)
endforeach()
target_include_directories(kova_test_support PRIVATE ${PROJECT_SOURCE_DIR}/platform/trace_ovra/include)

function(kova_add_test target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "INTERPOSE" "" "SOURCES;LIBRARIES;LABELS")
  add_executable(${target} ${arg_SOURCES})
  kova_test_defaults(${target})
  # Objects, not an archive: the linker must take the faked functions whether the test names them or not.
  target_link_libraries(${target} PRIVATE
    kova_test_common $<$<BOOL:${arg_INTERPOSE}>:kova_test_support> ${arg_LIBRARIES}
    GTest::gtest_main GTest::gmock Threads::Threads ${CMAKE_DL_LIBS})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/platform/trace_ovra/include)
  target_link_options(${target} PRIVATE -rdynamic)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/bin)

  if(CMAKE_CROSSCOMPILING)
    kova_add_board_test(${target} --gtest_output=xml:/out/result.xml)
  else()
    set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "${KOVA_TEST_LAUNCHER}")
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT 120 LABELS "${arg_LABELS}")
  endif()
endfunction()

# kova_add_board_test(TARGET [ARGUMENT...]): runs a program on the board; what it leaves in /out is copied to
# tests/board/TARGET of the build tree.
function(kova_add_board_test target)
  # With the address sanitizer a program touches far more pages than the processor has entries for, and each
  # miss costs the emulator much.
  set(limit 300)
  if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=[a-z,]*address")
    set(limit 1500)
  endif()
  math(EXPR timeout "${limit} + 300")
  add_test(NAME board.${target}
    COMMAND ${PROJECT_SOURCE_DIR}/target/run-on-board --limit ${limit}
            --fetch ${PROJECT_BINARY_DIR}/tests/board/${target} $<TARGET_FILE:${target}> ${ARGN})
  set_tests_properties(board.${target} PROPERTIES LABELS board TIMEOUT ${timeout})
endfunction()
