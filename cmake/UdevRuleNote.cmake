# Run at install time, after the udev rule is installed: says where the rule is
# and, when udev does not read that directory, what to do. CMAKE_INSTALL_PREFIX
# is the prefix of this install (cmake --install --prefix included); DESTDIR is
# left out, since a staged tree is installed under the prefix in the end.
set(_dir "${TARVIK_UDEV_RULES_DIR}")
if(NOT IS_ABSOLUTE "${_dir}")
  set(_dir "${CMAKE_INSTALL_PREFIX}/${_dir}")
endif()
cmake_path(NORMAL_PATH _dir)
string(REGEX REPLACE "(.)/$" "\\1" _dir "${_dir}")
set(_trigger "sudo udevadm control --reload && sudo udevadm trigger --subsystem-match=usb --attr-match=idVendor=0ac8 --attr-match=idProduct=010c")
# The directories systemd-udevd reads rules from.
set(_udev_dirs /etc/udev/rules.d /run/udev/rules.d /usr/local/lib/udev/rules.d
  /usr/lib/udev/rules.d /lib/udev/rules.d)
list(FIND _udev_dirs "${_dir}" _read)
if(_dir STREQUAL "/usr/local/lib/udev/rules.d")
  # systemd-udevd reads it (Debian 12 does); some older udev builds read only
  # /usr/lib, /lib, /run and /etc.
  message(STATUS "udev rule: ${_dir}/70-tarvik.rules; to apply it now: ${_trigger} "
    "(a udev that does not read ${_dir} needs a copy in /etc/udev/rules.d)")
elseif(NOT _read EQUAL -1)
  message(STATUS "udev rule: ${_dir}/70-tarvik.rules; to apply it now: ${_trigger}")
else()
  message(WARNING "udev does not read rules from ${_dir}, so the camera stays "
    "inaccessible to normal users until 70-tarvik.rules is copied where udev reads it:\n"
    "  sudo install -m 644 ${_dir}/70-tarvik.rules /etc/udev/rules.d/\n"
    "  ${_trigger}\n"
    "(or configure with -DCMAKE_INSTALL_PREFIX=/usr, or -DTARVIK_UDEV_RULES_DIR=<dir udev reads>)")
endif()
