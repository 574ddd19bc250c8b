# End-to-end cases of tarvikctl: the real binary under tarvik-sim, checked by exit status,
# standard output and standard error. Run with -DCASE=<name> -DSIM=<tarvik-sim>
# -DTOOL=<tarvikctl> -DCARD=<card file> -DWORK=<scratch directory>.
cmake_minimum_required(VERSION 3.25)

set(SIM_ARGS "")
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(fail message)
  message(FATAL_ERROR "${message}\n--- stdout:\n${OUT}\n--- stderr:\n${ERR}")
endfunction()

# run(<expected status> COMMAND...): runs the command under the simulator (with SIM_ARGS),
# sets OUT and ERR.
function(run expected)
  execute_process(COMMAND ${SIM} run ${SIM_ARGS} -- ${ARGN}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(OUT "${out}" PARENT_SCOPE)
  set(ERR "${err}" PARENT_SCOPE)
  if(NOT status STREQUAL "${expected}")
    set(OUT "${out}")
    set(ERR "${err}")
    fail("${ARGN}: status ${status}, expected ${expected}")
  endif()
endfunction()

# tool(<expected status> ARGS...): tarvikctl ARGS under the simulator.
macro(tool expected)
  run(${expected} ${TOOL} ${ARGN})
endmacro()

# A shell line under one simulator, so that several commands see the same camera.
macro(shell expected script)
  run(${expected} sh -c "T=${TOOL} && ${script}")
endmacro()

function(expect_out expected)
  if(NOT OUT STREQUAL "${expected}")
    fail("stdout is not [${expected}]")
  endif()
endfunction()

function(expect_match stream regex)
  if(NOT "${${stream}}" MATCHES "${regex}")
    fail("${stream} does not match [${regex}]")
  endif()
endfunction()

function(expect_no_match stream regex)
  if("${${stream}}" MATCHES "${regex}")
    fail("${stream} matches [${regex}]")
  endif()
endfunction()

# json_get(<var> <path...>): a value of the JSON on stdout; fails when stdout is no JSON.
function(json_get var)
  string(JSON value ERROR_VARIABLE error GET "${OUT}" ${ARGN})
  if(error)
    fail("stdout: ${error}")
  endif()
  set(${var} "${value}" PARENT_SCOPE)
endfunction()

function(expect_json expected)
  json_get(value ${ARGN})
  if(NOT value STREQUAL "${expected}")
    fail("JSON ${ARGN} is [${value}], expected [${expected}]")
  endif()
endfunction()

# The library's log prefix: its lines must never reach stdout.
set(LOG_LINE "\\[File:[^]]*, Line:[0-9]+\\]")

if(CASE STREQUAL "info_text")
  tool(0 info)
  expect_no_match(OUT "${LOG_LINE}")
  expect_match(ERR "${LOG_LINE} ########## ReadGyro end")
  expect_match(OUT "product type: +1\n")
  expect_match(OUT "version: +SIMFW 1\\.0\\.0 2024-01-01\\.+\n +53494d465720312e30")
  expect_match(OUT "device id: +SIMID-0123456789ABCD \\(53494d49442d")
  expect_match(OUT "device sn: +SN2024SIMCAMERA00042 \\(534e")
  expect_match(OUT "mjpeg qp: +10 20 30 16909060\n")
  expect_match(OUT "roi: +100 200 640 480\n")
  expect_match(OUT "roi status: +0xa5a50001\n")
  expect_match(OUT "vcm \\(mode 0\\): +512\n")
  expect_match(OUT "autofocus state: +18\n")
  expect_match(OUT "stream state: +1\n")
  set(SIM_ARGS --tilt 10,-20)
  tool(0 info)
  expect_match(OUT "gyro: +pitch 10, roll -20\n")

elseif(CASE STREQUAL "info_json")
  # Without --quiet: the library logs on stderr, stdout stays pure JSON.
  tool(0 --json info)
  expect_match(ERR "${LOG_LINE}")
  expect_json(1 product_type)
  expect_json(640 roi 2)
  expect_json(16909060 mjpeg_qp 3)
  expect_json(SN2024SIMCAMERA00042 device_sn text)
  expect_json(534e3230323453494d43414d4552413030303432 device_sn hex)
  expect_json(512 vcm value)
  expect_json(2779054081 roi_status)
  expect_json(0 gyro pitch)

elseif(CASE STREQUAL "set_get")
  shell(0 "$T --quiet set roi 1 -2 3 0x10 && $T --quiet get roi \
    && $T --quiet set mjpeg-qp -- -2147483648 4294967295 0 0x7fffffff && $T --quiet get mjpeg-qp \
    && $T --quiet set device-sn 'SN 42' && $T --quiet get device-sn && $T --quiet get device-sn --hex \
    && $T --quiet set device-id --hex 00112233445566778899aabbccddeeff0011227f \
    && $T --quiet get device-id --hex && $T --quiet get device-id \
    && $T --quiet set vcm 4660 --mode 3 --ctrl0 1 --ctrl1 2 && $T --quiet get vcm --mode 3 \
    && $T --quiet get vcm && $T --quiet set gpio 1 0xffffffff")
  expect_out("1 -2 3 16\n-2147483648 -1 0 2147483647\nSN 42\n534e203432000000000000000000000000000000\n00112233445566778899aabbccddeeff0011227f\n\n4660\n512\n")
  tool(0 --json get vcm --mode 3)
  expect_json(3 vcm mode)
  expect_json(515 vcm value)

elseif(CASE STREQUAL "invalid_values")
  # Each is refused with status 2 before the library is started: no log line at all.
  string(REPEAT "ab" 49 long_hex)
  set(cases
    "set,roi,1,2,3" "roi takes 4 values, got 3"
    "set,roi,1,2,3,4294967296" "roi value 4: '4294967296' must be an integer from -2147483648 to 4294967295"
    "set,mjpeg-qp,1,2,3,1e3" "mjpeg-qp value 4: '1e3' must be an integer"
    "set,device-sn,ABCDEFGHIJKLMNOPQRSTU" "is longer than 20 characters"
    "set,device-sn,序列号" "must be printable ASCII"
    "set,device-sn,--hex,00112233445566778899aabbccddeeff001122" "must be exactly 40 hex digits"
    "set,device-id,--hex,00112233445566778899aabbccddeeff0011223g" "must be hex digits only"
    "set,vcm,65536" "vcm value: '65536' must be an integer from 0 to 65535"
    "set,vcm,1,--mode,256" "--mode: '256' must be an integer from 0 to 255"
    "set,roi,1,2,3,4,--hex" "--hex applies to device-id and device-sn only"
    "set,colour,1" "set: 'colour' is not one of roi, mjpeg-qp"
    "get,vcm,--mode,-1" "--mode: '-1' must be an integer from 0 to 255"
    "get,gpio" "get: 'gpio' is not one of"
    "exposure,set-times,1" "takes 2 values"
    "exposure,set-times,-1,2" "left exposure time: '-1' must be"
    "sam,5" "'5' is not a SAM command \\(0-4, 6 or 7\\)"
    "sam,8" "'8' is not a SAM command"
    "item,read,3" "item 3 \\(beep\\) can't be read. readable items: 1 et"
    "item,read,12" "item 12 \\(sam\\) is read with the sam and idcard commands"
    "item,read,19" "'19' is no extension item"
    "item,read,10,--length,49" "--length: '49' must be an integer from 0 to 48"
    "item,read,roi,--offset,2" "apply to item 10 \\(data-block\\) only"
    "item,write,version,00" "item 5 \\(version\\) can't be written"
    "item,write,roi,0102" "16 bytes \\(32 hex digits\\), got 2"
    "item,write,data-block,${long_hex}" "at most 48 bytes, got 49"
    "gyro,--watch,--interval,0" "--interval: '0' must be an integer from 10"
    "idcard,--photo,/nonexistent-dir/photo.bin" "--photo: cannot write '/nonexistent-dir/photo.bin'"
    "--bus,1,info" "--bus requires --address"
    "--bus,300,--address,1,info" "--bus: Value 300 not in range 1 to 255"
    "--quiet,--log,x.log,info" "--quiet excludes --log"
    "frobnicate" "not expected: frobnicate"
    "" "a command is required")
  list(LENGTH cases n)
  math(EXPR last "${n} - 1")
  foreach(i RANGE 0 ${last} 2)
    math(EXPR j "${i} + 1")
    list(GET cases ${i} args)
    list(GET cases ${j} message)
    string(REPLACE "," ";" args "${args}")
    tool(2 ${args})
    expect_match(ERR "^tarvikctl: [^\n]*${message}")
    expect_no_match(ERR "${LOG_LINE}|libTarvik:")
    expect_out("")
  endforeach()

elseif(CASE STREQUAL "idcard")
  set(SIM_ARGS --card ${CARD})
  tool(0 --quiet idcard --photo ${WORK}/photo.bin)
  expect_match(OUT "^name: +张三\nsex: +男\nnation: +汉\nbirth: +19900101\n")
  expect_match(OUT "address: +示例省虚构市测试路1号\nid number: +000000199001010000\n")
  expect_match(OUT "authority: +虚构市测试局\nvalid from: +20200101\nvalid to: +20300101\nreserved: *\n$")
  file(SIZE ${WORK}/photo.bin size)
  if(NOT size EQUAL 1024)
    fail("photo is ${size} bytes")
  endif()
  tool(0 --quiet --json idcard --third-block ${WORK}/third.bin)
  expect_json(张三 name)
  expect_json(000000199001010000 id_number)
  file(SIZE ${WORK}/third.bin size)
  file(READ ${WORK}/third.bin head LIMIT 3 HEX)
  if(NOT size EQUAL 1024 OR NOT head STREQUAL "fffefd")
    fail("third block: ${size} bytes beginning ${head}")
  endif()

elseif(CASE STREQUAL "sam")
  tool(0 --quiet sam 2)
  expect_out("result: 0 (success)\nnumber: 4e554d2d303132333435363738394142\n")
  tool(0 --quiet --json sam 3)
  expect_json(0 result)
  expect_json(男 card sex)

elseif(CASE STREQUAL "exposure")
  foreach(op get-times get-range get-mode "set-times;1;2" "set-mode;1;1")
    tool(1 --quiet exposure ${op})
    expect_match(ERR "^tarvikctl: exposure [a-z-]+ failed: result -2 \\(not provided by this camera's library\\)\n$")
    expect_out("")
  endforeach()
  # The library refuses differing modes; its line has no line end, the tool's starts anew.
  tool(1 exposure set-mode 1 0)
  expect_match(ERR "WriteETMode, error, left eye mode \\[1\\] should be same as right eye mode \\[0\\]\r[^\n]*release_libusb\\.\ntarvikctl: exposure set-mode failed: result -103 \\(the two eyes' modes differ\\)\n$")

elseif(CASE STREQUAL "item")
  tool(0 --quiet item read roi)
  expect_out("64000000c800000080020000e0010000\n")
  tool(0 --quiet item read 1)
  expect_out("0102030405060708090a0b0c0d0e0f101112131415168182838485868788898a8b8c8d8e8f90919293949596\n")
  shell(0 "$T --quiet item write 6 0100000002000000030000000400000f && $T --quiet get roi \
    && $T --quiet item write data-block --target 2 --offset 8 aabbcc \
    && $T --quiet item read 10 --target 2 --offset 8 --length 4 \
    && $T --quiet item write vcm 0a0b341205000000 && $T --quiet item read vcm --mode 5")
  # The fourth data byte was never written: the camera's own content.
  expect_match(OUT "^1 2 3 251658244\naabbcc[0-9a-f][0-9a-f]\n3412\n$")
  # The SAM item's write is its header alone: no record bytes.
  tool(0 --quiet item write sam)
  expect_out("")
  tool(0 --quiet --json item read 16)
  expect_json(gyro name)
  expect_json(0000000040006162636465666768 hex)

elseif(CASE STREQUAL "list")
  set(SIM_ARGS --cameras 2 --bus 3 --address 7)
  tool(0 list)
  expect_out("bus 3, address 7  0ac8:010c\nbus 3, address 8  0ac8:010c\n")
  tool(0 --json list)
  expect_json(8 1 address)
  tool(0 --bus 3 --address 8 --quiet get roi)
  expect_out("100 200 640 480\n")
  set(SIM_ARGS --cameras 0)
  tool(0 list)
  expect_out("")
  expect_match(ERR "no camera \\(0ac8:010c\\) found")

elseif(CASE STREQUAL "no_camera")
  set(SIM_ARGS --cameras 0)
  tool(3 info)
  expect_match(ERR "\ntarvikctl: no camera \\(0ac8:010c\\) found: result 11 \\(camera not open\\)\n$")
  expect_out("")
  set(SIM_ARGS --cameras 2)
  tool(3 --quiet --bus 1 --address 9 get roi)
  expect_match(ERR "^tarvikctl: no camera at bus 1, address 9 \\(cameras at bus:address 1:2, 1:3\\): result 11")

elseif(CASE STREQUAL "log_destinations")
  # The library's lines and libusb's own messages keep their order.
  set(ENV{LIBUSB_DEBUG} 4)
  tool(0 get roi)
  unset(ENV{LIBUSB_DEBUG})
  expect_match(ERR "libTarvik: libusb_get_device_list\\.\\.\\.[^\n]*\n[^\n]*libusb: debug \\[libusb_get_device_list\\]")
  tool(0 get roi)
  expect_match(ERR "${LOG_LINE} ########## ReadROI end")
  tool(0 --quiet get roi)
  expect_out("100 200 640 480\n")
  if(NOT ERR STREQUAL "")
    fail("--quiet left messages on stderr")
  endif()
  file(WRITE ${WORK}/tool.log "earlier run\n")
  tool(0 --log ${WORK}/tool.log get roi)
  expect_out("100 200 640 480\n")
  if(NOT ERR STREQUAL "")
    fail("--log left messages on stderr")
  endif()
  file(READ ${WORK}/tool.log log)
  if(NOT log MATCHES "^earlier run\n.*libTarvik: libusb_init.*ReadROI end.*release_libusb")
    fail("log file: [${log}]")
  endif()
  # An error message still reaches stderr with --log.
  tool(1 --log ${WORK}/tool.log exposure get-mode)
  expect_match(ERR "^tarvikctl: exposure get-mode failed")

elseif(CASE STREQUAL "gyro")
  set(SIM_ARGS --tilt 35,-12)
  tool(0 --quiet gyro)
  expect_out("pitch 35, roll -12\n")
  tool(0 --quiet --json gyro --watch --count 3 --interval 10)
  string(REGEX MATCHALL "{\"pitch\":35,\"roll\":-12}\n" samples "${OUT}")
  list(LENGTH samples n)
  if(NOT n EQUAL 3)
    fail("expected 3 samples")
  endif()
  # Interrupted: ends its line and exits 0.
  run(0 timeout --preserve-status -s INT 1 ${TOOL} --quiet gyro --watch --interval 100)
  expect_match(OUT "^(pitch 35, roll -12\n)+$")

elseif(CASE STREQUAL "simulate")
  execute_process(COMMAND ${TOOL} --simulate --quiet get roi
    RESULT_VARIABLE status OUTPUT_VARIABLE OUT ERROR_VARIABLE ERR)
  if(NOT status EQUAL 0)
    fail("--simulate: status ${status}")
  endif()
  expect_out("100 200 640 480\n")

else()
  message(FATAL_ERROR "unknown case ${CASE}")
endif()
