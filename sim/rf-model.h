// The RF side of the simulated board: what the power detector shows for the radio's
// settings, and the mV-to-dBm tables that describe this detector. Both come from the
// default calibration tables that the program embeds, so that a power search converges
// and a calibration run on the simulator yields files close to those defaults.
#pragma once

#include <string>

#include "board-state.h"

namespace board_sim {

constexpr double kIdleDetectorMv = 45.0;  // detector output with no carrier on its band

// Band tag ("2_4", "5_1", "5_8") of a frequency, or nullptr outside the three bands.
const char* band_tag_for_frequency(int frequency_mhz);

// Noise-free voltage of detector channel 0 (2.4 GHz) or 1 (5 GHz), this board's offset
// included. Power indices outside 1..60 act as the nearest valid one; an MCS the tables do
// not list uses the nearest listed one below it.
double detector_mv(const BoardState& state, int channel);

// Output power of the radio in dBm, or -99.0 when it does not transmit. A real board's
// (board-physics.h) is what it settles to at the state's temperature.
double output_dbm(const BoardState& state);

// The default tables' output of a power level (clamped to 1..60) in dBm, -99 where the
// table has none; and the highest output of a band and MCS.
double nominal_output_dbm(const char* tag, int mcs, int power_index);
double nominal_top_dbm(const char* tag, int mcs);
// The typical detector's voltage for an output in dBm: the inverse of the conversion
// tables, continued below them by the diode's square law and above them by their top slope.
double nominal_detector_mv(const char* tag, int mcs, double dbm);

// Writes <dir>/<tag>_mv_to_dbm.csv for the three bands. Returns 0 or -1 after a message.
int write_conversion_tables(const std::string& dir);
// The same for a board with a chosen power curve (`power_curve_dbm`): every band and MCS
// then reads each power index as exactly the curve's dBm. Without a curve, as above.
int write_conversion_tables(const std::string& dir, const BoardState& state);

// Detector voltage of the carrier at a power index on a board with a chosen power curve:
// a fixed step per index, far enough apart that the converter's quantisation never moves a
// reading to the neighbouring table row.
constexpr double kCurveBaseMv = 100.0;
constexpr double kCurveStepMv = 25.0;

}  // namespace board_sim
