# Runs inside `cmake --install`: CMAKE_INSTALL_PREFIX is the prefix of this
# install (--prefix), not the one the build was configured with. Fills the
# prefix into the service files configured at build time; the install rules
# after this one copy them (DESTDIR applies there).
set(ROUTEMGR_PREFIX "${CMAKE_INSTALL_PREFIX}")
include(${CMAKE_CURRENT_LIST_DIR}/sysconf_dir.cmake)
file(GLOB_RECURSE templates RELATIVE ${ROUTEMGR_TEMPLATES} ${ROUTEMGR_TEMPLATES}/*)
foreach(f ${templates})
  configure_file(${ROUTEMGR_TEMPLATES}/${f} ${ROUTEMGR_SETTLED}/${f} @ONLY)
endforeach()
