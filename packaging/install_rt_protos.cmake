# At install time: halproxy's protocol number named for iproute2, in the
# system configuration directory of this prefix (DESTDIR applies).
include(${CMAKE_CURRENT_LIST_DIR}/sysconf_dir.cmake)
file(INSTALL ${ROUTEMGR_RT_PROTOS} DESTINATION ${ROUTEMGR_SYSCONF_DIR}/iproute2/rt_protos.d
     RENAME routemgr.conf)
