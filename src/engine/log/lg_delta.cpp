// A page's change as the log holds it: the bytes that differ, in runs, and items that
// moved as one move.  The encoder works from the page as the unit began (the journal's
// before-image, which is what the log last left of it) and the page now; replay applies
// the entries in their order to what the earlier records left.
#include "lg_internal.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

namespace kisam::lg {

namespace {

using u8 = unsigned char;
constexpr int kP = kisam::kPage;
constexpr int kBlock = 32;  // a page is 32 blocks, a control page 16: both a multiple of four

inline uint64_t word(const u8* p, int at) { return kisam::load_at<uint64_t>(p + at); }

// Whether the kBlock bytes at a and b are the same.
inline bool same_block(const u8* a, const u8* b) noexcept {
#if defined(__SSE2__)
    const __m128i x = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)),
                                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(b)));
    const __m128i y = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 16)),
                                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 16)));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_or_si128(x, y), _mm_setzero_si128())) == 0xFFFF;
#else
    return ((word(a, 0) ^ word(b, 0)) | (word(a, 8) ^ word(b, 8)) | (word(a, 16) ^ word(b, 16)) |
            (word(a, 24) ^ word(b, 24))) == 0;
#endif
}

// Bit i set: the bytes [32 i, 32 i + 32) of a and b differ somewhere (len a multiple of
// 32, at most 1024).  Every page a call changed is compared whole, so this is most of a
// commit's work: with 32-byte vectors where the processor has them.
uint32_t dirty_plain(const u8* a, const u8* b, int len) noexcept {
    uint32_t m = 0;
#if defined(__OPTIMIZE__)  // an unoptimised build ignores the hint, with a warning
#pragma GCC unroll 4
#endif
    for (int i = 0; i < len / kBlock; ++i)
        if (!same_block(a + i * kBlock, b + i * kBlock)) m |= uint32_t{1} << i;
    return m;
}
#if defined(__x86_64__) && defined(__GNUC__)
// Four blocks at a time: most of a page is as it was, and four equal blocks are told by
// one test.
__attribute__((target("avx2"), always_inline)) inline __m256i xor_block(const u8* a, const u8* b, int i) {
    return _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i * kBlock)),
                            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i * kBlock)));
}
__attribute__((target("avx2"))) uint32_t dirty_avx2(const u8* a, const u8* b, int len) noexcept {
    uint32_t m = 0;
    for (int i = 0; i < len / kBlock; i += 4) {
        const __m256i x0 = xor_block(a, b, i), x1 = xor_block(a, b, i + 1), x2 = xor_block(a, b, i + 2),
                      x3 = xor_block(a, b, i + 3);
        const __m256i all = _mm256_or_si256(_mm256_or_si256(x0, x1), _mm256_or_si256(x2, x3));
        if (_mm256_testz_si256(all, all)) continue;
        const uint32_t four = static_cast<uint32_t>(!_mm256_testz_si256(x0, x0)) |
                              static_cast<uint32_t>(!_mm256_testz_si256(x1, x1)) << 1 |
                              static_cast<uint32_t>(!_mm256_testz_si256(x2, x2)) << 2 |
                              static_cast<uint32_t>(!_mm256_testz_si256(x3, x3)) << 3;
        m |= four << i;
    }
    return m;
}
using DirtyFn = uint32_t (*)(const u8*, const u8*, int) noexcept;
DirtyFn pick_dirty() noexcept {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") ? dirty_avx2 : dirty_plain;
}
#else
using DirtyFn = uint32_t (*)(const u8*, const u8*, int) noexcept;
DirtyFn pick_dirty() noexcept { return dirty_plain; }
#endif
DirtyFn dirty_blocks = pick_dirty();

// A move pays when it stands for more bytes than its entry (24) and the padding lost.
constexpr int kMoveFrom = 32;

char* put_bytes(char* p, uint64_t off, uint32_t kind, int lo, int hi, const u8* bytes) noexcept {
    const lg_ent e{off, static_cast<uint16_t>(lo), static_cast<uint16_t>(hi - lo), kind};
    std::memcpy(p, &e, sizeof e);
    p += sizeof e;
    // The padding to eight bytes is zero: the last word is cleared, then the bytes go over it.
    const size_t r = round8(e.le_len);
    if (r) kisam::store_at<uint64_t>(p + r - 8, 0);
    std::memcpy(p, bytes + lo, e.le_len);
    return p + r;
}

// The lowest x in [floor, e) from which a[x, e) equals b[x - s, e - s); e when a[e - 1]
// already differs.  A block at a time, then eight bytes, then one.
int match_back(const u8* a, const u8* b, int s, int floor, int e) noexcept {
    int x = e;
    while (x - kBlock >= floor && same_block(a + x - kBlock, b + x - kBlock - s)) x -= kBlock;
    if constexpr (std::endian::native == std::endian::little) {
        for (; x - 8 >= floor; x -= 8) {
            const uint64_t d = word(a, x - 8) ^ word(b, x - 8 - s);
            if (d) return x - (std::countl_zero(d) >> 3);
        }
    }
    while (x > floor && a[x - 1] == b[x - 1 - s]) --x;
    return x;
}

