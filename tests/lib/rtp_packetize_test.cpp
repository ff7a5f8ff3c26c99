#include <gtest/gtest.h>

#include "capture_output.h"
#include "orca-vtx-helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Packet = std::shared_ptr<std::vector<uint8_t>>;

Bytes slice(const Bytes& bytes, size_t from, size_t to) {
    return Bytes(bytes.begin() + from, bytes.begin() + to);
}

TEST(RtpHeaders, WireBytesAndSequenceWrap) {
    uint16_t sequence = 65535;
    rtp_header_t headers[3];
    set_rtp_header(&headers[0], true, 0x12345678, &sequence, 96);
    set_rtp_header(&headers[1], false, 0, &sequence, 0xFF);
    set_rtp_header(&headers[2], false, 0, &sequence, 96);
    const auto* wire = reinterpret_cast<const uint8_t*>(headers);
    EXPECT_EQ(Bytes(wire, wire + 12),
              (Bytes{0x80, 0xE0, 0xFF, 0xFF, 0x12, 0x34, 0x56, 0x78, 0xC0, 0xFF, 0xEE, 0xEE}));
    EXPECT_EQ(Bytes(wire + 12, wire + 16), (Bytes{0x80, 0x7F, 0x00, 0x00}));
    EXPECT_EQ(Bytes(wire + 24, wire + 28), (Bytes{0x80, 0x60, 0x00, 0x01}));
    EXPECT_EQ(sequence, 2);

    nalu_header_t nal;
    set_nalu(&nal, 5, 5);
    EXPECT_EQ(nal.value, 0x65);
    set_nalu(&nal, 0xFF, 0);
    EXPECT_EQ(nal.value, 0x5F);
    nal_unit_header_h265_t h265;
    set_h265_nalu(&h265, 0xD3);
    EXPECT_EQ(Bytes(h265.bytes, h265.bytes + 2), (Bytes{0x26, 0x01}));
}

// A NAL unit with its start code and NAL header(s), then counting bytes.
Bytes make_nal(size_t size, Bytes header) {
    Bytes nal{0, 0, 0, 1};
    nal.insert(nal.end(), header.begin(), header.end());
    for (size_t i = nal.size(); i < size; ++i)
        nal.push_back(static_cast<uint8_t>(i * 7));
    return nal;
}

// Cuts `nal` as the service's sender does, at most `mtu` payload bytes per fragment, and
// checks that the fragments carry the NAL unit's payload exactly.
std::vector<Bytes> fragment(const Bytes& nal, size_t mtu, int type, venc_mode_t codec,
                            uint16_t* sequence) {
    std::vector<Bytes> packets;
    Bytes payload;
    Packet out;
    const size_t headers = codec == VENC_H264 ? 14 : 15;
    const size_t header_skip = codec == VENC_H264 ? 5 : 6;
    for (size_t offset = 0; offset < nal.size();) {
        const size_t skip = offset == 0 ? header_skip : 0;
        const size_t length = std::min(mtu, nal.size() - offset - skip);
        offset += create_rtp_packet_fragment(nal.data() + offset, length, 9000, offset == 0,
                                             vtx_config_t{}, static_cast<int>(nal.size() - offset),
                                             sequence, type, out, codec);
        EXPECT_EQ(out->size(), headers + length);
        packets.push_back(*out);
        payload.insert(payload.end(), out->begin() + headers, out->end());
    }
    EXPECT_EQ(payload, slice(nal, header_skip, nal.size()));
    return packets;
}

TEST(RtpFragments, H264IdrInOneFragment) {
    const Bytes nal = make_nal(1005, {0x65});
    Packet out;
    uint16_t sequence = 7;
    EXPECT_EQ(create_rtp_packet_fragment(nal.data(), 1000, 1, true, vtx_config_t{}, 1005, &sequence,
                                         5, out, VENC_H264),
              1005);
    ASSERT_EQ(out->size(), 1014u);
    EXPECT_EQ(slice(*out, 0, 4), (Bytes{0x80, 0xE0, 0x00, 0x07}));
    EXPECT_EQ(slice(*out, 12, 14), (Bytes{0x7C, 0xC5}));
}

