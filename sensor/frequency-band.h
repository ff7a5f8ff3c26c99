// Which of the board's three bands a radio frequency belongs to: the one rule that picks
// the conversion table, the calibration file and the detector channel. A frequency is
// taken by its hundreds of MHz: 2300-2599 is 2.4 GHz, 5000-5599 is 5.1 GHz, 5600-5999 is
// 5.8 GHz; everything else (negative values too) is in no band.
//
// Deliberate exceptions keep their own rules where they are used: the power search
// accepts only 2300-2599, 5000-5299 and 5700-5999 MHz (power-search.cpp), and the monitor
// line labels channel 1 "5.1" up to 5499 MHz and "5.8" above (tool/monitor-loop.cpp).
#pragma once

enum class FrequencyBand { none, ghz_2_4, ghz_5_1, ghz_5_8 };

// The band of `frequency_mhz`. Prints nothing, changes nothing.
FrequencyBand frequency_band(int frequency_mhz);

// The band's name in the conversion tables ("2.4", "5.1", "5.8"); nullptr for none.
const char* band_table_name(FrequencyBand band);

// The band's tag in file names ("2_4", "5_1", "5_8"); nullptr for none.
const char* band_file_tag(FrequencyBand band);
