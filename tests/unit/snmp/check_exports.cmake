# Fails unless MODULE shows exactly the names listed in EXPECTED, one a line. NM is the symbol lister.
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${MODULE}
                OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" symbols "${symbols}")
list(TRANSFORM symbols REPLACE " .*" "")
file(STRINGS ${EXPECTED} expected)

set(missing ${expected})
list(REMOVE_ITEM missing ${symbols})
set(unexpected ${symbols})
list(REMOVE_ITEM unexpected ${expected})
if(missing OR unexpected)
  message(FATAL_ERROR "missing: ${missing}\nunexpected: ${unexpected}")
endif()
list(LENGTH symbols count)
message("${count} names, as expected")
