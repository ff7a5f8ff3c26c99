// Shared radio helpers of the transmitter service: channel plan, radio and system
// commands, NAL helpers and the pipe record validators.
#pragma once

#include <cstdint>

constexpr uint32_t ORCA_MAGIC_NUMBER = 0x4F524341;
