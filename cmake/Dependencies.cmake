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
  find_package(GTest REQUIRED)
  include(GoogleTest)
  include(${CMAKE_CURRENT_LIST_DIR}/Testing.cmake)
endif()