TEST(RtpFragments, FirstMiddleAndLastFragmentsOfBothCodecs) {
    uint16_t sequence = 65535;
    const std::vector<Bytes> h264 = fragment(make_nal(1000, {0x41}), 400, 1, VENC_H264, &sequence);
    ASSERT_EQ(h264.size(), 3u);
    const Bytes fu264[3] = {{0x5C, 0x81}, {0x5C, 0x01}, {0x5C, 0x41}};
    const Bytes start264[3] = {{0x80, 0x60, 0xFF, 0xFF, 0, 0, 0x23, 0x28},
                               {0x80, 0x60, 0x00, 0x00, 0, 0, 0x23, 0x28},
                               {0x80, 0xE0, 0x00, 0x01, 0, 0, 0x23, 0x28}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(slice(h264[i], 0, 8), start264[i]) << i;
        EXPECT_EQ(slice(h264[i], 12, 14), fu264[i]) << i;
    }

    const std::vector<Bytes> h265 =
        fragment(make_nal(2500, {0x26, 0x01}), 1000, 19, VENC_H265, &sequence);
    ASSERT_EQ(h265.size(), 3u);
    const uint8_t fu265[3] = {0x93, 0x13, 0x53};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(slice(h265[i], 12, 15), (Bytes{0x62, 0x01, fu265[i]})) << i;
        EXPECT_EQ(h265[i][1], i == 2 ? 0xE0 : 0x60) << i;
    }
    EXPECT_EQ(sequence, 5);
}

TEST(RtpFragments, AQueuedFragmentIsNeverOverwritten) {
    const Bytes nal = make_nal(100, {0x41});
    uint16_t sequence = 0;
    Packet out;
    create_rtp_packet_fragment(nal.data(), 20, 0, true, vtx_config_t{}, 100, &sequence, 1, out,
                               VENC_H264);
    const Packet queued = out;
    const Bytes sent = *queued;
    create_rtp_packet_fragment(nal.data() + 25, 30, 0, false, vtx_config_t{}, 75, &sequence, 1, out,
                               VENC_H264);
    EXPECT_EQ(*queued, sent);
    EXPECT_EQ(out->size(), 44u);
    EXPECT_EQ(slice(*out, 14, 44), slice(nal, 25, 55));
}

TEST(NalUnits, StartCodesAndTypes) {
    const Bytes one{0x00, 0x00, 0x00, 0x01, 0x67};
    EXPECT_EQ(get_header_size(one, 0), 0);
    EXPECT_EQ(get_header_size(one, 1), 0);
    EXPECT_EQ(get_header_size(one, 99), 0);
    const Bytes two{0x67, 0x00, 0x00, 0x00, 0x01, 0x68, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(get_header_size(two, 0), 1);
    EXPECT_EQ(get_header_size(two, 2), 6);
    EXPECT_EQ(get_header_size(two, 7), 0);

    const std::pair<uint8_t, int> known[] = {{0x02, 1}, {0x26, 19}, {0x40, 32},
                                             {0x41, 1}, {0x42, 33}, {0x44, 34},
                                             {0x65, 5}, {0x67, 7},  {0x68, 8}};
    for (const auto& [byte, type] : known)
        EXPECT_EQ(get_nalu_type(byte, VENC_H264), type) << int{byte};
    Printed printed = capture_output([] { EXPECT_EQ(get_nalu_type(0x06, VENC_H265), 64); });
    EXPECT_EQ(printed.out, "UNKNOWN H264/H265 NALU Type: 6\n");
    EXPECT_STREQ(nalu_byte_as_string(92), "H264 (P)");
    EXPECT_STREQ(nalu_byte_as_string(124), "H264 (I)");
}

}  // namespace
