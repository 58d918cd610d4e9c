# Writes OUTPUT from TEMPLATE with VERSION and the commit of the tree at SOURCE; run at build time, so that a commit
# recompiles one file. KELV_COMMIT names the commit where it is not empty.
set(commit "${KELV_COMMIT}")
if(NOT commit AND EXISTS "${SOURCE}/.git")
  # Does not write to the repository.
  execute_process(COMMAND ${CMAKE_COMMAND} -E env GIT_OPTIONAL_LOCKS=0
                  git describe --always --dirty --exclude=* --abbrev=12
                  WORKING_DIRECTORY "${SOURCE}" OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT commit)
  set(commit unknown)
endif()
configure_file("${TEMPLATE}" "${OUTPUT}" @ONLY)