// Bit i set: byte i of the blocks at a and b differs.
inline uint32_t byte_diffs(const u8* a, const u8* b) noexcept {
#if defined(__SSE2__)
    const auto eq = [](const u8* x, const u8* y) {
        return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(x)), _mm_loadu_si128(reinterpret_cast<const __m128i*>(y)))));
    };
    return ~(eq(a, b) | eq(a + 16, b + 16) << 16);
#else
    uint32_t m = 0;
    for (int i = 0; i < kBlock; ++i) m |= static_cast<uint32_t>(a[i] != b[i]) << i;
    return m;
#endif
}
inline uint32_t below(int n) noexcept { return n >= 32 ? ~uint32_t{0} : (uint32_t{1} << n) - 1; }

// The entries of the bytes of now that differ from was below hi, the blocks that differ
// given by `dirty`: one per run of such blocks, from its first differing byte to its
// last.  A run ends at a whole block of equal bytes: two entries then cost a header more
// than one, and the padding of two (up to 14 bytes) instead of one's, less than the 32
// bytes one entry would hold, so the split never makes the record longer.
char* put_runs(char* p, uint32_t* nent, uint64_t off, uint32_t kind, const u8* was, const u8* now, uint32_t dirty,
               int hi) noexcept {
    dirty &= below((hi + kBlock - 1) / kBlock);
    while (dirty) {
        const int first = std::countr_zero(dirty);
        const int n = std::countr_one(dirty >> first);
        dirty = n + first >= 32 ? 0 : dirty & ~((uint32_t{1} << (first + n)) - 1);
        const int b0 = first * kBlock;
        const uint32_t m = byte_diffs(was + b0, now + b0) & below(hi - b0);
        if (!m) continue;  // a block that hi cuts, changed only past hi
        // The last block of the run with a change below hi (the first one has one).
        int l = first + n - 1;
        uint32_t ml;
        while (!(ml = byte_diffs(was + l * kBlock, now + l * kBlock) & below(hi - l * kBlock))) --l;
        ++*nent;
        p = put_bytes(p, off, kind, b0 + std::countr_zero(m), l * kBlock + kBlock - std::countl_zero(ml), now);
    }
    return p;
}

bool checking = false;

// One run of changed bytes, [lo, hi).
struct Run {
    int lo, hi;
};

// The entries of a page whose changes the unit noted: the move, then the runs of bytes
// that differ from the page as the move leaves it, in the noted blocks only.  Null when
// they would take more room than the page whole (nothing written then).
char* put_noted(char* p, uint32_t* nent, uint64_t off, const u8* was, const u8* now, const jn_change& c) noexcept {
    uint32_t blocks = c.blocks;
    int dlo = 0, dhi = 0, by = 0;  // where the move put its bytes, and how far
    if (c.mv_by != 0) {
        const int from = c.mv_from, len = c.mv_len;
        by = c.mv_by;
        if (from + len > kP || from + by < 0 || from + by + len > kP) return nullptr;
        if (len >= kMoveFrom) {
            dlo = from + by;
            dhi = dlo + len;
        } else {
            // Too short to pay for its entry: its bytes are compared as blocks.
            const int lo = by < 0 ? from + by : from, hi = from + len + (by > 0 ? by : 0);
            for (int b = lo / kBlock; b * kBlock < hi; ++b) blocks |= uint32_t{1} << b;
            by = 0;
        }
    }
    // The runs: a run ends at a block without a change (one noted is compared; one not
    // noted is as the move left it).
    Run runs[kP / kBlock / 2 + 1];
    int nr = 0, last = -2;
    size_t bytes = dhi > dlo ? sizeof(lg_ent) + sizeof(lg_move) : 0;
    while (blocks) {
        const int i = std::countr_zero(blocks);
        blocks &= blocks - 1;
        const int b0 = i * kBlock;
        uint32_t m;
        if (b0 + kBlock <= dlo || b0 >= dhi) {
            m = byte_diffs(was + b0, now + b0);
        } else if (b0 - by >= 0 && b0 - by + kBlock <= kP) {
            // The bytes of the block that the move filled against where they came from,
            // the others against the page as it was.
            const uint32_t in = below(std::min(dhi, b0 + kBlock) - b0) & ~below(std::max(dlo, b0) - b0);
            m = (byte_diffs(was + b0, now + b0) & ~in) | (byte_diffs(was + b0 - by, now + b0) & in);
        } else {
            u8 base[kBlock];
            for (int x = 0; x < kBlock; ++x) {
                const int at = b0 + x;
                base[x] = at >= dlo && at < dhi ? was[at - by] : was[at];
            }
            m = byte_diffs(base, now + b0);
        }
        if (!m) continue;
        const int lo = b0 + std::countr_zero(m), hi = b0 + kBlock - std::countl_zero(m);
        if (i == last + 1) {
            bytes += static_cast<size_t>(hi - runs[nr - 1].hi);
            runs[nr - 1].hi = hi;
        } else {
            runs[nr++] = {lo, hi};
            bytes += sizeof(lg_ent) + static_cast<size_t>(hi - lo) + 7;
        }
        last = i;
    }
    if (bytes > sizeof(lg_ent) + kP) return nullptr;
    if (dhi > dlo) {
        const lg_ent e{off, static_cast<uint16_t>(dlo), 8, kMoveEntry};
        std::memcpy(p, &e, sizeof e);
        const lg_move mv{static_cast<uint16_t>(dlo - by), static_cast<uint16_t>(dhi - dlo), 0};
        std::memcpy(p + sizeof e, &mv, sizeof mv);
        p += sizeof e + sizeof mv;
        ++*nent;
    }
    for (int r = 0; r < nr; ++r) p = put_bytes(p, off, kPageEntry, runs[r].lo, runs[r].hi, now);
    *nent += static_cast<uint32_t>(nr);
    return p;
}

