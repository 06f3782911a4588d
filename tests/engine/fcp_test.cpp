// Control page: conversion of the old layout, whose key table moves over itself from
// six keys on.
#include "fcp.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

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

}  // namespace

TEST(FcpConvert, EveryKeyCountAndBothMagics) {
    constexpr int kJd = IS_FCP_JDSIZE;
    for (uint16_t magic : {ISMAGIC_OLD512, ISMAGIC_OLD1024})
        for (int n = 0; n <= KISAM_MAXKEYS; ++n) {
            SCOPED_TRACE(n);
            // Identity area + 512 bytes at an odd address: pages arrive in read buffers
            // of any alignment.
            std::vector<char> store(kJd + kisam::kFcpImage + 1, 0);
            char* scratch = store.data() + 1;
            char* d = scratch + kJd;
            std::memset(scratch, 0x5A, kJd);  // identity area: must survive untouched
            put<uint16_t>(d, 0, magic);
            put<int16_t>(d, 2, static_cast<int16_t>(n));
            put<int16_t>(d, 4, 21);
            put<int16_t>(d, 6, 0x0003);  // is_nextfree: hi half 3, lo half 1
            put<int16_t>(d, 8, 0x0001);
            put<uint32_t>(d, 10, 0x00020400);
            put<int8_t>(d, 14, 0x12);
            put<int8_t>(d, 15, -1);
            put<uint16_t>(d, 16, 0xBEEF);  // dropped fields
            put<uint32_t>(d, 18, 0xDEADBEEF);
            put<int16_t>(d, 28, 3);
            put<uint32_t>(d, 30, 0xCAFEF00D);
            for (int i = 0; i < n; ++i) {
                IS_KEY k = key_n(i);
                std::memcpy(d + 34 + 16 * i, &k, sizeof k);
            }
            unsigned char hints[40];
            for (int i = 0; i < 40; ++i) hints[i] = static_cast<unsigned char>(0xA0 + i);
            std::memcpy(d + 34 + 16 * n, hints, sizeof hints);

            kisam::fcp_convert_old(scratch);
            EXPECT_EQ(get<uint16_t>(d, 0), magic == ISMAGIC_OLD512 ? ISMAGIC_512 : ISMAGIC_1024);
            EXPECT_EQ(get<int16_t>(d, 2), n);
            EXPECT_EQ(get<uint32_t>(d, 4), 0x00010003u);
            EXPECT_EQ(get<uint32_t>(d, 8), 0x00020400u);
            EXPECT_EQ(get<uint32_t>(d, 12), 0u);
            EXPECT_EQ(std::memcmp(d + 16, hints, 40), 0);
            for (int i = 56; i < 80; ++i) EXPECT_EQ(d[i], 0) << "cdp byte " << i;
            EXPECT_EQ(get<int32_t>(d, 80), 0);
            EXPECT_EQ(get<int16_t>(d, 84), -1);
            EXPECT_EQ(get<int16_t>(d, 86), 21);
            EXPECT_EQ(get<uint8_t>(d, 88), 0x12);
            EXPECT_EQ(get<int16_t>(d, 96), 3);
            for (int i = 0; i < n; ++i) {
                IS_KEY want = key_n(i);
                EXPECT_EQ(std::memcmp(&want, d + 100 + 16 * i, sizeof want), 0) << "key " << i;
            }
            for (int i = 0; i < kJd; ++i) EXPECT_EQ(static_cast<unsigned char>(scratch[i]), 0x5A);
        }
}
