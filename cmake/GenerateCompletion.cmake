# cmake -DTOOL=<built tarvikctl> -DOUTPUT=<file> -P GenerateCompletion.cmake
# Writes what 'tarvikctl --bash-completion' prints, after checking that bash
# can parse it.
execute_process(COMMAND ${TOOL} --bash-completion OUTPUT_FILE ${OUTPUT}.tmp
  RESULT_VARIABLE _rc ERROR_VARIABLE _err TIMEOUT 60)
file(SIZE ${OUTPUT}.tmp _size)
if(NOT _rc STREQUAL "0" OR _size EQUAL 0)
  file(REMOVE ${OUTPUT}.tmp)
  message(FATAL_ERROR "${TOOL} --bash-completion failed (${_rc}): ${_err}")
endif()
find_program(_bash bash)
if(_bash)
  execute_process(COMMAND ${_bash} -n ${OUTPUT}.tmp RESULT_VARIABLE _rc ERROR_VARIABLE _err)
  if(NOT _rc STREQUAL "0")
    message(FATAL_ERROR "the bash completion does not parse: ${_err}")
  endif()
endif()
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
