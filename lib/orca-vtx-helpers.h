// The transmitter service's helpers: calibration tables, power control, RTP, FEC and the
// vtx_latency record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orca-common.h"

// The library is built with hidden visibility: what this header declares is its API.
#pragma GCC visibility push(default)

struct vtx_profile_t {
    int power = 0;          // mW
    int power_idx = 0;      // 63: not regulated
    int alt_power_idx = 0;  // written instead of power_idx while the alternate power is on
    int mtu = 0;            // payload bytes per packet
    int framerate = 0;
    venc_mode_t venc_mode = VENC_H264;
};

struct vtx_config_t {
    std::string card;  // wireless interface
    bool alt_power_enabled = false;
    int active_profile_idx = 0;
    std::vector<vtx_profile_t> profiles;
    int fec_percent = -1;  // -1: chosen per frame by adjust_fec, at least 75
};

// Power correction state of one transmitter; the caller starts a sequence by setting
// `active` with `step_count` 0.
struct PowerControl {
    bool enabled = false;
    bool active = false;
    int32_t step_count = 0;
    int32_t index_offset = 0;     // added to the profile's power_idx
    int32_t low_limit_mw = 0;     // 0: derived from the tolerance
    int32_t averaging_depth = 0;  // measurements in the steady-state average
    double tolerance = 0.05;      // relative half-width of the accepted band
    int32_t direction = 0;        // 0 none, 1 up, 2 down
};

#pragma pack(push, 1)
struct VtxLatencyRecord {  // 81 bytes, little-endian, as the service publishes it
    uint32_t magic_number;
    uint8_t reserved_4[41];
    double temperature_c;
    double output_dbm;
    uint8_t reserved_61[4];
    int32_t power_index;
    int32_t frequency_mhz;
    int32_t mcs;
    uint8_t reserved_77[4];
};
#pragma pack(pop)
static_assert(sizeof(VtxLatencyRecord) == 81, "vtx_latency records are 81 bytes");

VtxLatencyRecord* orca_vtx_validate_pipe_data(char* data, int bytes, int* count);

// Power calibration tables: MCS -> (rounded output mW -> power index).
using PowerCalibrationMap = std::map<int, std::map<int, int>>;

// An empty map when the file cannot be opened or holds nothing usable.
PowerCalibrationMap loadPowerCalibrationData(const std::string& path);
PowerCalibrationMap loadPowerCalibrationDataFromStream(std::istream& in);
PowerCalibrationMap loadPowerCalibrationDataFromString(std::string_view text);
// The file at `path`, or `default_text` when that gives an empty map; always normalised.
PowerCalibrationMap loadPowerCalibrationOrDefault(const std::string& path,
                                                  std::string_view default_text,
                                                  const char* band_label);
// Copies MCS 1 to a missing MCS 2, and MCS 3 to missing MCS 4 to 7.
void normalizeMcsCoverage(PowerCalibrationMap& map);
void printPowerMap(const PowerCalibrationMap& map);

// Power index selection and feedback. The queue and counter are shared by every caller
// and must be used from one thread.
extern std::deque<int32_t> power_samples;
extern int32_t power_over_limit_cnt;

// The power index for `*wanted_mw` from the table of `mcs` (else its nearest lower MCS down
// to 0, else its nearest higher one up to 7); any MCS value is accepted. Under FCC at 5180
// to 5320 MHz it sets *wanted_mw to 200 first. A null wanted_mw counts as 0 mW.
int findClosestPowerIndex(const PowerCalibrationMap& map, int mcs, int* wanted_mw,
                          int frequency_mhz, RegulatoryDomain domain, bool adc_available);
// Call once per detector measurement. Returns 0; -1 (with a message, nothing changed) for a
// null config or control, an active profile that does not exist, or a tolerance that is
// not a finite number. The index offset moves by at most one step per call and never
// leaves its type; power index sums are taken in 64 bits.
int power_feedback_loop(vtx_config_t* config, PowerControl* control, double measured_dbm,
                        bool primary_override);
void steady_state_power_feedback_loop(vtx_config_t* config, PowerControl* control,
                                      std::deque<int32_t>& samples, int low_mw, int high_mw,
                                      int measured_mw, bool primary_override);

// RTP packetization. Every header struct's bytes in memory are its wire bytes.
struct rtp_header_t {
    uint8_t version_flags;        // version 2, no padding, extension or CSRC: 0x80
    uint8_t marker_payload_type;  // marker in bit 7, payload type below
    uint8_t sequence[2];          // big-endian
    uint8_t timestamp[4];         // big-endian
    uint8_t ssrc[4];
};
struct nalu_header_t {
    uint8_t value;  // forbidden bit, NRI, type
};
struct nal_unit_header_h265_t {
    uint8_t bytes[2];  // type << 1, then layer 0 / temporal id plus one 1
};
struct fu_header_t {
    uint8_t value;  // start, end, reserved, type (5 bits)
};
struct fu_header_h265_t {
    uint8_t value;  // start, end, type (6 bits)
};
static_assert(sizeof(rtp_header_t) == 12, "RTP header is 12 bytes");
static_assert(sizeof(nalu_header_t) == 1 && sizeof(fu_header_t) == 1 &&
                  sizeof(fu_header_h265_t) == 1 && sizeof(nal_unit_header_h265_t) == 2,
              "NAL and FU headers are their wire size");

constexpr int RTP_PAYLOAD_TYPE_VIDEO = 96;

void set_rtp_header(rtp_header_t* header, bool marker, uint32_t timestamp, uint16_t* sequence,
                    int payload_type);
void set_nalu(nalu_header_t* header, uint8_t type, int reference_type);
void set_h265_nalu(nal_unit_header_h265_t* header, uint8_t type);
void set_fu_header(fu_header_t* header, bool start, bool end, int type);
void set_h265_fu_header(fu_header_h265_t* header, bool start, bool end, int type);
// Builds one fragment of the NAL unit at `nal_data` into a new packet in `out` and returns
// how many bytes of the NAL unit it used up. The first fragment skips the start code and
// NAL header, which the FU headers replace.
int create_rtp_packet_fragment(const uint8_t* nal_data, size_t payload_length, uint32_t timestamp,
                               bool first_fragment, vtx_config_t config, int bytes_left,
                               uint16_t* sequence, int nal_type,
                               std::shared_ptr<std::vector<uint8_t>>& out, venc_mode_t codec);
// Offset of the first 00 00 00 01 start code at or after `start_offset`, else 0.
int get_header_size(const std::vector<uint8_t>& data, int start_offset);

// FEC and bitrate budget: capacity in bit/s per MCS.
extern std::map<int, int> max_bitrates_20mhz, max_bitrates_40mhz, max_bitrates_20mhz_2g,
    max_bitrates_40mhz_2g;
extern int32_t fec_debt_bytes;

// Capacity in bytes per second.
int get_max_bitrate(int mcs, int frequency_mhz, int bandwidth_mhz);
// Chooses the frame's FEC percentage into config->fec_percent. The result is that
// percentage only while no debt is owed; otherwise the surplus or the remaining debt.
int adjust_fec(int frame_budget, int frame_size, vtx_config_t* config, int nal_type,
               int frames_per_period, int frames_sent);
double _calc_input_bitrate_mbps(int next_position, const std::vector<uint64_t>& frame_sizes,
                                const std::vector<int64_t>& frame_times_ns);
// The "bps" of the camera pipe's info file, 1000000 when it cannot be read.
int fetch_camera_bitrate(const std::string& source);

#pragma GCC visibility pop
