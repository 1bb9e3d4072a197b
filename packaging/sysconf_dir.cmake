# At install time: where the administrator's files live for this prefix,
# as GNUInstallDirs has it (/etc for /usr, P/etc otherwise).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR CMAKE_INSTALL_PREFIX STREQUAL "/")
  set(ROUTEMGR_SYSCONF_DIR "/etc")
else()
  set(ROUTEMGR_SYSCONF_DIR "${CMAKE_INSTALL_PREFIX}/etc")
endif()
