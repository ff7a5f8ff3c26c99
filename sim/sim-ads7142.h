// TI ADS7142, two-channel 12-bit SAR ADC with a 16-entry data buffer (datasheet SBAS773),
// as far as this board uses it. Opcodes: 0x08 single register write, 0x10 single register
// read, 0x3B data buffer read. Writing 1 to START_SEQUENCE (0x1E) runs one auto-sequence
// that fills the buffer from the channels AUTO_SEQ_CHEN enables.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>

#include "i2c-target.h"

namespace board_sim {

class SimAds7142 : public I2cTarget {
  public:
    static constexpr uint8_t kOpRegisterWrite = 0x08;
    static constexpr uint8_t kOpRegisterRead = 0x10;
    static constexpr uint8_t kOpBufferRead = 0x3B;

    static constexpr uint8_t kRegWkey = 0x17;
    static constexpr uint8_t kRegDeviceReset = 0x14;
    static constexpr uint8_t kRegOpmodeSel = 0x1C;
    static constexpr uint8_t kRegStartSequence = 0x1E;
    static constexpr uint8_t kRegAutoSeqChen = 0x20;
    static constexpr uint8_t kRegChannelInputCfg = 0x24;
    static constexpr uint8_t kRegDoutFormatCfg = 0x28;
    static constexpr uint8_t kWkeyUnlock = 0x0A;

    using Buffer = std::array<uint16_t, 16>;

    // `sample_mv` gives the voltage at channel 0 or 1 for one conversion.
    explicit SimAds7142(std::function<double(int channel)> sample_mv);

    bool write(const uint8_t* data, size_t length) override;
    bool read(uint8_t* data, size_t length) override;
    int register_of_write(const uint8_t* data, size_t length) const override;
    int register_of_read() const override;

    // Buffers to hand out, one per sequence, before the channels are sampled again.
    void queue_buffer(const Buffer& buffer) { queued_.push_back(buffer); }
    void clear_queue() { queued_.clear(); }
    uint8_t register_value(uint8_t reg) const { return registers_[reg]; }
    int sequences() const { return sequences_; }

  private:
    enum class ReadSource { kNone, kRegister, kBuffer };

    void reset();
    void write_register(uint8_t reg, uint8_t value);
    void run_sequence();

    std::function<double(int)> sample_mv_;
    std::array<uint8_t, 256> registers_{};
    Buffer buffer_{};  // what the device holds: zero from power-on until a sequence runs
    std::deque<Buffer> queued_;
    ReadSource read_source_ = ReadSource::kNone;
    uint8_t read_register_ = 0;
    int sequences_ = 0;
};

}  // namespace board_sim
