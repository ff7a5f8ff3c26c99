#include <gtest/gtest.h>

#include <cstring>

#include "capture_output.h"
#include "orca-vtx-helpers.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(const void* data, size_t size) {
    const auto* p = static_cast<const uint8_t*>(data);
    return Bytes(p, p + size);
}

TEST(RtpHeaders, WireBytesAndSequenceWrap) {
    uint16_t sequence = 65535;
    rtp_header_t headers[3];
    set_rtp_header(&headers[0], true, 0x12345678, &sequence, 96);
    set_rtp_header(&headers[1], false, 0, &sequence, 0xFF);
    set_rtp_header(&headers[2], false, 0, &sequence, 96);
    EXPECT_EQ(bytes_of(&headers[0], 12),
              (Bytes{0x80, 0xE0, 0xFF, 0xFF, 0x12, 0x34, 0x56, 0x78, 0xC0, 0xFF, 0xEE, 0xEE}));
    EXPECT_EQ(bytes_of(&headers[1], 4), (Bytes{0x80, 0x7F, 0x00, 0x00}));
    EXPECT_EQ(bytes_of(&headers[2], 4), (Bytes{0x80, 0x60, 0x00, 0x01}));
    EXPECT_EQ(sequence, 2);
}

TEST(RtpHeaders, NalAndFuHeaders) {
    nalu_header_t nal;
    set_nalu(&nal, 5, 5);
    EXPECT_EQ(nal.value, 0x65);
    set_nalu(&nal, 1, 1);
    EXPECT_EQ(nal.value, 0x41);
    set_nalu(&nal, 0xFF, 0);
    EXPECT_EQ(nal.value, 0x5F);
    nal_unit_header_h265_t h265;
    set_h265_nalu(&h265, 19);
    EXPECT_EQ(bytes_of(&h265, 2), (Bytes{0x26, 0x01}));
    set_h265_nalu(&h265, 0xFF);
    EXPECT_EQ(bytes_of(&h265, 2), (Bytes{0x7E, 0x01}));
    fu_header_t fu;
    set_fu_header(&fu, true, false, 5);
    EXPECT_EQ(fu.value, 0x85);
    set_fu_header(&fu, false, true, 60);
    EXPECT_EQ(fu.value, 0x5C);
    fu_header_h265_t fu265;
    set_h265_fu_header(&fu265, true, true, 19);
    EXPECT_EQ(fu265.value, 0xD3);
    set_h265_fu_header(&fu265, false, false, 0x7F);
    EXPECT_EQ(fu265.value, 0x3F);
}

// A NAL unit with its start code: 00 00 00 01, the NAL header(s), then counting bytes.
Bytes make_nal(size_t size, Bytes header) {
    Bytes nal{0, 0, 0, 1};
    nal.insert(nal.end(), header.begin(), header.end());
    for (size_t i = nal.size(); i < size; ++i)
        nal.push_back(static_cast<uint8_t>(i * 7));
    return nal;
}

struct Walk {
    std::vector<Bytes> packets;
    Bytes payload;  // the payloads joined
};

// Cuts `nal` the way the service's sender does: at most `mtu` payload bytes per fragment.
Walk fragment(const Bytes& nal, size_t mtu, int type, venc_mode_t codec, uint16_t* sequence) {
    Walk walk;
    std::shared_ptr<std::vector<uint8_t>> out;
    const size_t headers = codec == VENC_H264 ? 14 : 15;
    size_t offset = 0;
    while (offset < nal.size()) {
        const bool first = offset == 0;
        const size_t skip = first ? (codec == VENC_H264 ? 5 : 6) : 0;
        const int left = static_cast<int>(nal.size() - offset);
        const size_t payload = std::min(mtu, nal.size() - offset - skip);
        const int used =
            create_rtp_packet_fragment(nal.data() + offset, payload, 9000, first, vtx_config_t{},
                                       left, sequence, type, out, codec);
        EXPECT_EQ(used, static_cast<int>(skip + payload));
        EXPECT_EQ(out->size(), headers + payload);
        walk.packets.push_back(*out);
        walk.payload.insert(walk.payload.end(), out->begin() + headers, out->end());
        offset += used;
    }
    EXPECT_EQ(offset, nal.size());
    return walk;
}

TEST(RtpFragments, H264IdrInOneFragment) {
    const Bytes nal = make_nal(1005, {0x65});
    std::shared_ptr<std::vector<uint8_t>> out;
    uint16_t sequence = 7;
    EXPECT_EQ(create_rtp_packet_fragment(nal.data(), 1000, 1, true, vtx_config_t{}, 1005, &sequence,
                                         5, out, VENC_H264),
              1005);
    ASSERT_EQ(out->size(), 1014u);
    EXPECT_EQ(Bytes(out->begin(), out->begin() + 4), (Bytes{0x80, 0xE0, 0x00, 0x07}));
    EXPECT_EQ((*out)[12], 0x7C);
    EXPECT_EQ((*out)[13], 0xC5);
    EXPECT_EQ(Bytes(out->begin() + 14, out->end()), Bytes(nal.begin() + 5, nal.end()));
    EXPECT_EQ(sequence, 8);
}

