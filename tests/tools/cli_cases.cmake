# End-to-end cases of tarvikctl: the real binary under tarvik-sim, checked by exit status,
# standard output and standard error. Run with -DCASE=<name> -DSIM=<tarvik-sim>
# -DTOOL=<tarvikctl> -DCARD=<card file> -DWORK=<scratch directory> -DSOURCE=<source tree>.
cmake_minimum_required(VERSION 3.25)

set(SIM_ARGS "")
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(fail message)
  message(FATAL_ERROR "${message}\n--- stdout:\n${OUT}\n--- stderr:\n${ERR}")
endfunction()

# run(<expected status> COMMAND...): runs the command under the simulator (with SIM_ARGS,
# and inside WRAP when set), sets OUT and ERR.
function(run expected)
  execute_process(COMMAND ${WRAP} ${SIM} run ${SIM_ARGS} -- ${ARGN}
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

# A shell line under one simulator, so that several commands see the same camera. A ';'
# would split the CMake argument: separate shell commands with new lines.
macro(shell expected script)
  run(${expected} sh -c "T=${TOOL} && ${script}")
endmacro()

function(expect_out expected)
  if(NOT OUT STREQUAL "${expected}")
    fail("stdout is not [${expected}]")
  endif()
endfunction()

function(expect_err expected)
  if(NOT ERR STREQUAL "${expected}")
    fail("stderr is not [${expected}]")
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

# expect_json_error(<result> <name> <message regex>): the error object of every command.
function(expect_json_error result name regex)
  expect_json(OFF ok)
  expect_json(${result} result)
  expect_json(${name} error)
  json_get(message message)
  if(NOT message MATCHES "${regex}")
    fail("JSON message [${message}] does not match [${regex}]")
  endif()
endfunction()

function(expect_mode file mode)
  execute_process(COMMAND stat -c %a ${file} OUTPUT_VARIABLE actual OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT actual STREQUAL "${mode}")
    fail("${file} has mode ${actual}, expected ${mode}")
  endif()
endfunction()

# The library's log prefix: its lines must never reach stdout.
set(LOG_LINE "\\[File:[^]]*, Line:[0-9]+\\]")

# The exposure block of both eyes, as `item write et` takes it: per eye the time, the
# largest and the smallest time (32-bit), 16 bits extra and eight flag bytes, flags[4]
# the mode (1: manual). Left 100 in 10-20000, right 200 in 20-30000, both manual.
set(ET_LEFT "64000000204e00000a00000000000000000001000000")
set(ET_RIGHT "c8000000307500001400000000000000000001000000")

if(CASE STREQUAL "info_text")
  # Quiet by default: nothing on stderr.
  tool(0 info)
  expect_err("")
  expect_match(OUT "^product type: +1\nversion: +SIMFW 1\\.0\\.0 2024-01-01\\.+\n +53494d465720312e30")
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
  expect_match(OUT "gyro: +pitch 10, roll -20\n$")

elseif(CASE STREQUAL "info_json")
  # -v: the library's lines on stderr, stdout stays one JSON object.
  tool(0 -v --json info)
  expect_match(ERR "${LOG_LINE} ########## ReadGyro end")
  expect_json(ON ok)
  expect_json(0 result)
  expect_json(640 roi 2)
  expect_json(16909060 mjpeg_qp 3)
  expect_json(SN2024SIMCAMERA00042 device_sn text)
  expect_json(534e3230323453494d43414d4552413030303432 device_sn hex)
  expect_json(512 vcm value)
  expect_json(2779054081 roi_status)
  expect_json(0 gyro pitch)

elseif(CASE STREQUAL "version_help")
  tool(0 --version)
  expect_match(OUT "^tarvikctl [0-9]+\\.[0-9]+\\.[0-9]+ \\(libTarvik [0-9]+\\.[0-9]+\\.[0-9]+\\)\n$")
  tool(0 exposure --help)
  expect_match(OUT "set-times refuses a time outside its eye's range")
  tool(0 idcard --help)
  expect_match(OUT "--photo FILE[^\n]*\n[^\n]*mode 0600")
  # The completion script: commands, options and the settings of the table.
  tool(0 --bash-completion)
  expect_match(OUT "complete -F _tarvikctl tarvikctl\n$")
  expect_match(OUT "\"tarvikctl set\"\\]=\"roi mjpeg-qp device-id device-sn gpio vcm\"")
  expect_match(OUT "\"tarvikctl get vcm\"\\]=\"[^\"]*--mode")
  expect_no_match(OUT "\"[^\"]*--(quiet|bash-completion)[^\"]*\"")
  tool(0 --help)
  expect_no_match(OUT "--quiet|--bash-completion")

elseif(CASE STREQUAL "set_get")
  shell(0 "$T set roi 1 -2 3 0x10 && $T get roi \
    && $T set mjpeg-qp -- -2147483648 4294967295 0 0x7fffffff && $T get mjpeg-qp \
    && $T set device-sn 'SN 42' && $T get device-sn && $T get device-sn --hex \
    && $T set device-id --hex 00112233445566778899aabbccddeeff0011227f \
    && $T get device-id --hex && $T get device-id \
    && $T set vcm 4660 --mode 3 --ctrl0 1 --ctrl1 2 && $T get vcm --mode 3 \
    && $T get vcm && $T set gpio 1 0xffffffff")
  expect_out("1 -2 3 16\n-2147483648 -1 0 2147483647\nSN 42\n534e203432000000000000000000000000000000\n00112233445566778899aabbccddeeff0011227f\n\n4660\n512\n")
  expect_err("")
  tool(0 get vcm --mode 3 --json)
  expect_out("{\"ok\":true,\"result\":0,\"setting\":\"vcm\",\"value\":515,\"mode\":3}\n")
  tool(0 --json get device-sn)
  expect_json(SN2024SIMCAMERA00042 value)
  expect_json(534e3230323453494d43414d4552413030303432 hex)
  tool(0 --json set roi 1 2 3 4)
  expect_out("{\"ok\":true,\"result\":0,\"setting\":\"roi\"}\n")

elseif(CASE STREQUAL "invalid_values")
  # Each is refused with status 2 before the library is started: nothing is sent.
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
    "set,roi,1,2,3,4,--hex" "not expected: --hex"
    "set,colour,1" "set: 'colour' is not one of roi, mjpeg-qp, device-id, device-sn, gpio, vcm"
    "set" "set: which setting\\? roi"
    "get,roi,5" "get roi: '5' was not expected"
    "get,vcm,--mode,-1" "--mode: '-1' must be an integer from 0 to 255"
    "get,gpio" "get: 'gpio' is not one of roi, mjpeg-qp, device-id, device-sn, vcm"
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
    "-s,KIOSK-1,--bus,1,--address,2,info" "--bus excludes --serial"
    "--transport,pcie,info" "--transport: pcie not in \\{usb,kernel,auto\\}"
    "--video,/dev/video0,--transport,usb,info" "--video reaches the camera through the kernel path"
    "--log,/nonexistent-dir/tool.log,info" "--log: cannot open /nonexistent-dir/tool.log"
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
    expect_out("")
    # With --json the same error is the one error object on stdout.
    tool(2 --json ${args})
    expect_json_error(-1001 TARVIK_E_INVALID_ARGUMENT "${message}")
  endforeach()
  # Two different exposure modes keep their own code.
  tool(2 exposure set-mode 1 0)
  expect_err("tarvikctl: exposure set-mode: the two eyes' modes differ (left 1, right 0); they must be equal\n")
  tool(2 --json exposure set-mode 1 0)
  expect_json_error(-1009 TARVIK_E_MODES_DIFFER "must be equal$")

elseif(CASE STREQUAL "idcard")
  set(SIM_ARGS --card ${CARD})
  # A photo file that was there, readable by all, is readable by its owner alone after.
  file(WRITE ${WORK}/photo.bin "old")
  file(CHMOD ${WORK}/photo.bin PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  tool(0 idcard --photo ${WORK}/photo.bin)
  expect_out("name:        张三\nsex:         男\nsex code:    1\nnation:      汉\nnation code: 01\nbirth:       19900101\naddress:     示例省虚构市测试路1号\nid number:   000000199001010000\nauthority:   虚构市测试局\nvalid from:  20200101\nvalid to:    20300101\nreserved:\nsam result:  0 (success)\n")
  file(SIZE ${WORK}/photo.bin size)
  if(NOT size EQUAL 1024)
    fail("photo is ${size} bytes")
  endif()
  expect_mode(${WORK}/photo.bin 600)
  tool(0 --json idcard --third-block ${WORK}/third.bin)
  expect_json(ON ok)
  expect_json(0 sam_result)
  expect_json(张三 name)
  expect_json(1 sex_code)
  expect_json(01 nation_code)
  expect_json(000000199001010000 id_number)
  json_get(photo photo)
  json_get(third third_block)
  string(LENGTH "${photo}" length)
  if(NOT photo MATCHES "^AAECAwQFBgcI" OR NOT length EQUAL 1368 OR NOT third MATCHES "^//79")
    fail("photo [${photo}] or third block [${third}] not as base64 of the blocks")
  endif()
  file(SIZE ${WORK}/third.bin size)
  file(READ ${WORK}/third.bin head LIMIT 3 HEX)
  if(NOT size EQUAL 1024 OR NOT head STREQUAL "fffefd")
    fail("third block: ${size} bytes beginning ${head}")
  endif()
  expect_mode(${WORK}/third.bin 600)

elseif(CASE STREQUAL "sam")
  tool(0 sam 2)
  expect_out("sam result: 0 (success)\nnumber: 4e554d2d303132333435363738394142\n")
  tool(0 --json sam 3)
  expect_out("{\"ok\":true,\"result\":0,\"command\":3,\"sam_result\":0}\n")

elseif(CASE STREQUAL "exposure")
  # Both eyes manual with known ranges, then the five operations on that block.
  shell(0 "$T item write et ${ET_LEFT}${ET_RIGHT} && $T exposure get-times \
    && $T exposure get-range && $T exposure get-mode \
    && $T exposure set-times 300 20000 && $T exposure get-times && $T item read et")
  expect_out("left 100, right 200\nleft 10-20000, right 20-30000\nleft 1, right 1\nleft 300, right 20000\n2c010000204e00000a00000000000000000001000000204e0000307500001400000000000000000001000000\n")
  # Refusals: nothing written, the block stays as it was.
  shell(1 "$T item write et ${ET_LEFT}${ET_RIGHT} && $T --json exposure set-times 9 200
    $T item read et && $T exposure set-times 10 30001")
  expect_match(OUT "^{\"ok\":false,\"result\":-1008,\"error\":\"TARVIK_E_OUT_OF_RANGE\",[^\n]*left 10-20000, right 20-30000[^\n]*}\n${ET_LEFT}${ET_RIGHT}\n$")
  expect_match(ERR "tarvikctl: exposure set-times refused, nothing was written: an exposure time is outside its eye's range \\(left 10-20000, right 20-30000\\)\n$")
  string(REPLACE "0000000001000000" "0000000000000000" auto_left "${ET_LEFT}")
  shell(1 "$T item write et ${auto_left}${ET_RIGHT} && $T --json exposure set-times 100 200")
  expect_json_error(-1007 TARVIK_E_NOT_MANUAL "not in manual exposure mode \\(modes: left 0, right 1")
  # set-mode: an all-zero block but what is set (mode) and the mode's low byte.
  shell(0 "$T exposure set-mode 257 257 && $T item read et && $T exposure get-mode")
  expect_out("0000000000000000000000000000000001000100000000000000000000000000000000000000010001000000\nleft 1, right 1\n")

elseif(CASE STREQUAL "item")
  tool(0 item read roi)
  expect_out("64000000c800000080020000e0010000\n")
  tool(0 item read 1)
  expect_out("0102030405060708090a0b0c0d0e0f101112131415168182838485868788898a8b8c8d8e8f90919293949596\n")
  shell(0 "$T item write 6 0100000002000000030000000400000f && $T get roi \
    && $T item write data-block --target 2 --offset 8 aabbcc \
    && $T item read 10 --target 2 --offset 8 --length 4 \
    && $T item write vcm 0a0b341205000000 && $T item read vcm --mode 5 \
    && $T item write et ${ET_LEFT}${ET_RIGHT} && $T item read et")
  # The fourth data byte was never written: the camera's own content.
  expect_match(OUT "^1 2 3 251658244\naabbcc[0-9a-f][0-9a-f]\n3412\n${ET_LEFT}${ET_RIGHT}\n$")
  # The SAM item's write is its header alone: no record bytes.
  tool(0 item write sam)
  expect_out("")
  tool(0 --json item read 16)
  expect_out("{\"ok\":true,\"result\":0,\"item\":16,\"name\":\"gyro\",\"hex\":\"0000000040006162636465666768\"}\n")
  tool(0 --json item write 6 0100000002000000030000000400000f)
  expect_out("{\"ok\":true,\"result\":0,\"item\":6,\"name\":\"roi\"}\n")

elseif(CASE STREQUAL "list")
  set(SIM_ARGS --cameras 2 --bus 3 --address 7)
  tool(0 list)
  expect_match(OUT "^bus 3, address 7  0ac8:010c  serial: [^ ]+  video: [^ ]+\nbus 3, address 8  0ac8:010c  serial: [^ ]+  video: [^ ]+\n$")
  tool(0 --json list)
  expect_json(ON ok)
  expect_json(8 cameras 1 address)
  expect_json(0ac8 cameras 1 vendor_id)
  expect_json(010c cameras 1 product_id)
  tool(0 --bus 3 --address 8 get roi)
  expect_out("100 200 640 480\n")
  # Nothing found: status 3, as for every command without a camera.
  set(SIM_ARGS --cameras 0)
  tool(3 list)
  expect_out("")
  expect_err("tarvikctl: no camera (0ac8:010c) found\n")
  tool(3 --json list)
  expect_json_error(-1010 TARVIK_E_NO_CAMERA "^no camera \\(0ac8:010c\\) found$")

elseif(CASE STREQUAL "no_camera")
  set(SIM_ARGS --cameras 0)
  tool(3 -v info)
  expect_match(ERR "${LOG_LINE}[^\n]*\ntarvikctl: no camera \\(0ac8:010c\\) found\n$")
  expect_out("")
  set(SIM_ARGS --cameras 2)
  tool(3 --bus 1 --address 9 get roi)
  expect_err("tarvikctl: no camera at bus 1, address 9 (cameras at bus:address 1:2, 1:3)\n")
  tool(3 --json -s NO-SUCH-SERIAL get roi)
  expect_json_error(-1010 TARVIK_E_NO_CAMERA "^no camera with serial 'NO-SUCH-SERIAL'")
  tool(3 --video /dev/null get roi)
  expect_match(ERR "^tarvikctl: /dev/null is no camera's capture node")

elseif(CASE STREQUAL "log_destinations")
  # The library's lines and libusb's own messages keep their order.
  set(ENV{LIBUSB_DEBUG} 4)
  tool(0 -v --transport usb get roi)
  unset(ENV{LIBUSB_DEBUG})
  expect_match(ERR "libTarvik: libusb_get_device_list\\.\\.\\.[^\n]*\n[^\n]*libusb: debug \\[libusb_get_device_list\\]")
  tool(0 get roi)
  expect_out("100 200 640 480\n")
  expect_err("")
  tool(0 -v get roi)
  expect_out("100 200 640 480\n")
  expect_match(ERR "${LOG_LINE} ########## ReadROI end")
  # --quiet stays accepted (it is the default).
  tool(0 --quiet get roi)
  expect_err("")
  file(WRITE ${WORK}/tool.log "earlier run\n")
  tool(0 --log ${WORK}/tool.log get roi)
  expect_out("100 200 640 480\n")
  expect_err("")
  file(READ ${WORK}/tool.log log)
  if(NOT log MATCHES "^earlier run\n.*sdk inner open device ok\\.\n.*ReadROI end[^\n]*\n[^\n]*libTarvik: release[^\n]*\n$")
    fail("log file: [${log}]")
  endif()
  # An error still reaches stderr with --log, and with -v it comes after the library's
  # last line: the camera is released first.
  tool(1 --log ${WORK}/tool.log exposure set-times 0 0)
  expect_match(ERR "^tarvikctl: exposure set-times refused")
  tool(1 -v exposure set-times 0 0)
  expect_match(ERR "libTarvik: release[^\n]*\ntarvikctl: exposure set-times refused[^\n]*\n$")

elseif(CASE STREQUAL "gyro")
  set(SIM_ARGS --tilt 35,-12)
  tool(0 gyro)
  expect_out("pitch 35, roll -12\n")
  tool(0 --json gyro --watch --count 3 --interval 10)
  expect_out("{\"ok\":true,\"result\":0,\"pitch\":35,\"roll\":-12}\n{\"ok\":true,\"result\":0,\"pitch\":35,\"roll\":-12}\n{\"ok\":true,\"result\":0,\"pitch\":35,\"roll\":-12}\n")
  # The reader stops after two samples: the tool stops too and exits 0. The outer
  # timeout only guards against a hang.
  run(0 timeout 60 sh -c "{ ${TOOL} gyro --watch --interval 10\n echo tool \$? >&2\n } | head -2")
  expect_out("pitch 35, roll -12\npitch 35, roll -12\n")
  expect_err("tool 0\n")
  # Interrupted: ends its line and exits 0.
  # (-k: a tool that does not end within 20 s of it fails the case instead of hanging it)
  run(0 timeout --preserve-status -k 20 -s INT 1 ${TOOL} gyro --watch --interval 100)
  expect_match(OUT "^(pitch 35, roll -12\n)*$")
  # An output that can't be written is an error.
  run(1 sh -c "${TOOL} gyro > /dev/full")
  expect_err("tarvikctl: cannot write the standard output: No space left on device\n")

elseif(CASE STREQUAL "simulate")
  execute_process(COMMAND ${TOOL} --simulate get roi
    RESULT_VARIABLE status OUTPUT_VARIABLE OUT ERROR_VARIABLE ERR)
  if(NOT status EQUAL 0)
    fail("--simulate: status ${status}")
  endif()
  expect_out("100 200 640 480\n")

elseif(CASE STREQUAL "tour")
  # docs/cli-tour.txt is what scripts/tour.sh prints (its comment lines aside).
  get_filename_component(tool_dir ${TOOL} DIRECTORY)
  get_filename_component(sim_dir ${SIM} DIRECTORY)
  set(SIM_ARGS --card ${CARD} --tilt 12,-5)
  run(0 env PATH=${tool_dir}:${sim_dir}:$ENV{PATH} bash ${SOURCE}/scripts/tour.sh)
  file(READ ${SOURCE}/docs/cli-tour.txt doc)
  string(REGEX REPLACE "^(#[^\n]*\n)*\n" "" doc "${doc}")
  # Whether the simulated camera shows a serial and a video node depends on the
  # simulator's version; the rest must be as shown.
  set(shown "serial: [^ ]+  video: [^\n]+")
  string(REGEX REPLACE "${shown}" "serial: S  video: V" doc "${doc}")
  string(REGEX REPLACE "${shown}" "serial: S  video: V" OUT "${OUT}")
  if(NOT OUT STREQUAL doc)
    fail("docs/cli-tour.txt is not what scripts/tour.sh prints")
  endif()

# --- cases with the simulator's options ---

elseif(CASE STREQUAL "serial")
  set(SIM_ARGS --camera 1:2,serial=KIOSK-1 --camera 1:3,serial=KIOSK-2)
  tool(0 list)
  expect_match(OUT "^bus 1, address 2  0ac8:010c  serial: KIOSK-1  video: [^\n]+\nbus 1, address 3  0ac8:010c  serial: KIOSK-2  ")
  tool(0 --json list)
  expect_json(KIOSK-2 cameras 1 serial)
  shell(0 "$T -s KIOSK-2 set roi 5 6 7 8 && $T --serial KIOSK-1 get roi && $T --bus 1 --address 3 get roi")
  expect_out("100 200 640 480\n5 6 7 8\n")
  tool(3 -s KIOSK-3 get roi)
  expect_err("tarvikctl: no camera with serial 'KIOSK-3' (serials: KIOSK-1, KIOSK-2)\n")

elseif(CASE STREQUAL "permission")
  set(SIM_ARGS --camera 1:2 --deny-access)
  # libusb's own error lines may come first: they reach stderr without the library.
  tool(3 --transport usb get roi)
  expect_match(ERR "(^|\n)tarvikctl: permission denied on /dev/bus/usb/001/002: install the udev rule \\(or join plugdev\\), see README\n$")
  tool(3 --json get roi)
  expect_json_error(-3 LIBUSB_ERROR_ACCESS "^permission denied on /dev/bus/usb/001/002: install the udev rule")
  tool(3 --transport kernel get roi)
  expect_match(ERR "^tarvikctl: permission denied on /dev/video[0-9]+: join the video group\n$")

elseif(CASE STREQUAL "kernel_path")
  tool(0 list)
  expect_match(OUT "^bus 1, address 2  0ac8:010c  serial: [^ ]+  video: /dev/video[0-9]+\n$")
  tool(0 --json list)
  json_get(node cameras 0 video_node)
  tool(0 --video ${node} get roi)
  expect_out("100 200 640 480\n")
  tool(0 --transport kernel -v get roi)
  expect_match(ERR "the video driver stays bound")
  set(SIM_ARGS --no-video)
  tool(3 --transport kernel get roi)
  expect_err("tarvikctl: the camera at bus 1, address 2 has no video node (the kernel's video driver does not hold it); --transport usb reaches it\n")
  tool(0 get roi)

elseif(CASE STREQUAL "busy")
  # A second program on the USB path while the first holds the camera: it is told why,
  # and the kernel path lets both work. The first holds the camera until the reader
  # of its samples is done.
  shell(0 "$T --transport usb gyro --watch --interval 20 | { read sample
    $T --transport usb get roi
    echo second \$? >&2\n }")
  # The first program has detached the video driver: the kernel path is no way round.
  expect_match(ERR "^tarvikctl: the camera at bus 1, address 2 is in use by another program through libusb; it is free again when that program closes it\nsecond 3\n$")
  shell(0 "$T --transport kernel gyro --watch --interval 20 | { read sample
    $T --transport kernel get roi\n }")
  expect_out("100 200 640 480\n")

elseif(CASE STREQUAL "hostile")
  # Hostile command lines, one shell line each: the status and the start of stderr.
  macro(hostile status message line)
    shell(${status} "${line}")
    expect_match(ERR "^tarvikctl: ${message}\n")
  endmacro()
  hostile(2 "--video: must not be empty" "$T --video '' get roi")
  hostile(2 "--serial: must not be empty" "$T -s '' get roi")
  hostile(2 "--serial: must not be empty" "$T --serial '' get roi")
  hostile(2 "--log: must not be empty" "$T --log '' get roi")
  hostile(2 "--count requires --watch" "$T gyro --count 3")
  # A log that can't be written: said once, and the command carries on.
  tool(0 --log /dev/full get roi)
  expect_err("tarvikctl: --log /dev/full: cannot write: No space left on device; further log lines are dropped\n")
  expect_out("100 200 640 480\n")

elseif(CASE STREQUAL "watch")
  # A day at the kiosk, scripted: the card placed (the simulator starts with one), lifted,
  # the camera unplugged and back, a card placed again: every event, in order, with rising
  # numbers and the cards' names. Then two watchers on the kernel path: both see every card.
  # (The emulation hands uevents to one process only, so only one watches the unplug.)
  file(WRITE ${WORK}/day "at 400 remove-card\nat 800 unplug\nat 1200 replug\nat 1600 place-card\n")
  set(SIM_ARGS --script ${WORK}/day)
  # Lines until the fifth event (20 s at the most), then an interrupt ends the watch.
  set(until_five "i=0\n while [ $(cat ${WORK}/*.out | wc -l) -lt 5 ] && [ $i -lt 200 ]\n do sleep 0.1\n i=$((i+1))\n done")
  shell(0 "true
    $T watch --card --json --interval 50 >${WORK}/day.out & a=$!
    ${until_five}
    kill -INT $a
    wait $a")
  set(one "\"ok\":true,\"result\":0,\"event\"")
  set(placed "\"card-placed\",\"sequence\":[15],[^\n]*\"name\":\"张三\"[^\n]*}\n")
  string(JOIN "" day "^{${one}:${placed}"
          "{${one}:\"card-removed\",\"sequence\":2,[^\n]*}\n"
          "{${one}:\"camera-gone\",\"sequence\":3,[^\n]*}\n"
          "{${one}:\"camera-back\",\"sequence\":4,[^\n]*\"settings_result\":0,[^\n]*}\n"
          "{${one}:${placed}$")
  file(READ ${WORK}/day.out OUT)
  expect_match(OUT "${day}")

  file(WRITE ${WORK}/cards "at 400 remove-card\nat 800 place-card\n")
  set(SIM_ARGS --script ${WORK}/cards)
  string(REPLACE "*.out | wc -l) -lt 5" "w*.out | wc -l) -lt 6" until_six "${until_five}")
  shell(0 "true
    $T --transport kernel watch --json --interval 50 >${WORK}/w1.out & a=$!
    $T --transport kernel watch --json --interval 50 >${WORK}/w2.out & b=$!
    ${until_six}
    kill -INT $a $b
    wait $a && wait $b")
  foreach(w w1.out w2.out)
    file(READ ${WORK}/${w} OUT)
    expect_match(OUT "^[^\n]*\"card-placed\",\"sequence\":1,[^\n]*\n[^\n]*\"card-removed\",\"sequence\":2,[^\n]*\n[^\n]*\"card-placed\",\"sequence\":3,[^\n]*\n$")
  endforeach()

elseif(CASE STREQUAL "faults")
  set(SIM_ARGS --unplug-after-transfers 1)
  tool(1 --json info)
  expect_json(OFF ok)
  expect_json(LIBUSB_ERROR_NO_DEVICE roi error)
  set(SIM_ARGS --fault timeout)
  tool(1 get roi)
  expect_err("tarvikctl: get roi failed: result -7: the camera did not answer in time (LIBUSB_ERROR_TIMEOUT)\n")
  set(SIM_ARGS --no-card)
  tool(1 --json idcard)
  expect_json_error(-1012 TARVIK_E_SAM "^idcard: the SAM answered ")
  json_get(code sam_result)
  if(code EQUAL 0 OR code EQUAL 1)
    fail("no card, but the SAM's code is ${code}")
  endif()

elseif(CASE STREQUAL "service")
  # tarvikctl --service through a real tarvikd on a private session bus, under the simulator
  # (run with -DDAEMON=<tarvikd> -DDBUS_RUN_SESSION=<dbus-run-session>). The bus daemon's own
  # lines may reach stderr: the tool's are matched where they are.
  set(WRAP ${DBUS_RUN_SESSION} --)
  # with_service(<status> <script>): the script runs while tarvikd serves; $T is tarvikctl,
  # $S the same with --service --session; `row ARGS...` keeps a command's stdout, stderr and
  # status in $WORK/<n>.out, .err and .status (n = 1, 2, ...).
  macro(with_service expected script)
    run(${expected} sh -c "T=${TOOL}\n S=\"${TOOL} --service --session\"\n n=0
      row() {\n n=$((n+1))\n \"$@\" >${WORK}/$n.out 2>${WORK}/$n.err\n echo $? >${WORK}/$n.status\n }
      ${DAEMON} --session 2>${WORK}/tarvikd.log & d=$!
      i=0\n until SYSTEMD_BUS_TIMEOUT=2 $S list >/dev/null 2>&1 || [ $i -ge 100 ]
      do sleep 0.05\n i=$((i+1))\n done
      ${script}
      s=$?\n kill $d\n wait $d\n exit $s")
  endmacro()
  function(row_part n part var)
    file(READ ${WORK}/${n}.${part} text)
    set(${var} "${text}" PARENT_SCOPE)
  endfunction()
  # expect_same_as_local(ARGS...): each command line, with and without --service, prints the
  # same (stdout and stderr) and exits the same; none is a usage error.
  function(expect_same_as_local)
    set(script "")
    foreach(args IN LISTS ARGN)
      string(APPEND script "row $T ${args}\n row $S ${args}\n")
    endforeach()
    with_service(0 "${script}")
    set(n 0)
    foreach(args IN LISTS ARGN)
      math(EXPR local "${n} + 1")
      math(EXPR n "${n} + 2")
      row_part(${local} status status)
      row_part(${local} out OUT)
      row_part(${local} err ERR)
      if(status STREQUAL "2\n" OR (OUT STREQUAL "" AND ERR STREQUAL ""))
        fail("${args}: status ${status} without --service")
      endif()
      foreach(part out err status)
        row_part(${local} ${part} without)
        row_part(${n} ${part} with)
        if(NOT with STREQUAL without)
          fail("${args}: ${part} with --service is [${with}], without [${without}]")
        endif()
      endforeach()
    endforeach()
  endfunction()

  set(SIM_ARGS --card ${CARD})
  expect_same_as_local("get roi" "--json get roi" "exposure get-times" "--json exposure get-times"
    "item read version" "--json item read version" "idcard" "--json idcard"
    "--json exposure set-times 300 20000" "get vcm --mode 3" "--json gyro"
    "item read data-block --target 2 --offset 8 --length 4")
  # The camera's refusals and the SAM's: the same results by name, the same messages.
  set(SIM_ARGS --no-card --fault stall:6)
  expect_same_as_local("get roi" "--json get roi" "idcard" "--json idcard" "--json sam 3")

  # watch: the card as tarvikd's signals tell it (lying there when the watch starts, lifted,
  # laid down again), each placed card read through it; an interrupt ends the watch (0).
  file(WRITE ${WORK}/cards "at 1000 remove-card\nat 2000 place-card\n")
  set(SIM_ARGS --card ${CARD} --script ${WORK}/cards)
  with_service(0 "$S watch --card --json >${WORK}/watch.out & w=$!
    i=0\n while [ $(cat ${WORK}/watch.out | wc -l) -lt 3 ] && [ $i -lt 200 ]
    do sleep 0.05\n i=$((i+1))\n done
    row $S --json status
    kill -INT $w\n wait $w")
  file(READ ${WORK}/watch.out OUT)
  set(one "{\"ok\":true,\"result\":0,\"event\"")
  set(placed "\"card-placed\",\"sequence\":[13],[^\n]*\"name\":\"张三\"[^\n]*}\n")
  expect_match(OUT "^${one}:${placed}${one}:\"card-removed\",\"sequence\":2,[^\n]*}\n${one}:${placed}$")
  row_part(1 out OUT)
  expect_json(1 cameras 0 watchers)
  expect_json(2 cameras 0 cards_placed)

  # Usage errors are found before tarvikd is asked: it need not run.
  set(SIM_ARGS "")
  set(usage
    "set,roi,1,2,3" "roi takes 4 values, got 3"
    "--bus,1,--address,2,get,roi" "--bus excludes --service"
    "--video,/dev/video0,get,roi" "--video excludes --service"
    "watch,--interval,100" "tarvikd polls at its own interval"
    "info" "info reads the camera through the library alone")
  list(LENGTH usage n)
  math(EXPR last "${n} - 1")
  foreach(i RANGE 0 ${last} 2)
    math(EXPR j "${i} + 1")
    list(GET usage ${i} args)
    list(GET usage ${j} message)
    string(REPLACE "," ";" args "${args}")
    tool(2 --json --service --session ${args})
    expect_json_error(-1001 TARVIK_E_INVALID_ARGUMENT "${message}")
  endforeach()
  tool(0 --help)
  expect_match(OUT "\n  --service [^\n]*\n[^\n]*through tarvikd")
  expect_match(OUT "\n  --session Needs: --service")
  expect_match(OUT "\n  status  +tarvikd's cameras")
  tool(2 status)
  expect_match(ERR "tarvikctl: status needs --service")
  tool(2 --session get roi)
  expect_match(ERR "tarvikctl: --session requires --service")
  # No tarvikd on the bus.
  tool(3 --json --service --session get roi)
  expect_json_error(-1010 TARVIK_E_NO_CAMERA "^tarvikd is not running: org.tarvik.Tarvik1 is not on the session bus")

  # Exit statuses and messages of the service's own conditions, one tarvikd.
  with_service(0 "row $S -s NO-SUCH-SERIAL get roi
    row $S --json sam 2
    $S get roi >/dev/null
    row $S status
    row $S --json status
    row $S metrics
    row $S --json metrics
    row $S list
    kill -STOP $d\n SYSTEMD_BUS_TIMEOUT=1 row $S --json get roi\n kill -CONT $d")
  row_part(1 status status)
  row_part(1 err ERR)
  if(NOT status STREQUAL "3\n" OR NOT ERR STREQUAL "tarvikctl: no camera with serial 'NO-SUCH-SERIAL' at tarvikd (serials: SN2024SIMCAMERA00042)\n")
    fail("-s NO-SUCH-SERIAL: status ${status}")
  endif()
  row_part(2 status status)
  row_part(2 out OUT)
  expect_json_error(-1006 TARVIK_E_NOT_PROVIDED "^SAM command 2: tarvikd answers [^\n]*with the SAM's code alone")
  set(camera "/org/tarvik/Tarvik1/camera/SN2024SIMCAMERA00042")
  row_part(3 out OUT)
  expect_match(OUT "^${camera}\n  serial: +SN2024SIMCAMERA00042\n  path: +kernel\n  state: +ready\n  card present: +no\n  watchers: +0\n  watches: +0\n  pending calls: +0\n  calls: +[1-9][0-9]*\n  failed calls: +[0-9]+\n  reopens: +0\n  cards read: +0\n  cards placed: +0\n  last success: +20[0-9-]+T[0-9:]+Z\n  last failure: +(never|20[^\n]+)\n$")
  row_part(4 out OUT)
  expect_json(${camera} cameras 0 object)
  expect_json(ready cameras 0 state)
  expect_json(OFF cameras 0 card_present)
  row_part(5 out OUT)
  expect_match(OUT "(^|\n)# TYPE tarvik_calls_total counter\ntarvik_calls_total{serial=\"SN2024SIMCAMERA00042\"} [1-9][0-9]*\n")
  set(metrics "${OUT}")
  row_part(6 out OUT)
  json_get(json_metrics metrics)
  string(REGEX REPLACE "tarvik_calls_total[^\n]*" "" json_metrics "${json_metrics}")
  string(REGEX REPLACE "tarvik_calls_total[^\n]*" "" metrics "${metrics}")
  string(REGEX REPLACE "timestamp_seconds{[^\n]*" "" json_metrics "${json_metrics}")
  string(REGEX REPLACE "timestamp_seconds{[^\n]*" "" metrics "${metrics}")
  if(NOT json_metrics STREQUAL metrics)
    fail("--json metrics does not carry the text metrics prints")
  endif()
  row_part(7 out OUT)
  expect_out("serial: SN2024SIMCAMERA00042  path: kernel  state: ready  ${camera}\n")
  # A bus call that times out (tarvikd stopped) is a timeout.
  row_part(8 status status)
  row_part(8 out OUT)
  if(NOT status STREQUAL "1\n")
    fail("a stopped tarvikd: status ${status}")
  endif()
  expect_json_error(-7 LIBUSB_ERROR_TIMEOUT "^tarvikd did not answer GetCameras in time$")

  # The bus refuses the camera's calls, as polkit does: a denied access, status 1.
  file(WRITE ${WORK}/deny.conf "<busconfig><include>/usr/share/dbus-1/session.conf</include>
    <policy context='default'>
    <deny send_destination='org.tarvik.Tarvik1' send_interface='org.tarvik.Tarvik1.Camera'/>
    </policy></busconfig>\n")
  set(WRAP ${DBUS_RUN_SESSION} --config-file=${WORK}/deny.conf --)
  with_service(0 "row $S --json get roi")
  row_part(1 status status)
  row_part(1 out OUT)
  if(NOT status STREQUAL "1\n")
    fail("access denied: status ${status}")
  endif()
  expect_json_error(-3 LIBUSB_ERROR_ACCESS "^tarvikd refused ReadItem: polkit [^\n]*join the group tarvik")

else()
  message(FATAL_ERROR "unknown case ${CASE}")
endif()
