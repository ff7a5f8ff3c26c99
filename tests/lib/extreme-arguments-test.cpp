// The library's border: every public function driven with the extreme values of its
// argument types. Each call must give a defined result (or a clear error) without
// undefined behaviour, which the sanitizer build turns into a failure.
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>
#include <set>

#include <orca-vtx/calibration-verdict.h>
#include <orca-vtx/orca-common.h>
#include <orca-vtx/orca-vtx-helpers.h>

#include "capture_output.h"
#include "command_stand_ins.h"

using orca_test::capture_output;
using namespace orca_verdict;

namespace {

const int kInts[] = {INT_MIN, INT_MIN + 1, -64, -1, 0,    1,           2,
                     7,       62,          63,  64, 5180, INT_MAX - 1, INT_MAX};
const double kDoubles[] = {std::numeric_limits<double>::quiet_NaN(),
                           -std::numeric_limits<double>::infinity(),
                           std::numeric_limits<double>::infinity(),
                           -DBL_MAX,
                           DBL_MAX,
                           -1e12,
                           -1.0,
                           0.0,
                           std::numeric_limits<double>::denorm_min(),
                           0.05,
                           1e12};

TEST(ExtremeArguments, PowerIndexSelectionReturnsAnIndexForAnyMcsAndWantedPower) {
    const PowerCalibrationMap map{{1, {{50, 5}, {100, 10}}}, {4, {{INT_MIN, 44}, {INT_MAX, 45}}}};
    // What any call may return: an entry of the map, a fixed maximum of a band, or 1.
    const std::set<int> possible = {5, 10, 44, 45, 30, 39, 45, 58, 1};
    const auto every_call = [&] {
        for (int mcs : kInts) {
            for (int wanted : kInts) {
                for (int frequency : {INT_MIN, 2412, 5200, INT_MAX}) {
                    for (bool adc : {false, true}) {
                        int wanted_mw = wanted;
                        const int index = findClosestPowerIndex(adc ? map : PowerCalibrationMap{},
                                                                mcs, &wanted_mw, frequency,
                                                                RegulatoryDomain::fcc, adc);
                        EXPECT_EQ(possible.count(index), 1u) << mcs << " " << wanted;
                    }
                }
            }
        }
    };
    capture_output(every_call);
    // An MCS beyond the table takes its nearest lower neighbour, one below it none above 7.
    int wanted_mw = 100;
    EXPECT_EQ(findClosestPowerIndex(map, INT_MAX, &wanted_mw, 5800, RegulatoryDomain::off, true),
              45);
    EXPECT_EQ(findClosestPowerIndex(map, 3, &wanted_mw, 5800, RegulatoryDomain::off, true), 10);
    EXPECT_EQ(findClosestPowerIndex(map, INT_MIN, &wanted_mw, 5800, RegulatoryDomain::off, true),
              10);
}

void every_feedback_call();

TEST(ExtremeArguments, PowerFeedbackStepsAtMostOneIndexAndRefusesAToleranceThatIsNoNumber) {
    // The interface name is refused before any command runs, so nothing reaches a shell.
    CommandStandIns commands;
    capture_output([&] { every_feedback_call(); });
    EXPECT_TRUE(commands.calls().empty());
}

void every_feedback_call() {
    for (int power_idx : {INT_MIN, 0, 20, 63, INT_MAX}) {
        for (int offset : {INT_MIN, -1, 0, 1, INT_MAX}) {
            for (double tolerance : kDoubles) {
                for (double measured : kDoubles) {
                    for (bool active : {false, true}) {
                        vtx_config_t config{"wlan 0", false, 0, {vtx_profile_t{100, power_idx}}};
                        PowerControl control;
                        control.active = active;
                        control.step_count = active ? INT32_MAX : 0;
                        control.index_offset = offset;
                        control.tolerance = tolerance;
                        control.averaging_depth = 1;
                        power_samples.clear();
                        power_over_limit_cnt = INT32_MAX;
                        const int result = power_feedback_loop(&config, &control, measured, false);
                        SCOPED_TRACE(::testing::Message() << power_idx << " " << offset << " "
                                                          << tolerance << " " << measured);
                        EXPECT_EQ(result, std::isfinite(tolerance) ? 0 : -1);
                        EXPECT_LE(std::llabs(int64_t{control.index_offset} - offset), 1);
                    }
                }
            }
        }
    }
    for (int limit : kInts) {
        for (int depth : {INT_MIN, 0, 1, 2}) {
            vtx_config_t config{"wlan 0", false, 0, {vtx_profile_t{100, 20}}};
            PowerControl control;
            control.averaging_depth = depth;
            control.index_offset = limit;
            std::deque<int32_t> samples = {INT32_MAX, INT32_MAX};
            power_over_limit_cnt = 5;
            steady_state_power_feedback_loop(&config, &control, samples, limit, limit, limit,
                                             false);
            EXPECT_LE(std::llabs(int64_t{control.index_offset} - limit), 1);
        }
    }
}

TEST(ExtremeArguments, PipeValidatorsTakeANullCountAndAnyByteCount) {
    char data[184] = {};  // no record carries the magic number
    for (int bytes : {INT_MIN, -1, 0, 1, 8, 24, 32, 81, 92, 184}) {
        for (char* buffer : {data, static_cast<char*>(nullptr)}) {
            std::vector<const void*> results;
            capture_output([&] {
                results = {validate_ext_fc_status_pipe_data(buffer, bytes, nullptr),
                           pipe_validate_ndc_coords_data(buffer, bytes, nullptr),
                           orca_modem_doodle_validate_pipe_data(buffer, bytes, nullptr),
                           pipe_validate_bbox_data(buffer, bytes, nullptr),
                           orca_vtx_validate_pipe_data(buffer, bytes, nullptr)};
            });
            // Only an empty batch in a real buffer is valid: no record to refuse.
            const void* expected = bytes == 0 ? buffer : nullptr;
            for (const void* result : results)
                EXPECT_EQ(result, expected) << bytes;
        }
    }
}

TEST(ExtremeArguments, NamesThatBeginWithADashNeverReachTheShell) {
    CommandStandIns commands;
    for (const char* name : {"-", "-rf", "--help", "-wlan0"}) {
        SCOPED_TRACE(name);
        const auto printed = capture_output([&] {
            EXPECT_FALSE(is_service_running(name));
            EXPECT_FALSE(is_service_enabled(name));
            EXPECT_EQ(set_monitor_mode(name), -1);
            EXPECT_EQ(set_power(name, 20, 20, false, false), -1);
            EXPECT_EQ(set_frequency_and_bw(name, 5180, 20, RegulatoryDomain::off), -1);
        });
        EXPECT_NE(printed.err.find(std::string("name \"") + name + "\""), std::string::npos);
    }
    EXPECT_TRUE(commands.calls().empty());
}

TEST(ExtremeArguments, PlainFunctionsAreDefinedForEveryValue) {
    CommandStandIns commands;
    const std::vector<uint8_t> start_code = {0, 0, 0, 1, 0x65};
    vtx_config_t config{"wlan0", false, 0, {vtx_profile_t{100, 20}}};
    capture_output([&] {
        for (int value : kInts) {
            channel_to_frequency(value);
            frequency_to_channel(value);
            frequency_to_band(value);
            channel_to_band(value);
            get_next_channel(value, SCAN_DIRECTION_UP);
            get_next_channel(value, SCAN_DIRECTION_DOWN);
            EXPECT_NE(bw_for_frequency(value), nullptr);
            EXPECT_NE(nalu_byte_as_string(value), nullptr);
            for (int other : kInts) {
                get_max_bitrate(value, other, value);
                get_max_bitrate(value, other, 40);
                EXPECT_GE(get_header_size(start_code, value), 0);
                fec_debt_bytes = other;
                adjust_fec(value, other, &config, value, other, value);
                adjust_fec(other, value, &config, 5, 30, other);
            }
            config.active_profile_idx = value;
            adjust_fec(1000, 1000, &config, 1, 30, 1);
            config.active_profile_idx = 0;
            _calc_input_bitrate_mbps(value, {1, 2, 3}, {0, 1, 2});
            _calc_input_bitrate_mbps(value, {}, {});
            rtp_header_t header;
            uint16_t sequence = UINT16_MAX;
            set_rtp_header(&header, true, UINT32_MAX, &sequence, value);
            fu_header_t fu;
            set_fu_header(&fu, true, true, value);
            fu_header_h265_t fu265;
            set_h265_fu_header(&fu265, true, true, value);
            nalu_header_t nalu;
            set_nalu(&nalu, 0xFF, value);
        }
        for (double gain : kDoubles) {
            for (double loss : kDoubles) {
                double limit = 0;
                detector_limit_dbm(Band::b5_8, Region::fcc, gain, loss, &limit);
                detector_limit_dbm(static_cast<Band>(INT_MAX), Region::etsi, gain, loss, &limit);
            }
            CalibrationColumn column;
            max_legal_index(column, gain);
        }
    });
    fec_debt_bytes = 0;
}

}  // namespace
