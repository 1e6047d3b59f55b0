# The fuzz targets built with the project's own compiler and a driver that
# runs every input of fuzz/corpus/TARGET once: ctest replays the seeds and
# the inputs kept from past findings in the normal and sanitizer builds.
# (fuzz/CMakeLists.txt builds the same sources with clang and libFuzzer.)
set(SMSGW_FUZZ_DIR ${CMAKE_SOURCE_DIR}/fuzz)
add_library(smsgw_fuzz_replay STATIC ${SMSGW_FUZZ_DIR}/fuzz_support.cpp
                                     ${SMSGW_FUZZ_DIR}/replay_main.cpp)
target_link_libraries(smsgw_fuzz_replay PUBLIC smsgw_common smsgw_flags)

file(GLOB FUZZ_SOURCES CONFIGURE_DEPENDS ${SMSGW_FUZZ_DIR}/fuzz_*.cpp)
list(FILTER FUZZ_SOURCES EXCLUDE REGEX "/fuzz_support\\.cpp$")
foreach(src ${FUZZ_SOURCES})
  get_filename_component(name ${src} NAME_WE)
  string(REGEX REPLACE "^fuzz_" "" target ${name})
  add_executable(replay_${target} ${src})
  target_link_libraries(replay_${target} PRIVATE smsgw_fuzz_replay smsgw_txrx smsgw_triggers smsgw_jobs
                        smsgw_commands smsgw_send smsgw_addressbook smsgw_common)
  set_target_properties(replay_${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY
                                                    ${CMAKE_BINARY_DIR}/fuzz)
  add_test(NAME fuzz_replay.${target} COMMAND replay_${target} ${SMSGW_FUZZ_DIR}/corpus/${target}
           WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
endforeach()
