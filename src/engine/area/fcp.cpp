// The file control page: the 512-byte disk image and the conversion of the old layout.
//
// In memory a control page is the 32-byte JD_INFO followed by the disk fields, each at
// its disk offset + 32.  Only the first 512 bytes of a control page are ever read or
// written.  Scratch copies come from read buffers of any alignment, so fields are moved
// with memcpy.
#include "fcp.h"

#include <algorithm>
#include <cstring>

namespace kisam {

namespace {

constexpr int kJd = IS_FCP_JDSIZE;  // identity area in front of the disk fields
constexpr int kHeaderImage = 104;   // disk bytes written before the key table ends: 100 + 4
constexpr int kKeyBytes = sizeof(IS_KEY);

// Old layout, disk offsets.
constexpr int kOldNkeys = 2, kOldMinrec = 4, kOldNextfree = 6, kOldLastpage = 10;
constexpr int kOldOptbits = 14, kOldUsecnt = 15, kOldMincdpi = 28, kOldKeys = 34;
constexpr int kOldSaved = kJd + 40;  // identity area and the old fields up to offset 39
constexpr int kHintBytes = 40;       // is_cdp[0..9] of the old layout, after its keys

// New layout, disk offsets.
constexpr int kMagic = 0, kNkeys = 2, kNextfree = 4, kLastpage = 8, kTime = 12, kCdp = 16;
constexpr int kCdpKept = kCdp + kHintBytes, kCdpEnd = 80;
constexpr int kSpare1 = 80, kUsecnt = 84, kMinrec = 86, kOptbits = 88, kMincdpi = 96;
constexpr int kSparesEnd = 100, kKeys = 100;

// Keys the 512-byte image can describe; a larger count is refused at open, and is
// clamped here only so that the copy stays inside the page.
int keys_in_image(int nkeys) { return std::clamp(nkeys, 0, KISAM_MAXKEYS); }

}  // namespace

void fcp_convert_old(char* scratch) noexcept {
    char* disk = scratch + kJd;
    char saved[kOldSaved];
    std::memcpy(saved, scratch, sizeof saved);
    const char* old = saved + kJd;

    const int16_t nkeys = load_at<int16_t>(old + kOldNkeys);
    const int nk = keys_in_image(nkeys);
    char hints[kHintBytes];
    std::memcpy(hints, disk + kOldKeys + kKeyBytes * nk, sizeof hints);

    // For more than four keys the old and new key tables overlap.
    std::memmove(disk + kKeys, disk + kOldKeys, static_cast<size_t>(kKeyBytes * nk));
    std::memcpy(disk + kCdp, hints, sizeof hints);
    std::memset(disk + kCdpKept, 0, kCdpEnd - kCdpKept);
    // The reserved fields held old key bytes; they are reserved and zero in the new layout.
    std::memset(disk + kSpare1, 0, kSparesEnd - kSpare1);

    store_at<uint16_t>(disk + kMagic, static_cast<uint16_t>(load_at<uint16_t>(old) + 2));
    store_at<int16_t>(disk + kNkeys, nkeys);
    store_at<int16_t>(disk + kMinrec, load_at<int16_t>(old + kOldMinrec));
    // The old dword is two halves, hi then lo; read as one little-endian word it is the
    // page number.
    store_at<uint32_t>(disk + kNextfree, load_at<uint32_t>(old + kOldNextfree));
    store_at<uint32_t>(disk + kLastpage, load_at<uint32_t>(old + kOldLastpage));
    store_at<uint32_t>(disk + kTime, 0);
    store_at<uint8_t>(disk + kOptbits, load_at<uint8_t>(old + kOldOptbits));
    store_at<int16_t>(disk + kUsecnt, static_cast<int16_t>(load_at<int8_t>(old + kOldUsecnt)));
    store_at<int16_t>(disk + kMincdpi, load_at<int16_t>(old + kOldMincdpi));
}

void fcp_image(IS_FCP* fcp, unsigned char out[kFcpImage]) noexcept {
    fcp->is_optbits = static_cast<uint8_t>(fcp->is_optbits & ~ISO_CHANGED);
    const size_t n = static_cast<size_t>(kHeaderImage + kKeyBytes * keys_in_image(fcp->is_nkeys));
    std::memcpy(out, &fcp->is_magic, n);
    std::memset(out + n, 0, kFcpImage - n);
}

}  // namespace kisam
