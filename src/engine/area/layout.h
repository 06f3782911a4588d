// Shared and on-disk records: size and offset checks, and the small accessors every
// layer uses to reach objects in the common area.
//
// The records themselves are defined once, in C, in the public header
// <kisam/isamdb.h>, so that tools and C programs see the same layout.  This file
// pins that layout: a change of any size or offset fails the build.
#pragma once

#include <kisam/kisam.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#define KISAM_API __attribute__((visibility("default")))

#define KISAM_RECORD(T, n)                                                         \
    static_assert(std::is_standard_layout_v<T> && std::is_trivially_copyable_v<T>, \
                  #T " must stay a plain record");                                 \
    static_assert(sizeof(T) == (n), #T ": its size is fixed by the format")
#define KISAM_AT(T, f, off) static_assert(offsetof(T, f) == (off), #T "." #f " has moved")

static_assert(std::endian::native == std::endian::little, "the formats are little-endian");

KISAM_RECORD(is_config, 52);
KISAM_AT(is_config, co_maxopen, 0);   KISAM_AT(is_config, co_maxbuf, 2);
KISAM_AT(is_config, co_maxusers, 4);  KISAM_AT(is_config, co_maxnkeys, 6);
KISAM_AT(is_config, co_avgalts, 8);   KISAM_AT(is_config, co_alenlock, 10);
KISAM_AT(is_config, co_anumlock, 12); KISAM_AT(is_config, co_locksig, 14);
KISAM_AT(is_config, co_maxfbuf, 16);  KISAM_AT(is_config, co_fltime, 18);
KISAM_AT(is_config, co_comsize, 20);  KISAM_AT(is_config, co_bufbase, 24);
KISAM_AT(is_config, co_pfobase, 28);  KISAM_AT(is_config, co_heapbase, 32);
KISAM_AT(is_config, co_pidbase, 36);  KISAM_AT(is_config, co_needbase, 40);
KISAM_AT(is_config, co_maxufile, 44); KISAM_AT(is_config, co_bits, 48);

KISAM_RECORD(struct isam_com, 156);
KISAM_AT(struct isam_com, maxopen, 0);      KISAM_AT(struct isam_com, maxbufs, 2);
KISAM_AT(struct isam_com, maxusers, 4);     KISAM_AT(struct isam_com, maxnkeys, 6);
KISAM_AT(struct isam_com, avgalts, 8);      KISAM_AT(struct isam_com, alenlock, 10);
KISAM_AT(struct isam_com, anumlock, 12);    KISAM_AT(struct isam_com, locksig, 14);
KISAM_AT(struct isam_com, maxfbuf, 16);     KISAM_AT(struct isam_com, vr_nsleep, 18);
KISAM_AT(struct isam_com, comsize, 20);     KISAM_AT(struct isam_com, buf_base, 24);
KISAM_AT(struct isam_com, pfo_base, 28);    KISAM_AT(struct isam_com, heap_base, 32);
KISAM_AT(struct isam_com, pid_base, 36);    KISAM_AT(struct isam_com, need_base, 40);
KISAM_AT(struct isam_com, maxufile, 44);    KISAM_AT(struct isam_com, buf_lock, 48);
KISAM_AT(struct isam_com, buf_free, 52);    KISAM_AT(struct isam_com, free_lock, 56);
KISAM_AT(struct isam_com, opcl_lock, 60);   KISAM_AT(struct isam_com, free_base, 64);
KISAM_AT(struct isam_com, lru_cnt, 68);     KISAM_AT(struct isam_com, lru_wcnt, 72);
KISAM_AT(struct isam_com, hit, 76);         KISAM_AT(struct isam_com, missfree, 80);
KISAM_AT(struct isam_com, misswrite, 84);   KISAM_AT(struct isam_com, missread, 88);
KISAM_AT(struct isam_com, syswrite, 92);    KISAM_AT(struct isam_com, sysread, 96);
KISAM_AT(struct isam_com, masterlock, 100); KISAM_AT(struct isam_com, syswaits, 104);
KISAM_AT(struct isam_com, usrwaits, 108);   KISAM_AT(struct isam_com, tstmiss, 112);
KISAM_AT(struct isam_com, totsyslocks, 116); KISAM_AT(struct isam_com, totusrlocks, 120);
KISAM_AT(struct isam_com, cursyslocks, 124); KISAM_AT(struct isam_com, curusrlocks, 128);
KISAM_AT(struct isam_com, maxsyslocks, 132); KISAM_AT(struct isam_com, maxusrlocks, 136);
KISAM_AT(struct isam_com, iscom_magicval, 140); KISAM_AT(struct isam_com, iscom_version, 142);
KISAM_AT(struct isam_com, isc_bits, 144);   KISAM_AT(struct isam_com, isc_freezemtx, 148);
KISAM_AT(struct isam_com, isc_freezelock, 152);

KISAM_RECORD(IS_DATA, 1024);
KISAM_AT(IS_DATA, bt.bt_keyno, 0);   KISAM_AT(IS_DATA, bt.bt_nitems, 2);
KISAM_AT(IS_DATA, __bt_p0.__p0, 4);  KISAM_AT(IS_DATA, fp.fp_ident, 0);
KISAM_AT(IS_DATA, fp.fp_nextpage, 4);
KISAM_RECORD(BDR, 1024);
KISAM_AT(BDR, bdr_magic, 0); KISAM_AT(BDR, bdr_segx, 2); KISAM_AT(BDR, bdr_link, 4);
KISAM_AT(BDR, bdr_data, 8);
KISAM_RECORD(dr_free, 4);
KISAM_AT(dr_free, dr_next, 0); KISAM_AT(dr_free, dr_avail, 2);

KISAM_RECORD(IS_BUF, 1040);
KISAM_AT(IS_BUF, bu_next, 0); KISAM_AT(IS_BUF, bu_id, 2);   KISAM_AT(IS_BUF, bu_cnt, 4);
KISAM_AT(IS_BUF, bu_wcnt, 8); KISAM_AT(IS_BUF, bu_pno, 12); KISAM_AT(IS_BUF, bu_data, 16);

KISAM_RECORD(IS_KEY, 16);
KISAM_AT(IS_KEY, k_root, 0);    KISAM_AT(IS_KEY, k_order, 4);   KISAM_AT(IS_KEY, k_keylen, 6);
KISAM_AT(IS_KEY, k_offset, 8);  KISAM_AT(IS_KEY, k_itemlen, 10); KISAM_AT(IS_KEY, k_ncomp, 12);
KISAM_AT(IS_KEY, k_obsolete, 14);

KISAM_RECORD(JD_INFO, 32);
KISAM_AT(JD_INFO, jd_ino, 0);      KISAM_AT(JD_INFO, jd_dev, 8);
KISAM_AT(JD_INFO, jd_fcplock, 16); KISAM_AT(JD_INFO, jd_lock_hd, 20);
KISAM_AT(JD_INFO, jd_buf_hd, 24);  KISAM_AT(JD_INFO, jd_bits, 26);

static_assert(std::is_standard_layout_v<IS_FCP> && std::is_trivially_copyable_v<IS_FCP>);
static_assert(alignof(IS_FCP) == 4, "IS_FCP lives in the 4-aligned common heap");
KISAM_AT(IS_FCP, jd_ino, 0);        KISAM_AT(IS_FCP, jd_dev, 8);
KISAM_AT(IS_FCP, jd_fcplock, 16);   KISAM_AT(IS_FCP, jd_lock_hd, 20);
KISAM_AT(IS_FCP, jd_buf_hd, 24);    KISAM_AT(IS_FCP, jd_bits, 26);
KISAM_AT(IS_FCP, is_magic, 32);     KISAM_AT(IS_FCP, is_nkeys, 34);
KISAM_AT(IS_FCP, is_nextfree, 36);  KISAM_AT(IS_FCP, is_lastpage, 40);
KISAM_AT(IS_FCP, Ofcp_time, 44);    KISAM_AT(IS_FCP, is_cdp, 48);
KISAM_AT(IS_FCP, is_spare1, 112);   KISAM_AT(IS_FCP, is_usecnt, 116);
KISAM_AT(IS_FCP, is_minrec, 118);   KISAM_AT(IS_FCP, is_optbits, 120);
KISAM_AT(IS_FCP, is_spare2, 121);   KISAM_AT(IS_FCP, is_spare3, 122);
KISAM_AT(IS_FCP, is_spare4, 124);   KISAM_AT(IS_FCP, is_spare5, 126);
KISAM_AT(IS_FCP, is_mincdpi, 128);  KISAM_AT(IS_FCP, is_spare6, 130);
KISAM_AT(IS_FCP, is_keys, 132);

static_assert(alignof(IS_RC) == 4);
KISAM_AT(IS_RC, rc_next, 0);  KISAM_AT(IS_RC, rc_waitcount, 4); KISAM_AT(IS_RC, rc_lock, 8);
KISAM_AT(IS_RC, rc_isfd, 12); KISAM_AT(IS_RC, rc_len, 14);      KISAM_AT(IS_RC, rc_key, 16);

KISAM_RECORD(Cheader, 16);
static_assert(alignof(Cheader) == 4, "heap blocks are only 4-aligned in the segment");
KISAM_AT(Cheader, Cnext, 0); KISAM_AT(Cheader, Csize, 8);

KISAM_RECORD(IS_PFI, 12);
KISAM_AT(IS_PFI, pfi_osfd, 0);   KISAM_AT(IS_PFI, pfi_bits, 4); KISAM_AT(IS_PFI, pfi_nkeys, 5);
KISAM_AT(IS_PFI, pfi_refcnt, 6); KISAM_AT(IS_PFI, pfi_ctlcnt, 8);

KISAM_RECORD(IS_DBKEY, 24);
KISAM_AT(IS_DBKEY, currpage, 0); KISAM_AT(IS_DBKEY, curr_wcnt, 4);
KISAM_AT(IS_DBKEY, curr_buid, 8); KISAM_AT(IS_DBKEY, curr_kstate, 10);
KISAM_AT(IS_DBKEY, currkey, 16);
KISAM_AT(IS_DB, uniqueid, 0); KISAM_AT(IS_DB, temp, 8); KISAM_AT(IS_DB, db_key, 16);

KISAM_RECORD(is_etrace, 2);
KISAM_AT(is_etrace, is_euid, 0); KISAM_AT(is_etrace, is_eproc, 1);

namespace kisam {

// Sizes fixed by the formats.
inline constexpr int kPage = KISAM_PAGESIZE;
inline constexpr int kComHeader = 156;
inline constexpr int kBufSlot = 1040;
inline constexpr int kFcpImage = 512;       // bytes of the control page ever read or written
inline constexpr int kHandleBytesFixed = 16;
inline constexpr int kHandleBytesPerKey = 24;
inline constexpr int kTableBytesPerOpen = 20;  // one IS_DB pointer and one IS_PFI

// Key descriptor k of a control page (the in-memory table may run past is_keys[0]).
inline IS_KEY* fcp_key(IS_FCP* fcp, int k) {
    return reinterpret_cast<IS_KEY*>(reinterpret_cast<char*>(fcp) + offsetof(IS_FCP, is_keys) +
                                     sizeof(IS_KEY) * static_cast<size_t>(k));
}
inline const IS_KEY* fcp_key(const IS_FCP* fcp, int k) {
    return reinterpret_cast<const IS_KEY*>(reinterpret_cast<const char*>(fcp) +
                                           offsetof(IS_FCP, is_keys) +
                                           sizeof(IS_KEY) * static_cast<size_t>(k));
}

// Cursor k of a handle (the cursor array runs past db_key[0]).
inline IS_DBKEY* db_cursor(IS_DB* db, int k) {
    return reinterpret_cast<IS_DBKEY*>(reinterpret_cast<char*>(db) + offsetof(IS_DB, db_key) +
                                       sizeof(IS_DBKEY) * static_cast<size_t>(k));
}

// Address of a common-heap object and back.  RELt offsets count from the heap's start.
template <class T = char>
inline T* rel_ptr(RELt rel) {
    return reinterpret_cast<T*>(is_env.heap_ + rel);
}
inline RELt rel_of(const void* p) {
    return static_cast<RELt>(static_cast<const char*>(p) - is_env.heap_);
}

// Offset of a lock word from the start of the segment: the lock file range it stands for.
inline unsigned long com_offset(const volatile void* p) {
    return static_cast<unsigned long>(static_cast<const volatile char*>(p) -
                                      reinterpret_cast<const volatile char*>(isam_com));
}

// Shared control page of shared-file slot u.
inline IS_FCP* pfo_fcp(int u) {
    int32_t rel = is_env.pfo_tbl[u];
    return rel == -1 ? nullptr : rel_ptr<IS_FCP>(static_cast<RELt>(rel));
}

// Little-endian field access at any alignment.
template <class T>
inline T load_at(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class T>
inline void store_at(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

}  // namespace kisam
