# Fails unless MODULE exports exactly the functions with unmangled names that OBJECTS, separated by commas, define, and
# the one with a mangled name. NM is the symbol lister.
function(list_symbols out)
  execute_process(COMMAND ${NM} --defined-only --extern-only --demangle --format=posix ${ARGN}
                  OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[^\n]+ T [^\n]+" symbols "${symbols}")
  list(TRANSFORM symbols REPLACE " T [0-9a-f ]*$" "")
  set(${out} ${symbols} PARENT_SCOPE)
endfunction()

string(REPLACE "," ";" objects "${OBJECTS}")
list_symbols(expected ${objects})
list(FILTER expected INCLUDE REGEX "^([A-Za-z_0-9]+|deinit_SNMPSystem\\(\\))$")
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
