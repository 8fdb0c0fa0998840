include(GoogleTest)

# klarbox_tests(FOLDER [library…]): the test binary of one folder of Tests/, every test of it known
# to ctest by name so that they run side by side.
function(klarbox_tests folder)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${folder}Tests ${sources})
  target_link_libraries(${folder}Tests PRIVATE TestSupport KlarboxKit ${ARGN}
    GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${folder}Tests TEST_PREFIX ${folder}/ DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT 300)
endfunction()
