# MinSizeRel is what the router's flash gets (scripts/ci-armel.sh): -Os, and
# every function and object in a section of its own so the linker drops what
# nothing calls, e.g. the parts of a static library that only another
# program uses. No -g: the stripped file is what gets flashed, the
# unstripped one keeps its symbol table for nm. Nothing here may change what
# the code does: no -ffast-math, no -fno-exceptions.
foreach(lang C CXX)
  set(CMAKE_${lang}_FLAGS_MINSIZEREL "-Os -DNDEBUG -ffunction-sections -fdata-sections")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_MINSIZEREL "-Wl,--gc-sections")
