# tarvik-sim passes the program's exit status through and prints nothing of its own on stdout.
# Run with -DLAUNCHER=<path to tarvik-sim>.
function(expect_run expected_status expected_stdout)
  execute_process(COMMAND ${LAUNCHER} ${ARGN}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status STREQUAL "${expected_status}")
    message(FATAL_ERROR "${ARGN}: status ${status}, expected ${expected_status}\n${err}")
  endif()
  if(NOT out STREQUAL "${expected_stdout}")
    message(FATAL_ERROR "${ARGN}: stdout [${out}], expected [${expected_stdout}]")
  endif()
endfunction()

expect_run(7 "" run -- sh -c "exit 7")
expect_run(0 "child\n" run --cameras 2 --no-kernel-driver -- sh -c "echo child")
expect_run(0 "" run --camera 2:9 --other-device 2:3:1234:5678 --tilt 10,-20 -- true)
# The program sees the testbed and the preload.
expect_run(0 "" run -- sh -c "test -d \"$UMOCKDEV_DIR\" && echo \"$LD_PRELOAD\" | grep -q libumockdev-preload")
expect_run(143 "" run -- sh -c "kill -TERM $$")
expect_run(2 "" run --no-such-option -- true)
expect_run(2 "" run --tilt 80,80 -- true)
expect_run(127 "" run -- /nonexistent/program)

# Addresses run up to 255.
expect_run(0 "" run --camera 2:255 -- true)

# The emulation's root goes with the launcher.
execute_process(COMMAND ${LAUNCHER} run -- sh -c "printf %s \"$UMOCKDEV_DIR\""
  OUTPUT_VARIABLE root RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR root STREQUAL "" OR EXISTS "${root}")
  message(FATAL_ERROR "the emulation's root ${root} is left behind (status ${status})")
endif()

# A real libusb client reads the descriptors the cameras and other devices show.
execute_process(COMMAND ${LAUNCHER} run --other-device 1:3 -- lsusb -v
  OUTPUT_VARIABLE out ERROR_QUIET RESULT_VARIABLE status)
file(READ ${CMAKE_CURRENT_LIST_DIR}/lsusb-v.txt expected)
if(NOT out STREQUAL expected)
  message(FATAL_ERROR "lsusb -v shows:\n${out}\nexpected:\n${expected}")
endif()
