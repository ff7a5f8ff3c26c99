// Start and end of the simulation in each process that loads libboard-sim.so.
#include "simulation.h"

namespace {

__attribute__((constructor)) void start_simulation() {
    board_sim::Simulation::start();
}

__attribute__((destructor)) void finish_simulation() {
    board_sim::Simulation::finish();
}

}  // namespace
