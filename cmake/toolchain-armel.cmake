# Cross build for the router: 32-bit ARM, ARM926EJ-S class, soft float
# (Debian armel). Target libraries come from Debian's multiarch packages
# (libmnl-dev:armel, libgtest-dev:armel, ...) installed beside the host ones,
# so there is no separate sysroot: the multiarch directories tell the two apart.
#
#   cmake -S . -B build-armel -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armel.cmake \
#         -DROUTEMGR_LIBXML2_INCLUDE=/usr/include/libxml2
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabi)

set(_rm_triplet arm-linux-gnueabi)
set(CMAKE_C_COMPILER ${_rm_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_rm_triplet}-g++)
set(CMAKE_STRIP ${_rm_triplet}-strip CACHE FILEPATH "")

# The target core: ARMv5TEJ without an FPU. Debian armel's own baseline
# (armv5te, soft float) is compatible, so its libraries link against this.
set(CMAKE_C_FLAGS_INIT "-mcpu=arm926ej-s -mfloat-abi=soft -Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-mcpu=arm926ej-s -mfloat-abi=soft -Wno-psabi")

# Unit tests run on the build machine through user-mode emulation of the
# target core itself (-cpu arm926: an ARMv6+ instruction would trap), so a
# green ctest means the code runs on an ARM926EJ-S; ctest and
# gtest_discover_tests both use this line. ROUTEMGR_EMULATED tells tests that
# start another target program to look for binfmt_misc first: only through
# it can an emulated program exec another ARM program (scripts/ci-armel.sh
# registers qemu-arm). Such a program gets a qemu-arm of its own, started
# by the kernel without options: QEMU_CPU and QEMU_LD_PREFIX, inherited with
# the environment, give it the same core and the same loader and libraries
# as the test itself.
#
# Runtime libraries: the ones linked against, i.e. the cross C and C++
# libraries of /usr/arm-linux-gnueabi, and only the others (libmnl) from the
# multiarch directory. Once any :armel package is installed (libmnl-dev:armel
# pulls in libc6:armel) the emulated loader would otherwise find the multiarch
# libc through /etc/ld.so.cache; a loader and a libc from different builds
# crash every fork().
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm;-cpu;arm926;-L;/usr/${_rm_triplet};-E;ROUTEMGR_EMULATED=1;-E;QEMU_CPU=arm926;-E;QEMU_LD_PREFIX=/usr/${_rm_triplet};-E;LD_LIBRARY_PATH=/usr/${_rm_triplet}/lib)

# Target .pc files only; the host's would hand out x86-64 link flags.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${_rm_triplet}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Programs from the host; libraries and packages from the multiarch
# directories first (CMAKE_LIBRARY_ARCHITECTURE makes find_* look in
# /usr/lib/arm-linux-gnueabi), header-only host packages such as
# nlohmann-json remain usable.
set(CMAKE_FIND_ROOT_PATH /usr/${_rm_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# libmnl and its dependencies live in the multiarch directory, which the
# cross linker does not search for indirect dependencies by itself.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,/usr/lib/${_rm_triplet}")
