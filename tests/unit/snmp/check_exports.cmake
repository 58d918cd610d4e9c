# Fails unless MODULE exports exactly the functions with unmangled names that OBJECTS, separated by commas, define, and the
# one with a mangled name. NM is the symbol lister.
function(list_symbols out)
  execute_process(COMMAND ${NM} --defined-only --extern-only --format=posix ${ARGN}
                  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[^\n]+ T [^\n]+" symbols "${symbols}")
  list(TRANSFORM symbols REPLACE " .*" "")
  set(${out} ${symbols} PARENT_SCOPE)
endfunction()

string(REPLACE "," ";" objects "${OBJECTS}")
list_symbols(expected ${objects})
list(FILTER expected EXCLUDE REGEX "^_Z")
list(APPEND expected _Z17deinit_SNMPSystemv)
list_symbols(exported --dynamic ${MODULE})

set(missing ${expected})
list(REMOVE_ITEM missing ${exported})
set(unexpected ${exported})
list(REMOVE_ITEM unexpected ${expected})
if(missing OR unexpected)
  message(FATAL_ERROR "missing: ${missing}\nunexpected: ${unexpected}")
endif()
list(LENGTH exported count)
message("${count} names, as expected")
