// Control page: conversion of the old layout and the 512-byte disk image.
#include "fcp.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

constexpr int kJd = IS_FCP_JDSIZE;

template <class T>
void put(char* disk, int off, T v) { std::memcpy(disk + off, &v, sizeof v); }
template <class T>
T get(const char* disk, int off) { T v; std::memcpy(&v, disk + off, sizeof v); return v; }

IS_KEY key_n(int i) {
    IS_KEY k;
    k.k_root = 0x1000u * static_cast<PAGE>(i + 1) + 7;
    k.k_order = static_cast<int16_t>(100 - i);
    k.k_keylen = static_cast<int16_t>(i + 3);
    k.k_offset = static_cast<int16_t>(i + 4);
    k.k_itemlen = static_cast<int16_t>(2 * i + 10);
    k.k_ncomp = static_cast<int16_t>(i + 5);
    k.k_obsolete = 0;
    return k;
}

// An old-layout page of nkeys keys in a scratch copy (identity area + 512 bytes).  The
// scratch lies at an odd address on purpose: pages arrive in read buffers of any alignment.
struct OldPage {
    std::vector<char> store = std::vector<char>(kJd + kisam::kFcpImage + 1, 0);
    char* scratch = store.data() + 1;
    char* disk = scratch + kJd;
    unsigned char hints[40];

    explicit OldPage(int nkeys, uint16_t magic = ISMAGIC_OLD512) {
        std::memset(scratch, 0x5A, kJd);  // identity area: must survive untouched
        put<uint16_t>(disk, 0, magic);
        put<int16_t>(disk, 2, static_cast<int16_t>(nkeys));
        put<int16_t>(disk, 4, 21);
        put<int16_t>(disk, 6, 0x0003);   // is_nextfree: hi half 3 ...
        put<int16_t>(disk, 8, 0x0001);   // ... lo half 1 -> 0x00010003
        put<uint32_t>(disk, 10, 0x00020400);
        put<int8_t>(disk, 14, 0x12);
        put<int8_t>(disk, 15, -1);
        put<uint16_t>(disk, 16, 0xBEEF);  // dropped fields
        put<uint32_t>(disk, 18, 0xDEADBEEF);
        put<int16_t>(disk, 28, 3);
        put<uint32_t>(disk, 30, 0xCAFEF00D);
        for (int i = 0; i < nkeys; ++i) {
            IS_KEY k = key_n(i);
            std::memcpy(disk + 34 + 16 * i, &k, sizeof k);
        }
        for (int i = 0; i < 40; ++i) hints[i] = static_cast<unsigned char>(0xA0 + i);
        std::memcpy(disk + 34 + 16 * nkeys, hints, sizeof hints);
    }
};

void expect_converted(const OldPage& p, int nkeys, uint16_t magic) {
    const char* d = p.disk;
    EXPECT_EQ(get<uint16_t>(d, 0), magic);
    EXPECT_EQ(get<int16_t>(d, 2), nkeys);
    EXPECT_EQ(get<uint32_t>(d, 4), 0x00010003u);
    EXPECT_EQ(get<uint32_t>(d, 8), 0x00020400u);
    EXPECT_EQ(get<uint32_t>(d, 12), 0u);
    EXPECT_EQ(std::memcmp(d + 16, p.hints, 40), 0);
    for (int i = 56; i < 80; ++i) EXPECT_EQ(d[i], 0) << "cdp byte " << i;
    EXPECT_EQ(get<int32_t>(d, 80), 0);
    EXPECT_EQ(get<int16_t>(d, 84), -1);
    EXPECT_EQ(get<int16_t>(d, 86), 21);
    EXPECT_EQ(get<uint8_t>(d, 88), 0x12);
    EXPECT_EQ(get<int16_t>(d, 96), 3);
    for (int i = 0; i < nkeys; ++i) {
        IS_KEY want = key_n(i), got;
        std::memcpy(&got, d + 100 + 16 * i, sizeof got);
        EXPECT_EQ(std::memcmp(&want, &got, sizeof got), 0) << "key " << i;
    }
    for (int i = 0; i < kJd; ++i) EXPECT_EQ(static_cast<unsigned char>(p.scratch[i]), 0x5A);
}

}  // namespace

// Six keys and more make the key table move over itself.
TEST(FcpConvert, EveryKeyCountAndBothMagics) {
    for (uint16_t magic : {ISMAGIC_OLD512, ISMAGIC_OLD1024})
        for (int n = 0; n <= KISAM_MAXKEYS; ++n) {
            OldPage p(n, magic);
            kisam::fcp_convert_old(p.scratch);
            SCOPED_TRACE(n);
            expect_converted(p, n, magic == ISMAGIC_OLD512 ? ISMAGIC_512 : ISMAGIC_1024);
        }
}

TEST(FcpImage, WritesHeaderKeysThenZerosAndClearsTheChangeBit) {
    for (int n : {1, 6, KISAM_MAXKEYS}) {
        std::vector<char> mem(IS_FCP_SIZE(n), 0);
        IS_FCP* f = reinterpret_cast<IS_FCP*>(mem.data());
        for (size_t i = 0; i < mem.size(); ++i) mem[i] = static_cast<char>(i * 7 + 1);
        f->is_nkeys = static_cast<int16_t>(n);
        f->is_optbits = ISO_CHANGED | ISO_DIRTYMARK | ISO_KEYOPT;
        unsigned char img[kisam::kFcpImage];
        std::memset(img, 0xEE, sizeof img);
        kisam::fcp_image(f, img);
        EXPECT_EQ(f->is_optbits, ISO_DIRTYMARK | ISO_KEYOPT);
        const size_t used = 104 + 16 * static_cast<size_t>(n);
        EXPECT_EQ(std::memcmp(img, mem.data() + kJd, used), 0) << n;
        for (size_t i = used; i < sizeof img; ++i) ASSERT_EQ(img[i], 0) << n << " byte " << i;
    }
}

TEST(FcpImage, ConvertedPageWritesTheNewLayout) {
    OldPage p(6);
    kisam::fcp_convert_old(p.scratch);
    std::vector<char> mem(IS_FCP_SIZE(6));
    std::memcpy(mem.data(), p.scratch, mem.size());
    unsigned char img[kisam::kFcpImage];
    kisam::fcp_image(reinterpret_cast<IS_FCP*>(mem.data()), img);
    EXPECT_EQ(std::memcmp(img, p.disk, 100 + 16 * 6), 0);
    EXPECT_EQ(get<uint16_t>(reinterpret_cast<char*>(img), 0), ISMAGIC_512);
}
