#include "frequency-band.h"

FrequencyBand frequency_band(int frequency_mhz) {
    const int hundreds = frequency_mhz / 100;
    if (hundreds >= 23 && hundreds <= 25)
        return FrequencyBand::ghz_2_4;
    if (hundreds >= 50 && hundreds <= 55)
        return FrequencyBand::ghz_5_1;
    if (hundreds >= 56 && hundreds <= 59)
        return FrequencyBand::ghz_5_8;
    return FrequencyBand::none;
}

const char* band_table_name(FrequencyBand band) {
    switch (band) {
        case FrequencyBand::ghz_2_4:
            return "2.4";
        case FrequencyBand::ghz_5_1:
            return "5.1";
        case FrequencyBand::ghz_5_8:
            return "5.8";
        case FrequencyBand::none:
            break;
    }
    return nullptr;
}

const char* band_file_tag(FrequencyBand band) {
    switch (band) {
        case FrequencyBand::ghz_2_4:
            return "2_4";
        case FrequencyBand::ghz_5_1:
            return "5_1";
        case FrequencyBand::ghz_5_8:
            return "5_8";
        case FrequencyBand::none:
            break;
    }
    return nullptr;
}
