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

// I2C access and ADS7142 set-up
int write_register(int fd, uint8_t reg, uint8_t value);
int read_register(int fd, uint8_t reg);
int read_word_data(int fd, uint8_t reg);
float convert_to_celsius(int raw);
int reset_device(int fd, int verbose);
int read_all_data_buffer_entries_by_channel(int fd, double* max_ch0_mv, double* max_ch1_mv);
int check_i2c_device(int bus, int address);

// Read cycle; the four-argument overload is the fixed 60-sample, 1 ms variant
int process_sensor_data(SensorReading* reading, int fd, int mcs, int frequency_mhz, int samples,
                        double pause_seconds);
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

void init_csv_cache_manager();
CsvBandCache* get_csv_cache_for_freq(const char* band);
int load_csv_cache(CsvBandCache* cache, const char* path);
int read_csv_data_cached(double* mv_out, double* dbm_out, int mcs, const char* band, double mv);
int read_csv_data(double* mv_out, double* dbm_out, int mcs, const char* band, double mv);
const char* custom_strcasestr(const char* text, const char* pattern);
double custom_exp10(double x);

// Apply power and measure; target-power search
bool is_valid_power_level(int power_index);
void read_vtx_config(int* mcs, int* frequency_mhz);
double apply_power_and_read_dbm(int fd, int power_index, SensorReading* reading, double band);
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

int perform_calibration(int fd, int frequency_mhz, int mcs);
int perform_fast_calibration(int fd, int frequency_mhz, int mcs);
int perform_calibration_internal(int fd, int frequency_mhz, int mcs, const int* levels,
                                 int level_count, bool fast);
