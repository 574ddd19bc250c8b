# cmake -DHELP2MAN=<help2man> -DTOOL=<built tool> -DTOOL_NAME=<name> -DDESCRIPTION=<text>
#       -DINCLUDE=<file.h2m> -DVERSION=<project version> -DHELP_OPTIONS="--help|run --help"
#       [-DSECTION=<1 or 8>] -DOUTPUT=<page.N> [-DCOMMANDS_SCRIPT=<man-commands.sh>]
#       -P GenerateManPage.cmake
#
# help2man reads a tool's help and version. Help: the first of HELP_OPTIONS that
# the tool answers with exit status 0 and some text, on standard output (or, when
# there is none, on standard error). Version: the tool's own --version when it
# exits 0 and prints "<tool> <version>" on its first line, which must then be the
# project version; otherwise the project version is given to help2man.
string(REPLACE "|" ";" _candidates "${HELP_OPTIONS}")
set(_help_option "")
foreach(_candidate IN LISTS _candidates)
  separate_arguments(_words UNIX_COMMAND "${_candidate}")
  execute_process(COMMAND ${TOOL} ${_words} RESULT_VARIABLE _rc
    OUTPUT_VARIABLE _out ERROR_VARIABLE _err TIMEOUT 60)
  if(_rc STREQUAL "0" AND NOT _out STREQUAL "")
    set(_help_option "${_candidate}")
    set(_stderr_flag "")
    break()
  elseif(_rc STREQUAL "0" AND NOT _err STREQUAL "")
    set(_help_option "${_candidate}")
    set(_stderr_flag --no-discard-stderr)
    break()
  endif()
endforeach()
if(_help_option STREQUAL "")
  message(FATAL_ERROR "${TOOL_NAME}: none of '${HELP_OPTIONS}' printed help and exited 0")
endif()

execute_process(COMMAND ${TOOL} --version RESULT_VARIABLE _rc OUTPUT_VARIABLE _out
  ERROR_QUIET TIMEOUT 60)
string(REGEX REPLACE "\n.*" "" _first_line "${_out}")
if(_rc STREQUAL "0" AND _first_line MATCHES "^${TOOL_NAME} ")
  # "<tool> <version>", perhaps followed by the library's version.
  if(NOT _first_line STREQUAL "${TOOL_NAME} ${VERSION}" AND
     NOT _first_line MATCHES "^${TOOL_NAME} ${VERSION} ")
    message(FATAL_ERROR "${TOOL_NAME} --version prints '${_first_line}', "
      "the project version is ${VERSION}")
  endif()
  set(_version_flag "")
else()
  set(_version_flag --version-string=${VERSION})
endif()

# A tool with subcommands: their help as a COMMANDS section (cmake/man-commands.sh).
set(_commands_flag "")
if(COMMANDS_SCRIPT)
  execute_process(COMMAND sh ${COMMANDS_SCRIPT} ${TOOL} ${TOOL_NAME}
    OUTPUT_FILE ${OUTPUT}.commands.h2m RESULT_VARIABLE _rc ERROR_VARIABLE _err TIMEOUT 120)
  if(NOT _rc STREQUAL "0")
    message(FATAL_ERROR "${TOOL_NAME}: the subcommands' help could not be read: ${_err}")
  endif()
  set(_commands_flag --include=${OUTPUT}.commands.h2m)
endif()

if(NOT SECTION)
  set(SECTION 1)
endif()
if(SECTION STREQUAL "8")
  set(_manual "System Administration")
else()
  set(_manual "User Commands")
endif()
execute_process(
  COMMAND ${HELP2MAN} --no-info --section=${SECTION} "--manual=${_manual}"
    "--source=libTarvik ${VERSION}" "--name=${DESCRIPTION}" ${_commands_flag} --include=${INCLUDE}
    "--help-option=${_help_option}" ${_stderr_flag} ${_version_flag}
    --output=${OUTPUT}.tmp ${TOOL}
  RESULT_VARIABLE _rc ERROR_VARIABLE _err)
if(NOT _rc STREQUAL "0")
  file(REMOVE ${OUTPUT}.tmp)
  message(FATAL_ERROR "help2man failed for ${TOOL_NAME}: ${_err}")
endif()
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
