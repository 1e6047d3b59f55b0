# Included right after project() in cross builds (see the toolchain files).
if(EXISTS ${SMSGW_GTEST_SOURCE_DIR}/CMakeLists.txt)
  include(${CMAKE_CURRENT_LIST_DIR}/cross-googletest.cmake)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/cross-host-txrx-sim.cmake)
