// Power detector of the video-transmitter board: ADS7142 access, the read cycle,
// mV-to-dBm conversion, apply-and-measure, the target-power search and calibration.
#pragma once

#include <cstdint>

// ADS7142 registers written by the set-up sequence.
constexpr uint8_t WKEY = 0x17;
constexpr uint8_t DEVICE_RESET = 0x14;
constexpr uint8_t DOUT_FORMAT_CFG = 0x28;
constexpr uint8_t CHANNEL_INPUT_CFG = 0x24;
constexpr uint8_t OPMODE_SEL = 0x1C;
constexpr uint8_t AUTO_SEQ_CHEN = 0x20;

struct SensorReading {
    double ch0_mv;
    double ch1_mv;
    double ch0_dbm;
    double ch1_dbm;
    float temperature_c;
    int temperature_valid;
    int sample_count;
};

// Option and radio-state globals that the sensor and calibration code read
extern int Debug_Prints;
extern bool g_temp_test_flag;
extern int g_global_frequency;  // starts 5800
extern int g_global_mcs;        // starts 0
extern int g_global_power_idx;  // starts 1

// I2C access and ADS7142 set-up. `fd` is an open i2c-dev descriptor with the device's
// address already selected; none of these closes it. Failures print perror's message.
// Writes `value` to ADS7142 register `reg`. 0, or -1 after the message.
int write_register(int fd, uint8_t reg, uint8_t value);
// ADS7142 register `reg`: its value 0-255, or -1 after the message.
int read_register(int fd, uint8_t reg);
// The big-endian 16-bit word at pointer `reg` (the temperature sensor): 0-65535, or -1
// after the message.
int read_word_data(int fd, uint8_t reg);
// °C of a raw temperature word (12-bit two's complement in the top bits, 1/16 °C steps).
float convert_to_celsius(int raw);
// Unlocks, resets and relocks the ADS7142. 0, or -1 at the first failed write; with
// `verbose` each step's outcome is also printed on stdout.
int reset_device(int fd, int verbose);
// Reads the converter's 16-entry data buffer and raises *max_ch0_mv / *max_ch1_mv to the
// highest mV seen on each channel (never lowers them). 0, or -1 after the message with
// both left as they were.
int read_all_data_buffer_entries_by_channel(int fd, double* max_ch0_mv, double* max_ch1_mv);
// Whether a device acknowledges at `address` on /dev/i2c-`bus`: 0 yes, -1 no (or no bus).
// Opens and closes its own descriptor; prints nothing.
int check_i2c_device(int bus, int address);

// One read cycle on `fd` (the bus, open): resets and configures the converter, reads the
// temperature, takes `samples` sequences `pause_seconds` apart (whole microseconds) keeping
// each channel's peak, and converts both peaks to dBm at `mcs` (channel 0 with the 2.4
// table, channel 1 with the table of `frequency_mhz`'s band, 5.8 after a warning on stderr
// for a frequency in no band). Returns 0 with *reading filled, or -1 after a message on
// stdout with *reading's mV and dBm zeroed or partial. A failed address select closes
// `fd` (the bus is gone: the caller reopens it). A temperature read failure keeps the
// last temperature; a missing sensor clears temperature_valid.
int process_sensor_data(SensorReading* reading, int fd, int mcs, int frequency_mhz, int samples,
                        double pause_seconds);
// The same with the fixed 60 sequences 1 ms apart that calibration and power adjustment use.
int process_sensor_data(SensorReading* reading, int fd, int mcs, int frequency_mhz);

// mV-to-dBm conversion tables
struct CsvBandCache {
    double rows[1000][9];
    int row_count;
    bool loaded;
};
struct CsvCacheManager {
    CsvBandCache caches[3];  // "2.4", "5.1", "5.8"
};
extern CsvCacheManager g_csv_cache_manager;

