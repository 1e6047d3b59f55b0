# Package file for a GoogleTest built inside this project (cross builds):
# the targets GTest::gtest and GTest::gtest_main already exist.
if(TARGET GTest::gtest AND TARGET GTest::gtest_main)
  set(GTest_FOUND TRUE)
else()
  set(GTest_FOUND FALSE)
  set(GTest_NOT_FOUND_MESSAGE "GoogleTest was not built from source in this project")
endif()
