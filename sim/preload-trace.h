// What the preload does, told on standard error when ORCA_SIM_TRACE asks for it, and the
// lookup of the libc functions it wraps. Part of libboard-sim.so only.
#pragma once

#include <cstdarg>

namespace board_sim {

enum TraceTopic : unsigned {
    kTraceBus = 1,    // i2c-dev nodes and every transfer on a simulated bus
    kTracePath = 2,   // file names moved into the sandbox
    kTraceExec = 4,   // programs started through the emulator of another machine
    kTraceClock = 8,  // poll timeouts the clock skips, with the related processes' states
};

// Reads the comma-separated topics of ORCA_SIM_TRACE ("bus", "path", "exec", "clock"); an
// unknown word is reported on standard error and ignored. Off when the variable is unset or
// empty.
void configure_trace(const char* topics);
bool tracing(TraceTopic topic);
// Writes "board-sim[PID] TOPIC: " and the formatted text as one line to standard error,
// straight to the descriptor, so that the trace neither recurses nor mixes with stdio
// buffers.
void trace(TraceTopic topic, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The name of the interposed call under way on this thread, for the trace; "" outside one.
const char* current_call();
class CallScope {
  public:
    explicit CallScope(const char* name);
    ~CallScope();
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

  private:
    const char* outer_;
};

// The next definition of `name` after this library (libc's, or a sanitizer runtime's in
// front of it). One that cannot be found ends the process with a message naming it: the
// call could not be carried out, and a null call would crash with no hint why.
void* next_definition_or_abort(const char* name);

template <typename Function>
Function next_definition(const char* name) {
    return reinterpret_cast<Function>(next_definition_or_abort(name));
}

}  // namespace board_sim

// At the top of each interposed function: its libc counterpart, looked up once, and its
// name for the trace while it runs.
#define REAL(name)                                                                          \
    static const auto real_##name = ::board_sim::next_definition<decltype(&::name)>(#name); \
    const ::board_sim::CallScope call_scope_##name(#name)
