# tarvik_pytest_cases(PREFIX p FILE test.py [SIM_ARGS ...] LABELS ... ENVIRONMENT ...
#                     CASES Name1 filter1 Name2 filter2 ...)
# One ctest entry p.NameN per case: the pytest cases of FILE matching filterN,
# run by Debian's Python under a simulator of their own (tarvik-sim run SIM_ARGS),
# two minutes at the most, with ASan's link-order check off (the interpreter is
# not instrumented).
function(tarvik_pytest_cases)
  cmake_parse_arguments(arg "" "PREFIX;FILE" "SIM_ARGS;LABELS;ENVIRONMENT;CASES" ${ARGN})
  list(LENGTH arg_CASES _n)
  math(EXPR _last "${_n} - 1")
  foreach(_i RANGE 0 ${_last} 2)
    math(EXPR _j "${_i} + 1")
    list(GET arg_CASES ${_i} _name)
    list(GET arg_CASES ${_j} _filter)
    add_test(NAME ${arg_PREFIX}.${_name}
      COMMAND tarvik-sim run ${arg_SIM_ARGS} -- /usr/bin/python3 -m pytest -q -p no:cacheprovider
        -k ${_filter} ${arg_FILE})
    set_tests_properties(${arg_PREFIX}.${_name} PROPERTIES LABELS "${arg_LABELS}" TIMEOUT 120
      ENVIRONMENT "${arg_ENVIRONMENT};PYTHONDONTWRITEBYTECODE=1"
      ENVIRONMENT_MODIFICATION "ASAN_OPTIONS=string_append::verify_asan_link_order=0")
  endforeach()
endfunction()
