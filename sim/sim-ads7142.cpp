#include "sim-ads7142.h"

#include <cmath>

namespace board_sim {

namespace {

constexpr double kFullScaleMv = 1800.0;

uint16_t code_for_mv(double mv) {
    long code = std::lround(mv * 4096.0 / kFullScaleMv);
    if (code < 0)
        code = 0;
    if (code > 4095)
        code = 4095;
    return static_cast<uint16_t>(code);
}

}  // namespace

SimAds7142::SimAds7142(std::function<double(int channel)> sample_mv)
    : sample_mv_(std::move(sample_mv)) {
    reset();
}

void SimAds7142::reset() {
    registers_.fill(0);
    buffer_.fill(0);
    read_source_ = ReadSource::kNone;
}

bool SimAds7142::write(const uint8_t* data, size_t length) {
    if (length == 0)
        return true;  // address phase only: the device acknowledges
    if (length == 1 && data[0] == 0x00)
        return true;  // the presence check's lone zero byte: acknowledged, nothing changes
    if (data[0] == kOpRegisterWrite && length == 3) {
        write_register(data[1], data[2]);
        read_source_ = ReadSource::kNone;
    } else if (data[0] == kOpRegisterRead && length == 2) {
        read_source_ = ReadSource::kRegister;
        read_register_ = data[1];
    } else if (data[0] == kOpBufferRead && length == 1) {
        read_source_ = ReadSource::kBuffer;
    } else {
        // The device acknowledges every byte and ignores frames it does not decode; the
        // simulation reports them, since the tool never means to send one.
        unexpected();
        read_source_ = ReadSource::kNone;
    }
    return true;
}

bool SimAds7142::read(uint8_t* data, size_t length) {
    if (read_source_ == ReadSource::kNone && length > 0)
        unexpected();  // no read command came first: these zeros mean nothing
    for (size_t i = 0; i < length; ++i) {
        switch (read_source_) {
            case ReadSource::kRegister:
                data[i] = registers_[read_register_];
                break;
            case ReadSource::kBuffer: {
                const uint16_t entry = buffer_[(i / 2) % buffer_.size()];
                data[i] = (i % 2 == 0) ? static_cast<uint8_t>(entry >> 8)
                                       : static_cast<uint8_t>(entry & 0xFF);
                break;
            }
            case ReadSource::kNone:
                data[i] = 0x00;
                break;
        }
    }
    return true;
}

int SimAds7142::register_of_write(const uint8_t* data, size_t length) const {
    if (length >= 2 && (data[0] == kOpRegisterWrite || data[0] == kOpRegisterRead))
        return data[1];
    return -1;
}

int SimAds7142::register_of_read() const {
    return read_source_ == ReadSource::kRegister ? read_register_ : -1;
}

void SimAds7142::write_register(uint8_t reg, uint8_t value) {
    if (reg == kRegDeviceReset) {
        // The reset register only acts while WKEY holds the unlock code.
        if ((value & 0x01) != 0 && registers_[kRegWkey] == kWkeyUnlock)
            reset();
        return;
    }
    if (reg == kRegStartSequence) {
        if ((value & 0x01) != 0)
            run_sequence();
        return;
    }
    registers_[reg] = value;
}

void SimAds7142::run_sequence() {
    ++sequences_;
    if (!queued_.empty()) {
        buffer_ = queued_.front();
        queued_.pop_front();
        return;
    }
    // Two single-ended inputs sequence 0, 1, 0, 1, ...; in pseudo-differential mode only
    // channel 0 converts.
    int channels[2];
    int channel_count = 0;
    const uint8_t enabled = registers_[kRegAutoSeqChen];
    const bool single_ended = registers_[kRegChannelInputCfg] == 0;
    if (enabled & 0x01)
        channels[channel_count++] = 0;
    if ((enabled & 0x02) && single_ended)
        channels[channel_count++] = 1;
    if (channel_count == 0)
        return;  // nothing enabled: the buffer keeps what it holds
    // A non-zero output format appends the channel id (with a valid flag) in the low nibble.
    const bool tagged = registers_[kRegDoutFormatCfg] != 0;
    for (size_t i = 0; i < buffer_.size(); ++i) {
        const int channel = channels[i % channel_count];
        const uint16_t code = code_for_mv(sample_mv_(channel));
        buffer_[i] = static_cast<uint16_t>(code << 4) |
                     (tagged ? static_cast<uint16_t>(0x8 | channel) : uint16_t{0});
    }
}

}  // namespace board_sim
