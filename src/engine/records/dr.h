// Data records: shared data pages, overflow chains and the free-space table.
//
// Requires: the current file's control lock, inside the call's unit (a page's
// before-image is saved before it first changes).  Pages go through the buffer pool and
// reach the file's log at the commit.
//
// Record address: 0xFFFFFFFF none; P + 1 the record starts in overflow page P;
// P + s (s even, 2..1022) it starts with the segment at byte s of shared page P.
#pragma once

#include "layout.h"

namespace kisam {

inline constexpr int kDrOverflowData = 1016;    // data bytes of one overflow page
inline constexpr int kDrMaxShared = 1020;       // longest record kept in one shared page
inline constexpr uint16_t kDrOverflowMagic = 0x8001;
inline constexpr uint16_t kDrPageWord = 0x8000; // + offset of the first free chunk
inline constexpr PAGE kDrLowMask = 0x3FF;

// Bytes a last-form segment of len data bytes occupies: header + data, even, at least 4.
constexpr int dr_need(int len) {
    int n = len + (len & 1) + 2;
    return n < 4 ? 4 : n;
}

}  // namespace kisam

int dr_get(PAGE drp, char* recptr, int maxlen) noexcept;   // bytes copied, or -1
PAGE dr_put(const char* recptr, int reclen) noexcept;      // address, or 0xFFFFFFFF
int dr_rel(PAGE drp) noexcept;                             // 0, -1
// Rewrites in place the record at drp with reclen bytes when the new bytes take exactly
// the room the old ones took: a record kept whole in one segment of a shared page, whose
// segment keeps its size.  The page's free space, the free-space table and the address
// stay as they are; what a release and a store would have left differs only in where
// the bytes lie.  1 rewritten, 0 not this record (nothing done: release and store it
// instead), -1 failure (error raised, with dr_rel's detail 1: the page was not changed).
int dr_rewrite(PAGE drp, const char* recptr, int reclen) noexcept;
