# orvrm_test(<name> SOURCES ... LIBS ...): one GoogleTest program; its cases
# are listed to CTest when CTest runs, so ctest -j spreads them.
include(GoogleTest)
function(orvrm_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300 ENVIRONMENT "ORVRM_BIN_DIR=${PROJECT_BINARY_DIR}")
endfunction()

# orvrm_fuzz(<name> SOURCES ... LIBS ... CORPUS <dir>): a fuzz target built
# twice: a replay program that CTest runs over the checked-in corpus (any
# compiler), and with ORVRM_LIBFUZZER under clang a real libFuzzer binary.
function(orvrm_fuzz name)
  cmake_parse_arguments(F "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  add_executable(${name}_replay ${F_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc)
  target_link_libraries(${name}_replay PRIVATE ${F_LIBS})
  add_test(NAME fuzz_corpus.${name} COMMAND ${name}_replay ${F_CORPUS})
  if(ORVRM_LIBFUZZER AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_executable(${name}_fuzzer ${F_SOURCES})
    target_compile_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_libraries(${name}_fuzzer PRIVATE ${F_LIBS})
  endif()
endfunction()
