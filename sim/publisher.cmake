# The simulated service's vtx_latency publisher. sim/CMakeLists.txt includes this file;
# the pipe tests include it too when the simulator is not part of the build.
if(NOT TARGET orca-sim-vtx-publisher)
    add_executable(orca-sim-vtx-publisher ${CMAKE_CURRENT_LIST_DIR}/vtx-latency-publisher.cpp)
    target_link_libraries(orca-sim-vtx-publisher PRIVATE fjord_pipe orca_vtx)
endif()
