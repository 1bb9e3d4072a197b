# rm_test_area(NAME LIBS...): every *_test.cpp of the calling directory
# becomes one GoogleTest executable NAME_tests, registered with CTest.
function(rm_test_area name)
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp
       ${CMAKE_CURRENT_SOURCE_DIR}/*_fake.cpp ${CMAKE_CURRENT_SOURCE_DIR}/test_*.cpp)
  if(NOT srcs)
    return()
  endif()
  add_executable(${name}_tests ${srcs})
  target_link_libraries(${name}_tests PRIVATE ${ARGN} rm_test_support GTest::gmock
                        GTest::gtest_main)
  target_include_directories(${name}_tests PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  gtest_discover_tests(${name}_tests DISCOVERY_MODE PRE_TEST
                       PROPERTIES LABELS unit TIMEOUT 60)
endfunction()
