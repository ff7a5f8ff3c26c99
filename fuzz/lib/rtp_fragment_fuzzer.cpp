// Cuts arbitrary NAL units into fragments of arbitrary sizes the way the service's sender
// does, and checks that the fragments walk the unit exactly to its end, carry every
// payload byte once, number themselves in order and mark only the last one as the end.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include <orca-vtx/orca-vtx-helpers.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    // Three bytes of set-up: the payload size per fragment, the codec and the NAL type.
    const size_t mtu = 1 + (((data[0] << 8) | data[1]) % 2000);
    const auto codec = static_cast<venc_mode_t>(data[2] % 3);
    const uint8_t* nal = data + 3;
    const size_t nal_size = size - 3, first_skip = codec == 0 ? 5 : (codec == 1 ? 6 : 0);
    const size_t headers = codec == VENC_H264 ? 14 : 15;
    if (nal_size <= first_skip)
        return 0;

    std::shared_ptr<std::vector<uint8_t>> out;
    std::vector<uint8_t> carried;
    uint16_t sequence = static_cast<uint16_t>(nal_size * 31);
    for (size_t offset = 0; offset < nal_size;) {
        const bool first = offset == 0;
        const size_t length = std::min(mtu, nal_size - offset - (first ? first_skip : 0));
        const uint16_t expected_sequence = sequence;
        const size_t used = create_rtp_packet_fragment(
            nal + offset, length, 90000, first, vtx_config_t{}, static_cast<int>(nal_size - offset),
            &sequence, data[2] >> 2, out, codec);
        const std::vector<uint8_t>& packet = *out;
        const bool last = offset + used >= nal_size;
        const uint8_t fu = packet[headers - 1];
        if (used != (first ? first_skip : 0) + length || packet.size() != headers + length ||
            ((packet[1] & 0x80) != 0) != last || ((fu & 0x40) != 0) != last ||
            ((fu & 0x80) != 0) != first || ((packet[2] << 8) | packet[3]) != expected_sequence)
            __builtin_trap();
        carried.insert(carried.end(), packet.begin() + headers, packet.end());
        offset += used;
    }
    if (!std::equal(carried.begin(), carried.end(), nal + first_skip, nal + nal_size))
        __builtin_trap();
    return 0;
}
