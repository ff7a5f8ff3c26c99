#include <numeric>

#include <gtest/gtest.h>

#include "capture_output.h"
#include <orca-vtx/orca-vtx-helpers.h>

using orca_test::capture_output;
using orca_test::Printed;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes slice(const uint8_t* bytes, size_t from, size_t to) {
    return Bytes(bytes + from, bytes + to);
}

TEST(RtpFragments, FirstMiddleAndLastFragmentsOfBothCodecs) {
    // The NAL unit's own bytes are copied but never interpreted.
    Bytes nal(2500);
    std::iota(nal.begin(), nal.end(), uint8_t{0});
    struct Case {
        venc_mode_t codec;
        int type, first, left, length, used;
        Bytes head, fu;  // RTP bytes 0-3 (flags, marker and type, sequence); FU headers
    };
    const Case cases[] = {
        {VENC_H264, 5, true, 1005, 1000, 1005, {0x80, 0xE0, 0xFF, 0xFF}, {0x7C, 0xC5}},
        {VENC_H264, 1, true, 1000, 400, 405, {0x80, 0x60, 0x00, 0x00}, {0x5C, 0x81}},
        {VENC_H264, 1, false, 595, 400, 400, {0x80, 0x60, 0x00, 0x01}, {0x5C, 0x01}},
        {VENC_H264, 1, false, 195, 195, 195, {0x80, 0xE0, 0x00, 0x02}, {0x5C, 0x41}},
        {VENC_H265, 19, true, 2500, 1000, 1006, {0x80, 0x60, 0x00, 0x03}, {0x62, 0x01, 0x93}},
        {VENC_H265, 1, false, 1494, 1000, 1000, {0x80, 0x60, 0x00, 0x04}, {0x62, 0x01, 0x01}},
        {VENC_H265, 19, false, 494, 494, 494, {0x80, 0xE0, 0x00, 0x05}, {0x62, 0x01, 0x53}},
    };
    uint16_t sequence = 65535;
    std::shared_ptr<std::vector<uint8_t>> out;
    std::vector<std::pair<std::shared_ptr<std::vector<uint8_t>>, Bytes>> queued;
    size_t offset = 0;
    for (const Case& c : cases) {
        offset = c.first ? 0 : offset;
        EXPECT_EQ(
            create_rtp_packet_fragment(nal.data() + offset, c.length, 0x9000, c.first,
                                       vtx_config_t{}, c.left, &sequence, c.type, out, c.codec),
            c.used);
        const size_t skip = c.used - c.length, headers = 12 + c.fu.size();
        ASSERT_EQ(out->size(), headers + c.length);
        EXPECT_EQ(slice(out->data(), 0, 4), c.head);
        EXPECT_EQ(slice(out->data(), 4, 12), (Bytes{0, 0, 0x90, 0, 0xC0, 0xFF, 0xEE, 0xEE}));
        EXPECT_EQ(slice(out->data(), 12, headers), c.fu);
        EXPECT_EQ(slice(out->data(), headers, out->size()),
                  slice(nal.data(), offset + skip, offset + c.used));
        queued.emplace_back(out, *out);
        offset += c.used;
    }
    // Fragments still queued for sending are never written over by later ones.
    for (const auto& [packet, bytes] : queued)
        EXPECT_EQ(*packet, bytes);
}

TEST(NalUnits, HeadersStartCodesAndTypes) {
    nalu_header_t nal;
    set_nalu(&nal, 5, 5);
    EXPECT_EQ(nal.value, 0x65);
    set_nalu(&nal, 0xFF, 0);
    EXPECT_EQ(nal.value, 0x5F);
    nal_unit_header_h265_t h265;
    set_h265_nalu(&h265, 0xD3);
    EXPECT_EQ(slice(h265.bytes, 0, 2), (Bytes{0x26, 0x01}));

    const Bytes one{0x00, 0x00, 0x00, 0x01, 0x67};
    EXPECT_EQ(get_header_size(one, 1), 0);
    EXPECT_EQ(get_header_size(one, 99), 0);
    const Bytes two{0x67, 0x00, 0x00, 0x00, 0x01, 0x68, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(get_header_size(two, 0), 1);
    EXPECT_EQ(get_header_size(two, 2), 6);

    const int types[][2] = {{0x02, 1},  {0x26, 19}, {0x40, 32}, {0x41, 1}, {0x42, 33},
                            {0x44, 34}, {0x65, 5},  {0x67, 7},  {0x68, 8}};
    for (const auto& [byte, type] : types)
        EXPECT_EQ(get_nalu_type(byte, VENC_H264), type) << byte;
    Printed printed = capture_output([] { EXPECT_EQ(get_nalu_type(0x06, VENC_H265), 64); });
    EXPECT_EQ(printed.out, "UNKNOWN H264/H265 NALU Type: 6\n");
}

}  // namespace
