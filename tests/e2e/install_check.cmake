# Installs the build tree into a scratch prefix and checks that the programs,
# the example configuration and (when packaging is part of the build) the
# service files land where the documentation says, and that the programs run.
#   cmake -DBUILD_DIR=... -DPREFIX=... [-DCROSSCOMPILING=ON] -P install_check.cmake
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${rc}): ${err}")
endif()
set(programs sbin/routemgr sbin/halproxy sbin/datamgr bin/routectl bin/datactl)
set(files share/routemgr/example-device.json)
if(EXISTS ${BUILD_DIR}/packaging/cmake_install.cmake)
  foreach(unit routemgr halproxy datamgr)
    list(APPEND files lib/systemd/system/${unit}.service)
    list(APPEND programs share/routemgr/openwrt/init.d/${unit})
  endforeach()
  list(APPEND files lib/sysusers.d/routemgr.conf share/routemgr/openwrt/capabilities/halproxy.json
       share/man/man8/routemgr.8 share/man/man1/routectl.1)
endif()
foreach(f ${programs} ${files})
  if(NOT EXISTS ${PREFIX}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
# The service files run the programs where this install put them.
foreach(f ${files} ${programs})
  if(f MATCHES "(service|init.d/.*)$")
    file(STRINGS ${PREFIX}/${f} runs REGEX "^(ExecStart=|PROG=)")
    if(NOT runs MATCHES "${PREFIX}/sbin/")
      message(FATAL_ERROR "${f} does not run the programs in ${PREFIX}/sbin: ${runs}")
    endif()
  endif()
endforeach()
foreach(p ${programs})
  # Run from where they are (on the build machine only when built for it),
  # else at least executable.
  if(NOT CROSSCOMPILING AND p MATCHES "^s?bin/" AND NOT p STREQUAL "bin/datactl")
    execute_process(COMMAND ${PREFIX}/${p} --version RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
  else()
    execute_process(COMMAND test -x ${PREFIX}/${p} RESULT_VARIABLE rc)
  endif()
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${p} does not run or is not executable (${rc})")
  endif()
endforeach()
file(REMOVE_RECURSE ${PREFIX})
