# The one place that sets warning and sanitizer flags for every target.
# -Wnull-dereference is left out: with -O2, GCC 12 reports it inside libstdc++ streams.
set(ORVRM_WARNINGS
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wnon-virtual-dtor -Wcast-align -Wunused -Woverloaded-virtual
  -Wformat=2 -Wimplicit-fallthrough -Wmissing-declarations)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND ORVRM_WARNINGS -Wno-format-nonliteral)
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
