# MinSizeRel is what the router's flash gets (scripts/ci-armel.sh): -Os, and
# every function and object in a section of its own so the linker drops what
# nothing calls, e.g. the parts of a static library that only another
# program uses. No -g: the stripped file is what gets flashed, the
# unstripped one keeps its symbol table for nm. Nothing here may change what
# the code does (no -ffast-math, for one).
foreach(lang C CXX)
  set(CMAKE_${lang}_FLAGS_MINSIZEREL "-Os -DNDEBUG -ffunction-sections -fdata-sections")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_MINSIZEREL "-Wl,--gc-sections")

# Link-time optimisation for the same reason: the linker then sees every
# caller of a function at once, inlines or drops what one translation unit
# alone had to keep, and merges copies of the same template. halproxy is
# some 16 KiB smaller for it. Static libraries need the compiler's archiver
# for that, which CMake picks when the property is on.
if(CMAKE_BUILD_TYPE STREQUAL "MinSizeRel" OR CMAKE_CONFIGURATION_TYPES)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT _rm_ipo_ok OUTPUT _rm_ipo_why LANGUAGES C CXX)
  if(_rm_ipo_ok)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION_MINSIZEREL ON)
  else()
    message(WARNING "no link-time optimisation, the flashed programs will be larger: ${_rm_ipo_why}")
  endif()
endif()

# The flashed programs and the libraries they link neither throw nor catch:
# an exception from the C++ run-time (std::bad_alloc, ...) ends the process
# through std::terminate with its message whether or not their frames can be
# unwound, since no handler could catch it. Without unwind tables and
# landing pads the flashed routemgr is some 32 KiB smaller. The other
# programs (datamgr parses JSON) and the tests keep exceptions.
function(rm_flashed_without_exceptions)
  foreach(target ${ARGN})
    if(TARGET ${target})
      target_compile_options(${target} PRIVATE
        $<$<AND:$<CONFIG:MinSizeRel>,$<COMPILE_LANGUAGE:CXX>>:-fno-exceptions>)
    endif()
  endforeach()
endfunction()
