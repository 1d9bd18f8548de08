# The one place that sets warning and sanitizer flags for every target.
# -Wnull-dereference is left out: with -O2, GCC 12 reports it inside libstdc++ streams.
set(ORVRM_WARNINGS
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wnon-virtual-dtor -Wcast-align -Wunused -Woverloaded-virtual
  -Wformat=2 -Wimplicit-fallthrough -Wmissing-declarations)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND ORVRM_WARNINGS -Wno-format-nonliteral)
  # GCC 12 at -O2 and above reports overlapping copies inside libstdc++ for
  # plain "text" + std::string (GCC bugs 105329, 105651): every Release
  # build failed on it. Fixed in GCC 13.
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    list(APPEND ORVRM_WARNINGS -Wno-restrict)
  endif()
else()
  list(APPEND ORVRM_WARNINGS -Wno-format-nonliteral -Wno-gnu-zero-variadic-macro-arguments)
endif()
add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:${ORVRM_WARNINGS}>")
add_compile_options("$<$<COMPILE_LANGUAGE:C>:-Wall;-Wextra;-Werror>")

if(ORVRM_SANITIZE)
  set(ORVRM_SAN_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${ORVRM_SAN_FLAGS})
  add_link_options(${ORVRM_SAN_FLAGS})
  add_compile_definitions(ORVRM_SANITIZED=1)
endif()

# ThreadSanitizer cannot share a process with AddressSanitizer: a build of
# its own. Its suppressions (code that is not ours) are in
# tests/tsan.supp, which scripts/test --thread hands to the runs.
if(ORVRM_TSAN)
  if(ORVRM_SANITIZE OR ORVRM_LIBFUZZER)
    message(FATAL_ERROR "ORVRM_TSAN cannot be combined with ORVRM_SANITIZE or ORVRM_LIBFUZZER")
  endif()
  set(ORVRM_TSAN_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
  add_compile_options(${ORVRM_TSAN_FLAGS})
  add_link_options(${ORVRM_TSAN_FLAGS})
  # ThreadSanitizer does not model standalone fences, and g++ refuses them
  # (-Wtsan). Asio's fenced blocks only back up what its scheduler's mutex
  # already orders, which the sanitizer sees; asio's own switch drops them.
  add_compile_definitions(ASIO_DISABLE_FENCED_BLOCK)
endif()

# The libFuzzer build instruments every library, not only the targets' own
# files: the fuzzers are then guided by the coverage of the code they feed,
# and the sanitizers see its memory accesses. -O1 with line tables only
# keeps that build short while reports still name file and line.
if(ORVRM_LIBFUZZER)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ORVRM_LIBFUZZER needs clang (-DCMAKE_CXX_COMPILER=clang++)")
  endif()
  set(ORVRM_FUZZ_FLAGS -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
    -fno-omit-frame-pointer -O1 -gline-tables-only)
  add_compile_options(${ORVRM_FUZZ_FLAGS})
  add_link_options(-fsanitize=address,undefined)
endif()
