# Keeps the layers depending one way. Run as a script:
#   cmake -DSOURCE_DIR=<tree> -P CheckLayers.cmake            checks the tree
#   cmake -DSOURCE_DIR=<tree> -DEXPECTED=<file> -P ...          prints what it
#     finds and fails unless it is exactly the list in <file> (its self-test)
# Two rules:
# - a source file includes (#include "dir/...") only from its own layer and
#   the layers below it, as listed in LAYERS;
# - a CMakeLists.txt edits (target_*, add_dependencies, set_target_properties)
#   only the targets it defines itself.
cmake_minimum_required(VERSION 3.25)

# "<folder>=<folders it may include from>". A file belongs to the longest
# folder that holds it; an include to the longest folder its path starts with.
# orvrm (the daemon's classes) is the top and is not listed.
set(LAYERS
  "platform=platform"
  "tarn_base=platform tarn_base"
  "tarn_rmf=platform tarn_base tarn_rmf"
  "tarn_rmf2v=platform tarn_base tarn_rmf tarn_rmf2v"
  "znhas=platform znhas"
  "common=platform tarn_base common"
  "znpex=platform tarn_base tarn_rmf tarn_rmf2v znhas znpex"
  "tarn_rmf2v/link=platform tarn_base tarn_rmf tarn_rmf2v tarn_rmf2v/link znpex"
  "orvnode=platform tarn_base tarn_rmf tarn_rmf2v znhas common znpex orvnode"
)
# Folders an include may name besides the listed ones.
set(OTHER_ROOTS orvrm tests)

if(NOT SOURCE_DIR)
  message(FATAL_ERROR "CheckLayers: give -DSOURCE_DIR=<source tree>")
endif()

set(folders "")
foreach(rule IN LISTS LAYERS)
  string(REGEX REPLACE "=.*" "" folder "${rule}")
  string(REGEX REPLACE "^[^=]*=" "" allowed "${rule}")
  string(REPLACE " " ";" allowed "${allowed}")
  string(REPLACE "/" "_" key "${folder}")
  set(ALLOWED_${key} ${allowed})
  list(APPEND folders ${folder})
endforeach()
set(roots ${folders} ${OTHER_ROOTS})

# The longest of `candidates` that `path` is in (or starts with), or "".
function(owner_of path candidates out)
  set(best "")
  foreach(c IN LISTS candidates)
    string(LENGTH "${c}" n)
    string(LENGTH "${best}" b)
    string(FIND "${path}" "${c}/" at)
    if(at EQUAL 0 AND n GREATER b)
      set(best "${c}")
    endif()
  endforeach()
  set(${out} "${best}" PARENT_SCOPE)
endfunction()

set(found "")

# Includes.
set(globs "")
foreach(folder IN LISTS folders)
  list(APPEND globs "${SOURCE_DIR}/${folder}/*.h" "${SOURCE_DIR}/${folder}/*.cc")
endforeach()
file(GLOB_RECURSE sources LIST_DIRECTORIES false RELATIVE "${SOURCE_DIR}" ${globs})
list(REMOVE_DUPLICATES sources)
list(SORT sources)
foreach(file IN LISTS sources)
  owner_of("${file}" "${folders}" layer)
  string(REPLACE "/" "_" key "${layer}")
  file(STRINGS "${SOURCE_DIR}/${file}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]*)\".*" "\\1" inc "${line}")
    owner_of("${inc}" "${roots}" target)
    if(target STREQUAL "" OR target IN_LIST ALLOWED_${key})
      continue()
    endif()
    list(APPEND found "${file}: ${layer} includes ${inc}")
  endforeach()
endforeach()

# CMakeLists.txt editing another folder's targets. The self-test's fixture
# tree (tests/layers/fixture) breaks the rules on purpose.
file(GLOB_RECURSE lists LIST_DIRECTORIES false RELATIVE "${SOURCE_DIR}" "${SOURCE_DIR}/*CMakeLists.txt")
list(FILTER lists INCLUDE REGEX "(^|/)CMakeLists\\.txt$")
list(FILTER lists EXCLUDE REGEX "^(build[^/]*|\\.[^/]*|tests/layers/fixture)/")
list(SORT lists)
set(define_re "(add_library|add_executable|add_custom_target|orvrm_test|orvrm_fuzz)\\([ \t\n]*([^ \t\n)]+)")
set(edit_re "(target_[a-z_]+|add_dependencies|set_target_properties)\\([ \t\n]*([^ \t\n)]+)")
foreach(file IN LISTS lists)
  file(READ "${SOURCE_DIR}/${file}" text)
  string(REGEX REPLACE "#[^\n]*" "" text "${text}")  # comments
  set(own "")
  string(REGEX MATCHALL "${define_re}" defs "${text}")
  foreach(d IN LISTS defs)
    string(REGEX REPLACE "${define_re}" "\\2" name "${d}")
    list(APPEND own "${name}")
    if(d MATCHES "^orvrm_fuzz")
      list(APPEND own "${name}_replay" "${name}_fuzzer")
    endif()
  endforeach()
  string(REGEX MATCHALL "${edit_re}" edits "${text}")
  foreach(e IN LISTS edits)
    string(REGEX REPLACE "${edit_re}" "\\2" name "${e}")
    if(NOT name IN_LIST own)
      list(APPEND found "${file}: edits the target ${name}, defined elsewhere")
    endif()
  endforeach()
endforeach()

if(EXPECTED)
  file(STRINGS "${EXPECTED}" want)
  foreach(f IN LISTS found)
    message("${f}")
  endforeach()
  if(NOT found STREQUAL want)
    string(REPLACE ";" "\n  " w "${want}")
    message(FATAL_ERROR "CheckLayers self-test: expected exactly\n  ${w}")
  endif()
elseif(found)
  string(REPLACE ";" "\n  " f "${found}")
  message(FATAL_ERROR "Layers depend one way; these break it:\n  ${f}")
endif()
