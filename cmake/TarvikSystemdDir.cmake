# tarvik_systemd_dir(OUT CACHE_VAR PKGCONFIG_VARIABLE DEFAULT HELP)
# Where a systemd unit goes: CACHE_VAR when set; for the prefix /usr, what
# systemd's pkg-config file says (PKGCONFIG_VARIABLE: systemdsystemunitdir,
# systemduserunitdir); otherwise DEFAULT under the prefix.
function(tarvik_systemd_dir out cache_var pc_variable default help)
  set(${cache_var} "" CACHE PATH "${help}")
  set(_dir "${${cache_var}}")
  if(_dir STREQUAL "")
    set(_dir ${default})
    if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
      pkg_get_variable(_from_systemd systemd ${pc_variable})
      if(_from_systemd)
        set(_dir ${_from_systemd})
      endif()
    endif()
  endif()
  set(${out} ${_dir} PARENT_SCOPE)
endfunction()
