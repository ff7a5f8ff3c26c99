// Thread creation on the simulated board. With "threads=refused" in the board state every
// pthread_create of every process on the board fails with EAGAIN, as when the system has run
// out of tasks or memory for a stack, so that a test can show what a program does when it
// cannot start a thread (the status pipe's reader, say) on any machine, emulated or not.
#include <pthread.h>

#include <cerrno>

#include "preload-trace.h"
#include "simulation.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
    REAL(pthread_create);
    board_sim::Simulation* simulation = board_sim::Simulation::get();
    if (simulation != nullptr) {
        const board_sim::BoardState state = simulation->state();
        const auto threads = state.extra.find("threads");
        if (threads != state.extra.end() && threads->second == "refused")
            return EAGAIN;
    }
    return real_pthread_create(thread, attributes, start, argument);
}
