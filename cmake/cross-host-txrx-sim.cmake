# Included right after project() in cross builds: the transceiver simulator
# built for the build machine as txrx-sim-host. The integration tests let
# the emulated daemon start this one instead of an emulated simulator: an
# emulated txrx takes a few hundred milliseconds to listen, while the daemon
# hands a queued job over on its first pass after starting txrx, so the job
# would go to a port nobody listens on yet. A real txrx is not emulated.
# The simulator's commands that write binary files (loopback) still run
# emulated, in the daemon's byte order.
# It is built in one compiler call from its source and the pieces of common/
# and formats/ it uses (keep the list in step with its includes).
find_program(SMSGW_HOST_CXX NAMES c++ g++ clang++ NO_CMAKE_FIND_ROOT_PATH)
set(_sim_source ${CMAKE_SOURCE_DIR}/tools/txrx-sim.cpp)
set(_sim_sources ${_sim_source})
foreach(piece common/fileops common/net common/paths common/text common/trace formats/job_file formats/txrx_datagram
        formats/txrx_report formats/inbox_record)
  list(APPEND _sim_sources ${CMAKE_SOURCE_DIR}/src/${piece}.cpp)
endforeach()
if(SMSGW_HOST_CXX AND EXISTS ${_sim_source})
  add_custom_command(
    OUTPUT ${CMAKE_BINARY_DIR}/txrx-sim-host
    COMMAND ${SMSGW_HOST_CXX} -std=c++17 -O2 -Wall -Wextra -I${CMAKE_SOURCE_DIR}/src
            -o ${CMAKE_BINARY_DIR}/txrx-sim-host ${_sim_sources}
    DEPENDS ${_sim_sources}
    COMMENT "Building txrx-sim for the build machine"
    VERBATIM)
  add_custom_target(host_txrx_sim ALL DEPENDS ${CMAKE_BINARY_DIR}/txrx-sim-host)
endif()
