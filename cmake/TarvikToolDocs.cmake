# Man pages and shell completion, made at build time from the built tools, so
# that they say what the tools do:
#   tarvikctl(1), tarvik-sim(1)  help2man over each tool's --help, with a NAME
#   tarvik-bridge(1), tarvikd(8) line and the extra sections of packaging/man/*.h2m;
#   tarvikctl's bash completion  what 'tarvikctl --bash-completion' prints (the
#                                tool walks its own command table).
# TARVIK_MANPAGES: AUTO (when help2man is found), ON (required) or OFF.
set(TARVIK_MANPAGES AUTO CACHE STRING "Make man pages with help2man: AUTO, ON or OFF")
set_property(CACHE TARVIK_MANPAGES PROPERTY STRINGS AUTO ON OFF)

# tools/completion.cpp belongs to tarvikctl (added here unless tools/ lists it).
if(TARGET tarvikctl)
  get_target_property(_tarvikctl_sources tarvikctl SOURCES)
  list(FILTER _tarvikctl_sources INCLUDE REGEX "(^|/)completion\\.cpp$")
  if(NOT _tarvikctl_sources)
    target_sources(tarvikctl PRIVATE ${PROJECT_SOURCE_DIR}/tools/completion.cpp)
  endif()
endif()

set(_tarvik_docs_dir ${PROJECT_BINARY_DIR}/docs)
# The rules write into it; Ninja makes an output's folder, Make does not.
file(MAKE_DIRECTORY ${_tarvik_docs_dir})
set(_tarvik_docs)

# Both need to run the tools on the build machine.
if(CMAKE_CROSSCOMPILING)
  if(TARVIK_MANPAGES STREQUAL "ON")
    message(FATAL_ERROR "TARVIK_MANPAGES=ON: man pages are made by running the tools, "
      "which a cross build cannot do")
  endif()
  message(STATUS "Cross build: no man pages, no bash completion")
  return()
endif()

set(_tarvik_help2man "")
if(NOT TARVIK_MANPAGES STREQUAL "OFF")
  find_program(TARVIK_HELP2MAN help2man)
  if(TARVIK_HELP2MAN)
    set(_tarvik_help2man ${TARVIK_HELP2MAN})
  elseif(TARVIK_MANPAGES STREQUAL "ON")
    message(FATAL_ERROR "TARVIK_MANPAGES=ON but help2man is not installed (apt install help2man)")
  else()
    message(STATUS "help2man not found: no man pages (install help2man to have them)")
  endif()
endif()

# tarvik_man_page(TOOL NAME <one-line description> INCLUDE <h2m file>
#                 HELP_OPTIONS <option words> ... [SECTION <n>] [SUBCOMMANDS])
# HELP_OPTIONS are tried in order; the first the tool answers with help text and
# exit status 0 is used (see cmake/GenerateManPage.cmake). SUBCOMMANDS adds the
# help of every subcommand (cmake/man-commands.sh). SECTION is 1 unless given
# (8 for a system service).
function(tarvik_man_page tool)
  cmake_parse_arguments(PARSE_ARGV 1 arg "SUBCOMMANDS" "NAME;INCLUDE;SECTION" "HELP_OPTIONS")
  if(NOT TARGET ${tool} OR NOT _tarvik_help2man)
    return()
  endif()
  if(NOT arg_SECTION)
    set(arg_SECTION 1)
  endif()
  string(JOIN "|" _help_options ${arg_HELP_OPTIONS})
  set(_page ${_tarvik_docs_dir}/${tool}.${arg_SECTION})
  set(_commands "")
  if(arg_SUBCOMMANDS)
    set(_commands -DCOMMANDS_SCRIPT=${PROJECT_SOURCE_DIR}/cmake/man-commands.sh)
  endif()
  add_custom_command(OUTPUT ${_page}
    COMMAND ${CMAKE_COMMAND} -DHELP2MAN=${_tarvik_help2man} -DTOOL=$<TARGET_FILE:${tool}>
      -DTOOL_NAME=${tool} -DDESCRIPTION=${arg_NAME} -DINCLUDE=${arg_INCLUDE}
      -DVERSION=${PROJECT_VERSION} -DHELP_OPTIONS=${_help_options} -DSECTION=${arg_SECTION}
      -DOUTPUT=${_page}
      ${_commands} -P ${PROJECT_SOURCE_DIR}/cmake/GenerateManPage.cmake
    DEPENDS ${tool} ${arg_INCLUDE} ${PROJECT_SOURCE_DIR}/cmake/GenerateManPage.cmake
      ${PROJECT_SOURCE_DIR}/cmake/man-commands.sh
    COMMENT "Man page ${tool}(${arg_SECTION}) from '${tool} --help'"
    VERBATIM)
  install(FILES ${_page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${arg_SECTION})
  set(_tarvik_docs ${_tarvik_docs} ${_page} PARENT_SCOPE)
endfunction()

tarvik_man_page(tarvikctl
  NAME "control the dual-eye camera 0ac8:010c through libTarvik"
  INCLUDE ${PROJECT_SOURCE_DIR}/packaging/man/tarvikctl.h2m
  HELP_OPTIONS --help
  SUBCOMMANDS)
# Older tarvik-sim builds answer help only after the command word, on standard error.
tarvik_man_page(tarvik-sim
  NAME "run a program with simulated dual-eye cameras"
  INCLUDE ${PROJECT_SOURCE_DIR}/packaging/man/tarvik-sim.h2m
  HELP_OPTIONS --help "run --help")
tarvik_man_page(tarvikd
  NAME "the dual-eye camera 0ac8:010c as a D-Bus system service"
  INCLUDE ${PROJECT_SOURCE_DIR}/packaging/man/tarvikd.h2m
  HELP_OPTIONS --help
  SECTION 8)
tarvik_man_page(tarvik-bridge
  NAME "the dual-eye camera service for kiosk pages, JSON-RPC over WebSocket"
  INCLUDE ${PROJECT_SOURCE_DIR}/packaging/man/tarvik-bridge.h2m
  HELP_OPTIONS --help)

if(TARGET tarvikctl)
  set(_completion ${_tarvik_docs_dir}/tarvikctl.bash)
  add_custom_command(OUTPUT ${_completion}
    COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:tarvikctl> -DOUTPUT=${_completion}
      -P ${PROJECT_SOURCE_DIR}/cmake/GenerateCompletion.cmake
    DEPENDS tarvikctl ${PROJECT_SOURCE_DIR}/cmake/GenerateCompletion.cmake
    COMMENT "bash completion from 'tarvikctl --bash-completion'"
    VERBATIM)
  install(FILES ${_completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME tarvikctl)
  list(APPEND _tarvik_docs ${_completion})
endif()

if(_tarvik_docs)
  add_custom_target(tarvik_docs ALL DEPENDS ${_tarvik_docs})
endif()
