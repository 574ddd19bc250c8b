# tarvik-sim's command-line cases, and real video4linux clients against its cameras: each case
# is one command line with the exit status and the output it must give.
# Run with -DLAUNCHER= -DVERSION= -DV4L2_CTL= -DUVCDYNCTRL= -DTWO_CLIENTS= -DWORK= -DEXAMPLE_CARD=
# [-DTARVIKCTL=].
foreach(tool V4L2_CTL UVCDYNCTRL)
  if(NOT ${tool})
    message(FATAL_ERROR "${tool} is not installed (scripts/install-deps.sh installs it)")
  endif()
endforeach()
file(MAKE_DIRECTORY ${WORK})

# expect(STATUS n [OUT regex] [NOT_OUT regex] [ERR regex] COMMAND ...): the status is exact,
# OUT and ERR must match standard output and error, NOT_OUT must not match standard output.
function(expect)
  cmake_parse_arguments(E "" "STATUS;OUT;NOT_OUT;ERR" "COMMAND" ${ARGN})
  execute_process(COMMAND ${E_COMMAND} RESULT_VARIABLE status OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
  set(problem "")
  if(NOT status STREQUAL "${E_STATUS}")
    set(problem "status ${status}, expected ${E_STATUS}")
  elseif(DEFINED E_OUT AND NOT out MATCHES "${E_OUT}")
    set(problem "stdout does not match [${E_OUT}]")
  elseif(DEFINED E_NOT_OUT AND out MATCHES "${E_NOT_OUT}")
    set(problem "stdout matches [${E_NOT_OUT}]")
  elseif(DEFINED E_ERR AND NOT err MATCHES "${E_ERR}")
    set(problem "stderr does not match [${E_ERR}]")
  endif()
  if(problem)
    message(SEND_ERROR "${E_COMMAND}\n  ${problem}\n--- stdout:\n${out}\n--- stderr:\n${err}")
  endif()
endfunction()

set(S ${LAUNCHER})
set(CTL "${S} ctl")
set(CAM "serial=SN2024SIMCAMERA00042")
set(UVC ${UVCDYNCTRL})
string(REPEAT "00" 52 rest)
set(READ_VERSION "0x0010000005000000${rest}")  # a read request of extension item 5
set(VERSION_ANSWER "current value of: \\(LE\\)0x0010000053494d4657")  # "SIMFW..." echoed
set(READ_AND_SHOW "${UVC} -d video0 -S 5:14 ${READ_VERSION} && ${UVC} -d video0 -G 5:14")
# Waits up to 30 s for the camera to leave sysfs (no upper bound on the launcher's speed).
file(WRITE ${WORK}/until_gone.sh
  "for i in $(seq 300)\ndo test -e /sys/bus/usb/devices/1-2 || exit 0\n sleep 0.1\ndone\nexit 1\n")
set(UNTIL_GONE "sh ${WORK}/until_gone.sh")

# The launcher itself: help and version on standard output, usage errors 2, CMD's status
# passed through (SIGINT not left ignored in CMD), 127 when CMD cannot start.
expect(STATUS 0 OUT "^usage: tarvik-sim run" COMMAND ${S} --help)
expect(STATUS 0 OUT "^usage: tarvik-sim run" COMMAND ${S} run --help)
expect(STATUS 0 OUT "^tarvik-sim ${VERSION}\n$" COMMAND ${S} --version)
expect(STATUS 2 ERR "unknown option --bogus" COMMAND ${S} run --bogus -- true)
expect(STATUS 2 ERR "bad --fault: melt" COMMAND ${S} run --fault melt -- true)
expect(STATUS 2 ERR "bad --camera part: size=3" COMMAND ${S} run --camera 1:2,size=3 -- true)
expect(STATUS 2 ERR "serial: at most 20" COMMAND ${S} run --camera 1:2,serial=SERIAL-LONGER-THAN-20 -- true)
expect(STATUS 130 OUT "^$" COMMAND ${S} run -- sh -c "kill -INT $$")
expect(STATUS 127 ERR "cannot run /nonexistent" COMMAND ${S} run -- /nonexistent)

# Card files: the place of a syntax error, the name of a bad field.
file(WRITE ${WORK}/syntax.json "{\n  \"name\": \"x\",\n  \"sex\" \"1\"\n}\n")
file(WRITE ${WORK}/unknown.json "{\"nmae\": \"x\"}")
file(WRITE ${WORK}/long.json "{\"authority\": \"一二三四五六七八九十一二三四五六\"}")
string(REPEAT "ab" 1025 photo)
file(WRITE ${WORK}/photo.json "{\"photo_hex\": \"${photo}\"}")
expect(STATUS 2 ERR "syntax.json: card: line 3, column [0-9]+: not valid JSON"
  COMMAND ${S} run --card ${WORK}/syntax.json -- true)
expect(STATUS 2 ERR "card: unknown field \"nmae\"" COMMAND ${S} run --card ${WORK}/unknown.json -- true)
expect(STATUS 2 ERR "card: authority: 16 characters, at most 15"
  COMMAND ${S} run --card ${WORK}/long.json -- true)
expect(STATUS 2 ERR "photo_hex: expected up to 1024 bytes"
  COMMAND ${S} run --camera 1:2,card=${WORK}/photo.json -- true)

# Hostile inputs, one row each. A FIFO (as a device: /dev/zero) would keep the card's reader
# waiting for ever: it is refused before it is read, as is a card file too large.
file(REMOVE ${WORK}/card.fifo)
execute_process(COMMAND mkfifo ${WORK}/card.fifo)
string(REPEAT " " 65536 blanks)
file(WRITE ${WORK}/large.json "{}${blanks}")
file(WRITE ${WORK}/astral.json "{\"name\": \"张😀\"}")
expect(STATUS 2 ERR "card.fifo: card: a FIFO, not a regular file\n"
  COMMAND timeout 30 ${S} run --card ${WORK}/card.fifo -- true)
expect(STATUS 2 ERR "large.json: card: more than 64 KiB"
  COMMAND ${S} run --card ${WORK}/large.json -- true)
expect(STATUS 2 ERR "astral.json: card: name: U\\+1F600 is outside U\\+0000-U\\+FFFF"
  COMMAND ${S} run --card ${WORK}/astral.json -- true)
expect(STATUS 2 ERR "bad --fault item \\(1-18\\): 99" COMMAND ${S} run --fault stall:99 -- true)
# SIGINT and SIGTERM sent to the launcher go to CMD; the launcher ends as CMD does.
expect(STATUS 130 COMMAND timeout 30 ${S} run -- sh -c "kill -INT $PPID && exec sleep 20")
expect(STATUS 7 COMMAND timeout 30 ${S} run -- sh -c
  "trap 'exit 7' TERM && kill -TERM $PPID && sleep 1 && exit 1")

# Serials: iSerialNumber in sysfs and a string descriptor; one of its own per camera.
expect(STATUS 0 OUT "^CI-0001\n$" COMMAND ${S} run --camera 1:2,card=${EXAMPLE_CARD},serial=CI-0001
  -- cat /sys/bus/usb/devices/1-2/serial)
expect(STATUS 0 OUT "^SN2024SIMCAMERA00042\nSN2024SIMCAMERA00043\n$" COMMAND ${S} run --cameras 2
  -- sh -c "cat /sys/bus/usb/devices/1-2/serial /sys/bus/usb/devices/1-3/serial")

# The driver's side: v4l2-ctl finds the capture and metadata nodes and their capabilities.
expect(STATUS 0 OUT "^Tarvik Dual-Eye Camera \\(usb-0000:00:14.0-2\\):\n\t/dev/video0\n\t/dev/video1\n"
  COMMAND ${S} run -- ${V4L2_CTL} --list-devices)
expect(STATUS 0 OUT "Driver name *: uvcvideo\n.*Device Caps *: 0x04200001\n\t\tVideo Capture"
  COMMAND ${S} run -- ${V4L2_CTL} -d /dev/video0 --info)
expect(STATUS 0 OUT "Device Caps *: 0x04a00000\n\t\tMetadata Capture"
  COMMAND ${S} run -- ${V4L2_CTL} -d /dev/video1 --info)
foreach(off --no-video --no-kernel-driver)
  expect(STATUS 1 ERR "Cannot open device /dev/video0" COMMAND ${S} run ${off}
    -- ${V4L2_CTL} -d /dev/video0 --info)
endforeach()

# uvcdynctrl reads and writes the extension unit through the driver: a read request of item 5
# written as raw bytes, its answer read back; a selector the unit lacks is not found.
expect(STATUS 0 OUT "${VERSION_ANSWER}" COMMAND ${S} run -- sh -c "${READ_AND_SHOW}")
expect(STATUS 0 OUT "control size of : 8\n" COMMAND ${S} run -- ${UVC} -d video0 -G 5:1)
expect(STATUS 12 ERR "not found" COMMAND ${S} run -- ${UVC} -d video0 -G 5:15)
expect(STATUS 12 ERR "Inappropriate ioctl" COMMAND ${S} run -- ${UVC} -d video1 -G 5:14)

# --fault, seen through the video door: a stall is EPIPE; garbage only for the item named.
expect(STATUS 12 OUT "unexpected error 32" COMMAND ${S} run --fault stall -- ${UVC} -d video0 -G 5:14)
expect(STATUS 0 NOT_OUT "${VERSION_ANSWER}" COMMAND ${S} run --fault garbage:5 -- sh -c "${READ_AND_SHOW}")
expect(STATUS 0 OUT "${VERSION_ANSWER}" COMMAND ${S} run --fault stall:6 -- sh -c "${READ_AND_SHOW}")

# Gone for good: nodes refuse with ENODEV at once, sysfs loses the camera soon after.
expect(STATUS 0 ERR "System code: 19.*/dev/bus/usb/001/002: No such device\n.*/dev/video0: No such device"
  COMMAND ${S} run --unplug-after-transfers 2 -- sh -c
  "${UVC} -d video0 -G 5:14 || true && ! cat /dev/bus/usb/001/002 && ! cat /dev/video0 && ${UNTIL_GONE}")
expect(STATUS 0 COMMAND ${S} run --unplug-after 0.2 -- sh -c "${UNTIL_GONE}")

# Without the udev rule's access: every node of the camera refuses to open.
expect(STATUS 0 ERR "/dev/bus/usb/001/002: Permission denied\n.*/dev/video0: Permission denied"
  COMMAND ${S} run --deny-access -- sh -c "! cat /dev/bus/usb/001/002 && ! cat /dev/video0")

# Another card, for the run-time controls below.
file(WRITE ${WORK}/cards/other.json "{\"name\": \"李四\"}")

# No card in the SAM: the library reports its failure code for the SAM's status 0x80.
if(TARVIKCTL)
  expect(STATUS 1 ERR "answered 17" COMMAND ${S} run --no-card -- ${TARVIKCTL} --quiet idcard)
  # Through the library: command 0 without a card, a card placed at run time, the volatile
  # settings back at their defaults after a replug (the device id kept), tilt and faults.
  set(T "${TARVIKCTL} --quiet")
  expect(STATUS 0 OUT "^sam result: 0 [^\n]*\nname: *李四\n.*100 200 640 480\nSIMID-X\npitch 10, roll -20\n100 200 640 480\n$"
    ERR "SAM command 0: the SAM answered 17 .*get roi failed: .*LIBUSB_ERROR_PIPE"
    COMMAND ${S} run -- sh -c "${CTL} remove-card >/dev/null && ! ${T} sam 0 && ${CTL} place-card ${WORK}/cards/other.json >/dev/null && ${T} sam 0 && ${T} idcard | head -1 && ${T} set roi 1 2 3 4 && ${T} set device-id SIMID-X && ${CTL} replug >/dev/null && ${T} get roi && ${T} get device-id && ${CTL} tilt 10 -20 >/dev/null && ${T} gyro && ${CTL} fault stall >/dev/null && ! ${T} get roi && ${CTL} fault none >/dev/null && ${T} get roi")
endif()

# Control at run time: each command prints the camera's status. Unplugged, the camera leaves
# sysfs; back, it has the next address in the same port, new video nodes and the card it had.
expect(STATUS 0 OUT "^0 bus=1 address=2 ${CAM} plugged no-card video=/dev/video0\n0 bus=1 address=2 ${CAM} unplugged no-card video=/dev/video0\n0 bus=1 address=3 ${CAM} plugged no-card video=/dev/video2\n3\n\\[{\"address\":3,\"bus\":1,\"card\":true,\"index\":0,\"plugged\":true,\"serial\":\"SN2024SIMCAMERA00042\",\"video\":\"/dev/video2\"}]\n$"
  COMMAND ${S} run -- sh -c "${CTL} remove-card && ${CTL} unplug && ! test -e /sys/bus/usb/devices/1-2 && ${CTL} replug && cat /sys/bus/usb/devices/1-2/devnum && ${CTL} place-card --json")
expect(STATUS 0 OUT "^1 bus=1 address=3 serial=SN2024SIMCAMERA00043 unplugged card [^\n]*\n0 [^\n]* plugged [^\n]*\n1 [^\n]* unplugged [^\n]*\n$"
  COMMAND ${S} run --cameras 2 -- sh -c "${CTL} --serial SN2024SIMCAMERA00043 unplug && ${CTL} status")
# Refused: exit 1 for what cannot be done, 2 for a bad command; the launcher serves on.
file(WRITE ${WORK}/long_request.py "import os, socket\ns = socket.socket(socket.AF_UNIX)\n"
  "s.connect(os.environ['TARVIK_SIM_CONTROL'])\ns.sendall(b'x' * 9999)\ns.shutdown(socket.SHUT_WR)\n"
  "print(s.recv(99).decode(), end='')\n")
foreach(row "1|camera 0 is not plugged in|unplug >/dev/null && ${CTL} unplug" "2|unknown command bogus|bogus"
    "2|tilt 80 80: no sample gives it|tilt 80 80" "2|bad fault: melt|fault melt"
    "2|no camera 1 \\(there are 1\\)|--camera 1 status" "2|no camera with serial X|--serial X replug"
    "2|[^ ]*unknown.json: card: unknown field|place-card ${WORK}/unknown.json" "2|replug: too many arguments|replug now")
  string(REPLACE "|" ";" row "${row}")
  list(GET row 0 status)
  list(GET row 1 why)
  list(GET row 2 words)
  expect(STATUS 0 OUT "^2\nrequest longer than 4096 bytes\n0 bus=1 address=2 " ERR "ctl: ${why}"
    COMMAND ${S} run -- sh -c "${CTL} ${words}\ntest $? = ${status} && python3 ${WORK}/long_request.py && ${CTL} status")
endforeach()
expect(STATUS 2 ERR "TARVIK_SIM_CONTROL is not set" COMMAND ${CMAKE_COMMAND} -E env --unset=TARVIK_SIM_CONTROL ${S} ctl status)

# --script: the commands at their times after the program started; a relative card file is
# taken from the script's folder. A bad script is refused before the program starts.
file(WRITE ${WORK}/timeline.txt "# the card goes, the camera goes and comes back with another\n"
  "at 0 remove-card\nat 100 unplug  # pulled\n\nat 200 replug\nat 250 place-card cards/other.json\n")
expect(STATUS 0 OUT "^0 bus=1 address=3 ${CAM} plugged card video=/dev/video2\n$"
  COMMAND ${S} run --script ${WORK}/timeline.txt -- sh -c "sleep 1 && ${CTL} status")
foreach(row "1|unknown command unplg|at 10 unplg" "1|expected: at MS COMMAND|after 10 unplug"
    "2|at 5 is earlier than the line before|at 10 unplug\nat 5 replug" "1|bad time -1|at -1 unplug"
    "1|[^ ]*/missing.json: card: cannot open|at 1 place-card missing.json")
  string(REPLACE "|" ";" row "${row}")
  list(GET row 0 line)
  list(GET row 1 why)
  list(GET row 2 script)
  file(WRITE ${WORK}/bad.txt "${script}\n")
  expect(STATUS 2 NOT_OUT "started" ERR "bad.txt: line ${line}: ${why}"
    COMMAND ${S} run --script ${WORK}/bad.txt -- echo started)
endforeach()

# Two processes, each through both doors, three runs: no crash, usbfs lets one hold at a time.
foreach(run 1 2 3)
  expect(STATUS 0 ERR "child: taken" COMMAND ${S} run --camera 1:2 --camera 1:3 -- ${TWO_CLIENTS})
endforeach()
