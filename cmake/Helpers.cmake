# orvrm_test(<name> [THREADED] SOURCES ... LIBS ...): one GoogleTest
# program; its cases are listed to CTest when CTest runs, so ctest -j spreads
# them. THREADED marks the programs of the parts that run threads (framework,
# service, client library, daemon classes): the ThreadSanitizer build
# (ORVRM_TSAN) builds and runs only those.
include(GoogleTest)
function(orvrm_test name)
  cmake_parse_arguments(T "THREADED" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest GTest::gtest_main Threads::Threads)
  if(ORVRM_TSAN AND NOT T_THREADED)
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL TRUE)
    return()
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300 ENVIRONMENT "ORVRM_BIN_DIR=${PROJECT_BINARY_DIR}")
endfunction()

# orvrm_fuzz(<name> SOURCES ... LIBS ... CORPUS <dir>): a fuzz target built
# twice: a replay program that CTest runs over the checked-in corpus (any
# compiler), and with ORVRM_LIBFUZZER (clang) a real libFuzzer binary. The
# libFuzzer binaries join the "fuzzers" target, which builds them and what
# they link and nothing else, and are listed with their corpus folders in
# <build>/fuzz/targets.txt ("<binary> <corpus>" a line) for scripts/fuzz.
if(ORVRM_LIBFUZZER)
  add_custom_target(fuzzers)
  set(ORVRM_FUZZ_LIST ${PROJECT_BINARY_DIR}/fuzz/targets.txt)
  file(WRITE ${ORVRM_FUZZ_LIST} "")
endif()
function(orvrm_fuzz name)
  cmake_parse_arguments(F "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  add_executable(${name}_replay ${F_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc)
  target_link_libraries(${name}_replay PRIVATE ${F_LIBS})
  add_test(NAME fuzz_corpus.${name} COMMAND ${name}_replay ${F_CORPUS})
  if(ORVRM_LIBFUZZER)
    add_executable(${name}_fuzzer ${F_SOURCES})
    target_link_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${name}_fuzzer PRIVATE ${F_LIBS})
    add_dependencies(fuzzers ${name}_fuzzer)
    file(APPEND ${ORVRM_FUZZ_LIST} "${CMAKE_CURRENT_BINARY_DIR}/${name}_fuzzer ${F_CORPUS}\n")
  endif()
endfunction()
