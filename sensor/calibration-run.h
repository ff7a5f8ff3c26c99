// Pieces of a calibration run shared by the full and the fast procedure.
#pragma once

#include "calibration-file.h"

// Brings the radio back to power level 1 through the transmit source of the run. Returns 0,
// or -1 when the source refused or the shell could not be started.
int reset_power_to_minimum();

// Fast runs: reports every anchor the run needed but did not measure (all six, or those up
// to `stop_level` after a safety stop; 0 means none). Returns how many were missing.
int report_missing_anchors(const CalibrationResult* result, int stop_level);
// Fills the levels a fast run did not measure from the default table of `band_tag`, shifted
// by the measured anchors' offsets, and converts them with the `band_name` table.
void estimate_unmeasured_levels(CalibrationResult* result, const char* band_tag,
                                const char* band_name, int mcs, int stop_level);
