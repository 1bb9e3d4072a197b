# libxml2: headers only (the daemon names xmlNode and calls nothing).
# A cross build may point ROUTEMGR_LIBXML2_INCLUDE at the host's headers.
set(ROUTEMGR_LIBXML2_INCLUDE "" CACHE PATH "Directory holding libxml/tree.h")
if(ROUTEMGR_LIBXML2_INCLUDE)
  set(LIBXML2_INCLUDE_DIR ${ROUTEMGR_LIBXML2_INCLUDE})
else()
  find_path(LIBXML2_INCLUDE_DIR libxml/tree.h PATH_SUFFIXES libxml2 REQUIRED)
endif()

if(ROUTEMGR_TOOLS)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(LIBMNL REQUIRED IMPORTED_TARGET libmnl)
  find_package(nlohmann_json 3 REQUIRED)
endif()
if(ROUTEMGR_TESTS)
  # A cross build whose target has no GoogleTest package builds it from
  # Debian's source package instead (same GTest:: targets).
  option(ROUTEMGR_GTEST_FROM_SOURCE "Build GoogleTest from /usr/src/googletest" OFF)
  if(ROUTEMGR_GTEST_FROM_SOURCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  else()
    find_package(GTest REQUIRED)
  endif()
  include(GoogleTest)
  include(${CMAKE_CURRENT_LIST_DIR}/Testing.cmake)
endif()
