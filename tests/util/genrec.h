// Records whose every byte follows from (id, generation), for readers that check what
// they read without asking anyone: key 0 is the id in 8 digits (then the layout's
// padding, drawn from the id), key 1 six digits of mix(id, gen) % k1, key 2 (when there
// is one) "gNN" of gen % 7, then the generation's 4 bytes, then a body of bytes drawn
// from mix(gen, id).  Any bytes read back name their id and generation, so they can be
// compared with the one record they claim to be.
#pragma once

#include "kisam_test.h"

#include <kisam/kisam.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace kt::gen {

constexpr int kK0 = 8, kK1 = 6, kK2 = 3;

struct Layout {
    unsigned k1;               // values of key 1
    bool k2 = false;           // a third key, of 7 values
    unsigned big = 0;          // one body in `big` spans overflow pages: big_len + h % 1500 bytes
    unsigned big_len = 0;
    unsigned small_len = 0;    // the others: small_len + h % small_span bytes
    unsigned small_span = 1;
    // Bytes of key 0 after the id's digits, drawn from the id: long keys make every
    // key's pages hold a few items (240: three), so that trees are deep and most
    // writes split or merge.
    unsigned k0_pad = 0;
    int k0() const { return kK0 + static_cast<int>(k0_pad); }
    int keys_len() const { return k0() + kK1 + (k2 ? kK2 : 0); }
    int min() const { return keys_len() + 4; }   // keys and generation
    std::vector<int> lens() const { return k2 ? std::vector<int>{k0(), kK1, kK2} : std::vector<int>{k0(), kK1}; }
};

inline std::string key0(unsigned id) {
    char t[kK0 + 1];
    std::snprintf(t, sizeof t, "%08u", id % 100000000u);
    return std::string(t, kK0);
}

// Key 0 of a layout: the digits, then its padding.
inline std::string key0(const Layout& L, unsigned id) {
    std::string k = key0(id);
    for (unsigned i = 0; i < L.k0_pad; ++i) k += static_cast<char>('a' + mix(id, 0xFFFF0000u + i) % 26);
    return k;
}

inline std::string record(const Layout& L, unsigned id, uint32_t gen) {
    char t[16];
    std::string r = key0(L, id);
    std::snprintf(t, sizeof t, "%06u", mix(id, gen) % L.k1 % 1000000u);
    r.append(t, kK1);
    if (L.k2) {
        std::snprintf(t, sizeof t, "g%02u", gen % 7);
        r.append(t, kK2);
    }
    r.append(reinterpret_cast<const char*>(&gen), 4);
    const uint32_t h = mix(gen, id);
    const size_t len = L.big && h % L.big == 0 ? L.big_len + h % 1500 : L.small_len + h % L.small_span;
    for (size_t i = 0; i < len; ++i) r += static_cast<char>(mix(h, static_cast<uint32_t>(i)));
    return r;
}

// Whether the n bytes read into a buffer of `size` are exactly some record cut at size;
// which one in *id and *gen.
inline bool genuine(const Layout& L, const char* p, int n, int size, unsigned* id, uint32_t* gen) {
    if (n < L.min()) return false;
    unsigned v = 0;
    for (int i = 0; i < kK0; ++i) {
        if (p[i] < '0' || p[i] > '9') return false;
        v = v * 10 + static_cast<unsigned>(p[i] - '0');
    }
    *id = v;
    std::memcpy(gen, p + L.keys_len(), 4);
    const std::string r = record(L, v, *gen);
    return n == std::min(static_cast<int>(r.size()), size) && std::memcmp(p, r.data(), static_cast<size_t>(n)) == 0;
}

// Whether n bytes are id's whole record at generation gen.
inline bool is(const Layout& L, const char* p, int n, unsigned id, uint32_t gen) {
    const std::string r = record(L, id, gen);
    return n == static_cast<int>(r.size()) && std::memcmp(p, r.data(), r.size()) == 0;
}

// id's record read by key 0: its length, with its generation in *gen; 0 when there is
// none, -1 when the read failed, -2 when the bytes are not a whole record of id.
inline int find(int fd, const Layout& L, unsigned id, uint32_t* gen) {
    char buf[4096];
    const int n = nisfind(fd, 0, key0(L, id).data(), buf, sizeof buf);
    unsigned got;
    return n <= 0 ? n : genuine(L, buf, n, sizeof buf, &got, gen) && got == id ? n : -2;
}

}  // namespace kt::gen
