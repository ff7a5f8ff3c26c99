// Monitor mode: one line per read cycle for as long as the process runs, and the
// target-power search once when the command line asked for it.
#pragma once

struct SensorReading;

// Runs the monitor on the open bus `fd` with the caller's readings record. It returns only
// when the start fails (status 1, after its message); otherwise a signal ends the process.
int run_monitor(int fd, SensorReading* reading);