// Empties the three band caches of g_csv_cache_manager: the next lookups read the files.
void init_csv_cache_manager();
// The cache of band "2.4", "5.1" or "5.8"; nullptr for any other name (or null).
CsvBandCache* get_csv_cache_for_freq(const char* band);
// Loads the conversion table at `path` (a header line, then rows of mV and dBm at MCS 0-7;
// at most 1000 rows) into `cache` and marks it loaded. 0, or -1 after a message on stderr
// with the cache left unloaded.
int load_csv_cache(CsvBandCache* cache, const char* path);
// dBm of `mv` at `mcs` (0-7) from the cached table of `band`, loading
// /data/quillon/vtx/<band>_mv_to_dbm.csv on first use (a failed load is retried on the next
// call). 0 with *mv_out = mv and *dbm_out set, or -1 after a message on stderr.
int read_csv_data_cached(double* mv_out, double* dbm_out, int mcs, const char* band, double mv);
// The same lookup read straight from the file every time, without the cache.
int read_csv_data(double* mv_out, double* dbm_out, int mcs, const char* band, double mv);
// Case-insensitive strstr: the first match of `pattern` in `text`, or nullptr (also for
// a null argument); an empty pattern matches at `text`.
const char* custom_strcasestr(const char* text, const char* pattern);
// 10^x: exact for whole x from 0 to 20, otherwise a fixed series whose rounding the
// calibration files depend on. Prints nothing.
double custom_exp10(double x);

// Apply power and measure; target-power search
// Whether `power_index` is a power index the radio takes (1 to 60).
bool is_valid_power_level(int power_index);
// The radio state for a read cycle, from g_global_mcs and g_global_frequency; both -9999
// when both globals are 0 (the state was never learned). Prints nothing.
void read_vtx_config(int* mcs, int* frequency_mhz);
// Runs "orca-configure-vtx -p `power_index`", waits 250 ms, then takes three read cycles
// (each retried once) and returns their median dBm on the band's channel (`band` 2.4:
// channel 0, else channel 1), or the mean of those that worked; the result is also stored
// in that channel's dBm of *reading. -1.0 for an invalid index (message on stderr), a
// command that could not start, or no usable reading. Progress goes to stdout.
double apply_power_and_read_dbm(int fd, int power_index, SensorReading* reading, double band);
// Searches the power index (1 to 60) whose reading is within 0.25 dB of `target_dbm`
// (rounded to 0.25 dB and held to 0-30 dBm) by a binary search over
// apply_power_and_read_dbm, keeping the closest one seen; a 0 dBm reading above index 25
// chooses index 1. Sets the result with orca-configure-vtx and stores it in *chosen_index.
// A frequency outside the search's bands, or a search that chose nothing, leaves
// *chosen_index alone after a message on stderr. Clears *adjust_flag on every path.
// Progress goes to stdout.
void set_dBm(int fd, SensorReading* reading, bool* adjust_flag, int* chosen_index,
             double target_dbm, double frequency_mhz);

// Calibration
struct CalibrationTx {
    int (*set_frequency)(int frequency_mhz);
    int (*set_power)(int power_level);
    int (*tx_on)();
    int (*tx_off)();
};
extern CalibrationTx* g_calibration_tx;       // null: the service's shell commands
extern const int FAST_CALIBRATION_LEVELS[6];  // 10, 35, 45, 50, 56, 60

// Calibrates power levels 1 to 63 at `frequency_mhz` and `mcs`: tunes the radio, measures
// each level (four readings, the first dropped), stops early at 31.5 dBm or, with
// g_temp_test_flag, above the temperature limit, merges the results into
// /data/quillon/vtx/calibrated_<band>.csv and sets power index 1. Goes through
// g_calibration_tx when set, else the service's shell commands. 0, or -1 after a message
// (bad frequency, tuning, power change or file failure). Progress goes to stdout.
int perform_calibration(int fd, int frequency_mhz, int mcs);
// The same over FAST_CALIBRATION_LEVELS only; the other levels are estimated from the
// default tables shifted by the measured anchors. -1 also when an anchor is missing (the
// file is then left alone and power index 1 set).
int perform_fast_calibration(int fd, int frequency_mhz, int mcs);
// Both runs: `levels` (level_count of them, each 1-63) or, with level_count 0, every level
// 1 to 63. -1 for a bad level list before anything is changed.
int perform_calibration_internal(int fd, int frequency_mhz, int mcs, const int* levels,
                                 int level_count, bool fast);
