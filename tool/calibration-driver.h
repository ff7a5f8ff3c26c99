// Run modes 2 and 3: every requested (frequency, MCS) combination is tuned and calibrated
// in request order, through the MP session (-mp) or the running transmitter service.
#pragma once

#include "orca-vtx-i2c-monitor.h"

// Runs the whole pass after start-up and returns the exit status: 0 once the pass was
// reached, whatever its combinations did; 1 when the MP session does not start. Closes
// the status pipe; the bus descriptor `fd` stays the caller's to close.
int run_calibration(int fd, RunMode mode);
