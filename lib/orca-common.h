// Shared radio helpers of the transmitter service: channel plan, radio and system
// commands, NAL helpers and the pipe record validators.
#pragma once

#include <cstdint>
#include <map>
#include <string>

// The library is built with hidden visibility: what this header declares is its API.
#pragma GCC visibility push(default)

enum class RegulatoryDomain : int { off = 0, fcc = 1 };
enum scan_direction_e : int { SCAN_DIRECTION_DOWN = 0, SCAN_DIRECTION_UP = 1 };
enum venc_mode_t : int { VENC_H264 = 0, VENC_H265 = 1 };

constexpr uint32_t ORCA_MAGIC_NUMBER = 0x4F524341;

// Channel plan: channel number -> centre frequency in MHz. Filled before main() runs and
// only read afterwards.
extern std::map<int, int> all_channels;
extern std::map<int, int> band_2g_channels;
extern std::map<int, int> band_5g_channels;

// -1 (with a message) for a channel or frequency outside the plan.
int channel_to_frequency(int channel);
int frequency_to_channel(int frequency_mhz);
// Band numbers: 0 is 2.4 GHz, 1 is 5 GHz. Plain thresholds, any number is accepted.
int frequency_to_band(int frequency_mhz);
int channel_to_band(int channel);
// The neighbouring channel, wrapping from 173 to 1 and back; an unknown channel is returned
// unchanged.
int get_next_channel(int channel, scan_direction_e direction);
// "HT40+" or "HT40-": the side of the secondary 40 MHz channel.
const char* bw_for_frequency(int frequency_mhz);
// Tunes `card` with iw. The exit status of iw, or -1 when refused or not run.
int set_frequency_and_bw(std::string card, int frequency_mhz, int bandwidth_mhz,
                         RegulatoryDomain domain);
// The driver of `card` as listed in sysfs; "rtl8812au" for the whole 88xxau family.
std::string get_chip(std::string card);

// Radio and system control. Commands whose result is an exit status give -1 when the
// shell could not be started.
std::string run_command(const std::string& command);
bool is_service_running(const std::string& service);
bool is_service_enabled(const std::string& service);
int set_monitor_mode(std::string interface_name);
int set_ath0_monitor_mode(int channel);
int set_perf_mode();
int set_power(std::string card, int power_index, int alt_power_idx, bool primary_override,
              bool alt_power_enabled);

// NAL helpers
int get_nalu_type(uint8_t first_byte, venc_mode_t mode);
const char* nalu_byte_as_string(int byte);

// Records of the other pipe-bus streams. Only the leading magic number is ours to check;
// the rest of each layout belongs to the record's producer.
#pragma pack(push, 1)
struct external_fc_status_t {
    uint32_t magic_number;
    uint8_t payload[4];
};
struct ndc_coords_t {
    uint32_t magic_number;
    uint8_t payload[20];
};
struct orca_modem_doodle_stats_t {
    uint32_t magic_number;
    uint8_t payload[28];
};
struct orca_bbox_t {
    uint32_t magic_number;
    uint8_t payload[88];
};
#pragma pack(pop)
static_assert(sizeof(external_fc_status_t) == 8, "external_fc_status_t records are 8 bytes");
static_assert(sizeof(ndc_coords_t) == 24, "ndc_coords_t records are 24 bytes");
static_assert(sizeof(orca_modem_doodle_stats_t) == 32, "Doodle stats records are 32 bytes");
static_assert(sizeof(orca_bbox_t) == 92, "bounding box records are 92 bytes");

// Each validator checks that `data` holds whole records that all begin with the magic
// number. It returns `data` as an array of `*count` records, or nullptr (count 0) after
// printing why the batch was refused. `count` may be null when the caller does not want it.
external_fc_status_t* validate_ext_fc_status_pipe_data(char* data, int bytes, int* count);
ndc_coords_t* pipe_validate_ndc_coords_data(char* data, int bytes, int* count);
orca_modem_doodle_stats_t* orca_modem_doodle_validate_pipe_data(char* data, int bytes, int* count);
orca_bbox_t* pipe_validate_bbox_data(char* data, int bytes, int* count);

#pragma GCC visibility pop