// Applies the nent entries at p to a copy of was; whether that gives now.
bool entries_give(const char* p, uint32_t nent, const u8* was, const u8* now) noexcept {
    u8 page[kP];
    std::memcpy(page, was, kP);
    for (uint32_t i = 0; i < nent; ++i) {
        lg_ent e;
        std::memcpy(&e, p, sizeof e);
        if (!apply_entry(page, e, p + sizeof e)) return false;
        p += sizeof e + round8(e.le_len);
    }
    return std::memcmp(page, now, kP) == 0;
}

}  // namespace

void use_plain_compare(bool plain) noexcept { dirty_blocks = plain ? dirty_plain : pick_dirty(); }


char* put_delta(char* p, uint32_t* nent, uint64_t off, const unsigned char* was, const unsigned char* now,
                const IS_FCP* fcp, const jn_change& chg) noexcept {
    const uint32_t n0 = *nent;
    char* end = nullptr;
    if (chg.blocks != ~0u || chg.mv_by != 0) end = put_noted(p, nent, off, was, now, chg);
    if (!end) end = put_delta(p, nent, off, was, now, item_shift(fcp, was, now));
    if (checking && !entries_give(p, *nent - n0, was, now)) {
        std::fprintf(stderr,
                     "kisam: the log's entries of the page at %llu miss a change (noted blocks %08x, move %u+%u by %d)\n",
                     static_cast<unsigned long long>(off), chg.blocks, chg.mv_from, chg.mv_len, chg.mv_by);
        std::abort();
    }
    return end;
}

int item_shift(const IS_FCP* fcp, const unsigned char* was, const unsigned char* now) noexcept {
    const int16_t k = kisam::load_at<int16_t>(was);
    if (k != kisam::load_at<int16_t>(now) || k < 0 || k >= fcp->is_nkeys) return 0;
    const int d = kisam::load_at<int16_t>(now + 2) - kisam::load_at<int16_t>(was + 2);
    if (d != 1 && d != -1) return 0;
    const int inc = kisam::fcp_key(fcp, k)->k_itemlen + 4;
    return inc > 4 && inc < kP / 2 ? d * inc : 0;
}

char* put_delta(char* p, uint32_t* nent, uint64_t off, const unsigned char* was, const unsigned char* now,
                int shift) noexcept {
    const uint32_t dirty = dirty_blocks(was, now, kP);
    if (!dirty) return p;  // changed back as it was
    // Items that moved by `shift` end where the change ends: the bytes below it that
    // match the page as it was, `shift` bytes away, are one move; what lies below them
    // still differs byte by byte.
    if (shift != 0) {
        const int top = (31 - std::countl_zero(dirty)) * kBlock;
        const int hi = last_diff(was, now, top, top + kBlock);
        const int lo = std::countr_zero(dirty) * kBlock;
        if (hi - lo > kMoveFrom && hi - shift <= kP) {
            const int m = match_back(now, was, shift, lo > shift ? lo : shift, hi);
            if (hi - m >= kMoveFrom) {
                const lg_ent e{off, static_cast<uint16_t>(m), 8, kMoveEntry};
                std::memcpy(p, &e, sizeof e);
                const lg_move mv{static_cast<uint16_t>(m - shift), static_cast<uint16_t>(hi - m), 0};
                std::memcpy(p + sizeof e, &mv, sizeof mv);
                ++*nent;
                // The move leaves [m, hi) as it is now; below m the page is as it was.
                return put_runs(p + sizeof e + sizeof mv, nent, off, kPageEntry, was, now, dirty, m);
            }
        }
    }
    return put_runs(p, nent, off, kPageEntry, was, now, dirty, kP);
}

