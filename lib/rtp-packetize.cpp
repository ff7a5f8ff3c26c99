// RTP packets of H.264 (RFC 6184) and H.265 (RFC 7798) fragmentation units.
#include <cstdio>
#include <cstring>

#include <fmt/core.h>

#include "orca-vtx-helpers.h"

namespace {

constexpr size_t kRtpHeaderSize = sizeof(rtp_header_t);
constexpr uint8_t kH264FuIndicatorIdr = 0x7C;                 // FU-A (28) with NRI 3
constexpr uint8_t kH264FuIndicatorOther = 0x5C;               // FU-A (28) with NRI 2
constexpr uint8_t kH265FuPayloadHeader[2] = {49 << 1, 0x01};  // FU (49), temporal id 1

}  // namespace

void set_rtp_header(rtp_header_t* header, bool marker, uint32_t timestamp, uint16_t* sequence,
                    int payload_type) {
    header->version_flags = 0x80;
    header->marker_payload_type =
        static_cast<uint8_t>((marker ? 0x80 : 0x00) | (payload_type & 0x7F));
    header->sequence[0] = static_cast<uint8_t>(*sequence >> 8);
    header->sequence[1] = static_cast<uint8_t>(*sequence);
    header->timestamp[0] = static_cast<uint8_t>(timestamp >> 24);
    header->timestamp[1] = static_cast<uint8_t>(timestamp >> 16);
    header->timestamp[2] = static_cast<uint8_t>(timestamp >> 8);
    header->timestamp[3] = static_cast<uint8_t>(timestamp);
    header->ssrc[0] = 0xC0;
    header->ssrc[1] = 0xFF;
    header->ssrc[2] = 0xEE;
    header->ssrc[3] = 0xEE;
    *sequence = static_cast<uint16_t>(*sequence + 1);
}

void set_nalu(nalu_header_t* header, uint8_t type, int reference_type) {
    const uint8_t nri = reference_type == 5 ? 3 : 2;
    header->value = static_cast<uint8_t>((nri << 5) | (type & 0x1F));
}

void set_h265_nalu(nal_unit_header_h265_t* header, uint8_t type) {
    header->bytes[0] = static_cast<uint8_t>((type & 0x3F) << 1);
    header->bytes[1] = 0x01;
}

void set_fu_header(fu_header_t* header, bool start, bool end, int type) {
    header->value = static_cast<uint8_t>((start ? 0x80 : 0) | (end ? 0x40 : 0) | (type & 0x1F));
}

void set_h265_fu_header(fu_header_h265_t* header, bool start, bool end, int type) {
    header->value = static_cast<uint8_t>((start ? 0x80 : 0) | (end ? 0x40 : 0) | (type & 0x3F));
}

int create_rtp_packet_fragment(const uint8_t* nal_data, size_t payload_length, uint32_t timestamp,
                               // The service's declared signature takes the config by value.
                               // NOLINTNEXTLINE(performance-unnecessary-value-param)
                               bool first_fragment, vtx_config_t /*config*/, int bytes_left,
                               uint16_t* sequence, int nal_type,
                               std::shared_ptr<std::vector<uint8_t>>& out, venc_mode_t codec) {
    const bool h264 = codec == VENC_H264;
    // The first fragment starts at the start code; the NAL header after it is carried in
    // the FU headers instead.
    size_t skip = 0;
    if (first_fragment)
        skip = h264 ? 5 : (codec == VENC_H265 ? 6 : 0);
    const size_t header_size = kRtpHeaderSize + (h264 ? 2 : 3);
    const bool end = static_cast<int64_t>(skip + payload_length) >= bytes_left;

    // Headers are built apart and copied in: the packet buffer holds bytes, not structs.
    uint8_t headers[kRtpHeaderSize + 3];
    rtp_header_t rtp;
    set_rtp_header(&rtp, end, timestamp, sequence, RTP_PAYLOAD_TYPE_VIDEO);
    std::memcpy(headers, &rtp, sizeof rtp);
    if (h264) {
        fu_header_t fu;
        set_fu_header(&fu, first_fragment, end, nal_type);
        headers[kRtpHeaderSize] = nal_type == 5 ? kH264FuIndicatorIdr : kH264FuIndicatorOther;
        headers[kRtpHeaderSize + 1] = fu.value;
    } else {
        fu_header_h265_t fu;
        set_h265_fu_header(&fu, first_fragment, end, nal_type);
        headers[kRtpHeaderSize] = kH265FuPayloadHeader[0];
        headers[kRtpHeaderSize + 1] = kH265FuPayloadHeader[1];
        headers[kRtpHeaderSize + 2] = fu.value;
    }

    // One allocation of exactly the packet size, written once: headers, then the payload.
    std::vector<uint8_t> packet;
    packet.reserve(header_size + payload_length);
    packet.insert(packet.end(), headers, headers + header_size);
    packet.insert(packet.end(), nal_data + skip, nal_data + skip + payload_length);
    // An output that nobody else holds keeps its vector object and only takes the new
    // buffer; a shared one (still queued for sending) is left alone and replaced.
    if (out && out.use_count() == 1)
        out->swap(packet);
    else
        out = std::make_shared<std::vector<uint8_t>>(std::move(packet));
    return static_cast<int>(skip + payload_length);
}

int get_header_size(const std::vector<uint8_t>& data, int start_offset) {
    static constexpr uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};
    const size_t start = start_offset < 0 ? 0 : static_cast<size_t>(start_offset);
    if (data.size() < 4 || start > data.size() - 4)
        return 0;
    for (size_t i = start; i + 4 <= data.size(); ++i) {
        if (std::memcmp(&data[i], kStartCode, 4) == 0)
            return static_cast<int>(i);
    }
    return 0;
}

int get_nalu_type(uint8_t first_byte, venc_mode_t /*mode*/) {
    // The first bytes that the encoders produce; each is unambiguous between the codecs.
    switch (first_byte) {
        case 0x02:
            return 1;  // H.265 trailing picture
        case 0x26:
            return 19;  // H.265 IDR
        case 0x40:
            return 32;  // H.265 VPS
        case 0x41:
            return 1;  // H.264 non-IDR slice
        case 0x42:
            return 33;  // H.265 SPS
        case 0x44:
            return 34;  // H.265 PPS
        case 0x65:
            return 5;  // H.264 IDR slice
        case 0x67:
            return 7;  // H.264 SPS
        case 0x68:
            return 8;  // H.264 PPS
        default:
            fmt::print("UNKNOWN H264/H265 NALU Type: {}\n", first_byte);
            return 64;
    }
}

const char* nalu_byte_as_string(int byte) {
    switch (byte) {
        case 65:
        case 92:
            return "H264 (P)";
        case 101:
        case 124:
            return "H264 (I)";
        case 103:
            return "H264 (SPS)";
        case 104:
            return "H264 (PPS)";
        default:
            return "unknown";
    }
}
