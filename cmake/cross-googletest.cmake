# Included right after project() in cross builds: builds GoogleTest from
# source for the target and points find_package(GTest) at those targets.
if(NOT DEFINED SMSGW_TESTS OR SMSGW_TESTS)
  if(NOT TARGET gtest)
    set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    add_subdirectory(${SMSGW_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  endif()
  set(GTest_DIR ${CMAKE_CURRENT_LIST_DIR}/gtest-from-source CACHE PATH
      "GoogleTest built from source" FORCE)
endif()