TEST(RtpFragments, H264FirstMiddleLast) {
    const Bytes nal = make_nal(1000, {0x41});
    uint16_t sequence = 65535;
    const Walk walk = fragment(nal, 400, 1, VENC_H264, &sequence);
    ASSERT_EQ(walk.packets.size(), 3u);
    const uint8_t fu[3] = {0x81, 0x01, 0x41};
    const uint8_t marker[3] = {0x60, 0x60, 0xE0};
    const uint16_t expected_sequence[3] = {65535, 0, 1};
    for (size_t i = 0; i < 3; ++i) {
        const Bytes& p = walk.packets[i];
        EXPECT_EQ(p[1], marker[i]) << i;
        EXPECT_EQ((p[2] << 8) | p[3], expected_sequence[i]) << i;
        EXPECT_EQ(Bytes(p.begin() + 4, p.begin() + 8), (Bytes{0, 0, 0x23, 0x28}));
        EXPECT_EQ(p[12], 0x5C) << i;
        EXPECT_EQ(p[13], fu[i]) << i;
    }
    EXPECT_EQ(walk.payload, Bytes(nal.begin() + 5, nal.end()));
}

TEST(RtpFragments, H265FirstMiddleLast) {
    const Bytes nal = make_nal(2500, {0x26, 0x01});
    uint16_t sequence = 0;
    const Walk walk = fragment(nal, 1000, 19, VENC_H265, &sequence);
    ASSERT_EQ(walk.packets.size(), 3u);
    const uint8_t fu[3] = {0x93, 0x13, 0x53};
    for (size_t i = 0; i < 3; ++i) {
        const Bytes& p = walk.packets[i];
        EXPECT_EQ(Bytes(p.begin() + 12, p.begin() + 15), (Bytes{0x62, 0x01, fu[i]})) << i;
        EXPECT_EQ(p[1] & 0x80, i == 2 ? 0x80 : 0) << i;
    }
    EXPECT_EQ(walk.payload, Bytes(nal.begin() + 6, nal.end()));

    // A middle fragment of a trailing picture.
    std::shared_ptr<std::vector<uint8_t>> out;
    create_rtp_packet_fragment(nal.data(), 10, 0, false, vtx_config_t{}, 100, &sequence, 1, out,
                               VENC_H265);
    EXPECT_EQ(Bytes(out->begin() + 12, out->begin() + 15), (Bytes{0x62, 0x01, 0x01}));
}

TEST(RtpFragments, OnlyCodecValueOneSkipsTheH265Header) {
    const Bytes nal = make_nal(64, {0x02, 0x01});
    std::shared_ptr<std::vector<uint8_t>> out;
    uint16_t sequence = 0;
    EXPECT_EQ(create_rtp_packet_fragment(nal.data(), 8, 0, true, vtx_config_t{}, 64, &sequence, 1,
                                         out, static_cast<venc_mode_t>(2)),
              8);
    EXPECT_EQ(Bytes(out->begin() + 15, out->end()), Bytes(nal.begin(), nal.begin() + 8));
    EXPECT_EQ(create_rtp_packet_fragment(nal.data(), 0, 0, false, vtx_config_t{}, 0, &sequence, 1,
                                         out, VENC_H265),
              0);
    EXPECT_EQ(out->size(), 15u);
    EXPECT_EQ((*out)[14], 0x41);  // nothing left: the end fragment
}

TEST(RtpFragments, AQueuedFragmentIsNeverOverwritten) {
    const Bytes nal = make_nal(100, {0x41});
    uint16_t sequence = 0;
    std::shared_ptr<std::vector<uint8_t>> out;
    create_rtp_packet_fragment(nal.data(), 20, 0, true, vtx_config_t{}, 100, &sequence, 1, out,
                               VENC_H264);
    const std::shared_ptr<std::vector<uint8_t>> queued = out;
    const Bytes sent = *queued;
    create_rtp_packet_fragment(nal.data() + 25, 30, 0, false, vtx_config_t{}, 75, &sequence, 1, out,
                               VENC_H264);
    EXPECT_EQ(*queued, sent);
    EXPECT_NE(out, queued);
    EXPECT_EQ(out->size(), 44u);
    EXPECT_EQ(out->capacity(), 44u);
    EXPECT_EQ(Bytes(out->begin() + 14, out->end()), Bytes(nal.begin() + 25, nal.begin() + 55));
}

TEST(StartCodes, FindsTheFirstStartCodeAtOrAfterTheOffset) {
    const Bytes one{0x00, 0x00, 0x00, 0x01, 0x67};
    EXPECT_EQ(get_header_size(one, 0), 0);
    EXPECT_EQ(get_header_size(one, 1), 0);
    EXPECT_EQ(get_header_size(one, 99), 0);
    const Bytes two{0x67, 0x00, 0x00, 0x00, 0x01, 0x68, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(get_header_size(two, 0), 1);
    EXPECT_EQ(get_header_size(two, 2), 6);
    EXPECT_EQ(get_header_size(two, 7), 0);
    EXPECT_EQ(get_header_size({0x00, 0x00, 0x01}, 0), 0);
}

TEST(NalTypes, ClassifiesTheFirstByte) {
    const std::pair<uint8_t, int> known[] = {{0x02, 1}, {0x26, 19}, {0x40, 32},
                                             {0x41, 1}, {0x42, 33}, {0x44, 34},
                                             {0x65, 5}, {0x67, 7},  {0x68, 8}};
    for (const auto& [byte, type] : known)
        EXPECT_EQ(get_nalu_type(byte, VENC_H264), type) << int{byte};
    Printed printed = capture_output([] { EXPECT_EQ(get_nalu_type(0x06, VENC_H265), 64); });
    EXPECT_EQ(printed.out, "UNKNOWN H264/H265 NALU Type: 6\n");
    EXPECT_STREQ(nalu_byte_as_string(92), "H264 (P)");
    EXPECT_STREQ(nalu_byte_as_string(124), "H264 (I)");
    EXPECT_STREQ(nalu_byte_as_string(103), "H264 (SPS)");
    EXPECT_STREQ(nalu_byte_as_string(104), "H264 (PPS)");
}

}  // namespace
