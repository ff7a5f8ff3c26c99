# The sources of libboard-sim.so, relative to the top of the tree. Shared by sim/CMakeLists.txt
# and by sim/host-preload, the build machine's own copy of the preload in a cross build.
set(ORCA_SIM_CORE_SOURCES
    sim/board-physics.cpp
    sim/board-state.cpp
    sim/fault.cpp
    sim/foreign-exec.cpp
    sim/rf-model.cpp
    sim/sandbox.cpp
    sim/shared-block.cpp
    sim/sim-ads7142.cpp
    sim/sim-temp-sensor.cpp
    sim/target-table.cpp
    # The RF model is derived from the embedded default tables. They are compiled here
    # again, without sanitizers, rather than taken from orca_default_cal.
    sensor/default_power_calibration.cpp
    sensor/default_power_calibration_tables.cpp)
set(ORCA_SIM_PRELOAD_SOURCES
    sim/control-api.cpp
    sim/preload-clock.cpp
    sim/preload-io.cpp
    sim/preload-lifecycle.cpp
    sim/preload-thread.cpp
    sim/preload-trace.cpp
    sim/simulation.cpp)