char* put_part(char* p, uint32_t* nent, uint64_t off, uint32_t kind, const unsigned char* was,
               const unsigned char* now, int len) noexcept {
    return put_runs(p, nent, off, kind, was, now, dirty_blocks(was, now, len), len);
}

char* put_fresh(char* p, uint32_t* nent, uint64_t off, const unsigned char* page) noexcept {
    // The longest run of zeros; a page made new in the call has one (after its items, or
    // between a data page's header and the record at its end).
    // By blocks of zeros first (bit i: block i is all zero), then a byte at a time at the
    // edges of the longest run of them.
    uint32_t zero = 0;
    for (int i = 0; i < kP / kBlock; ++i)
        zero |= static_cast<uint32_t>((word(page, i * kBlock) | word(page, i * kBlock + 8) |
                                       word(page, i * kBlock + 16) | word(page, i * kBlock + 24)) == 0)
                << i;
    int best = 0, first = 0;
    for (uint32_t z = zero; z;) {
        const int at = std::countr_zero(z);
        const int n = std::countr_one(z >> at);
        if (n > best) best = n, first = at;
        z = at + n >= 32 ? 0 : z & ~((uint32_t{1} << (at + n)) - 1);
    }
    int zlo = first * kBlock, zhi = (first + best) * kBlock;
    if (best > 0) {
        while (zlo > 0 && page[zlo - 1] == 0) --zlo;
        while (zhi < kP && page[zhi] == 0) ++zhi;
    }
    // The zeros are written once, kBlock of them, and copied onward, each copy doubling
    // what is known to be zero: a move entry costs 24 bytes however much it copies.
    const int lead = zlo + kBlock;
    int moves = 0;
    for (int known = kBlock, end = lead; end < zhi; end += std::min(known, zhi - end), known *= 2) ++moves;
    const size_t fresh = sizeof(lg_ent) + round8(static_cast<size_t>(lead)) +
                         static_cast<size_t>(moves) * (sizeof(lg_ent) + sizeof(lg_move)) +
                         (zhi < kP ? sizeof(lg_ent) + round8(static_cast<size_t>(kP - zhi)) : 0);
    if (zhi - zlo < 4 * kBlock || fresh >= sizeof(lg_ent) + kP) return put_whole(p, nent, off, kPageEntry, page, kP);
    char* const start = p;
    const uint32_t n0 = *nent;
    p = put_bytes(p, off, kPageEntry, 0, lead, page);
    ++*nent;
    for (int known = kBlock, end = lead; end < zhi; known *= 2) {
        const int len = std::min(known, zhi - end);
        const lg_ent e{off, static_cast<uint16_t>(end), 8, kMoveEntry};
        const lg_move mv{static_cast<uint16_t>(zlo), static_cast<uint16_t>(len), 0};
        std::memcpy(p, &e, sizeof e);
        std::memcpy(p + sizeof e, &mv, sizeof mv);
        p += sizeof e + sizeof mv;
        ++*nent;
        end += len;
    }
    if (zhi < kP) {
        p = put_bytes(p, off, kPageEntry, zhi, kP, page);
        ++*nent;
    }
    if (checking) {
        // Whatever the page held before, the entries give it.
        u8 any[kP];
        std::memset(any, 0xA5, sizeof any);
        if (!entries_give(start, *nent - n0, any, page)) {
            std::fprintf(stderr, "kisam: the log's entries of the new page at %llu do not give it\n",
                         static_cast<unsigned long long>(off));
            std::abort();
        }
    }
    return p;
}

char* put_whole(char* p, uint32_t* nent, uint64_t off, uint32_t kind, const unsigned char* bytes, int len) noexcept {
    ++*nent;
    return put_bytes(p, off, kind, 0, len, bytes);
}

bool apply_entry(unsigned char* page, const lg_ent& e, const void* payload) noexcept {
    if (e.le_kind == kPageEntry) {
        if (e.le_at + e.le_len > kP) return false;
        std::memcpy(page + e.le_at, payload, e.le_len);
        return true;
    }
    lg_move mv;
    if (e.le_kind != kMoveEntry || e.le_len != sizeof mv) return false;
    std::memcpy(&mv, payload, sizeof mv);
    if (mv.lm_pad != 0 || mv.lm_from + mv.lm_len > kP || e.le_at + mv.lm_len > kP) return false;
    std::memmove(page + e.le_at, page + mv.lm_from, mv.lm_len);
    return true;
}

}  // namespace kisam::lg

void lg_check_noted(bool on) noexcept { kisam::lg::checking = on; }
