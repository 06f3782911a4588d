/* The public headers compile as strict C11 without a warning, and the shared and on-disk
 * records have, in C, the sizes and offsets that the C++ library was built with. */
#include <kisam/kisam.h>
#include <kisam/ztsupport.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#define AT(T, f, off) _Static_assert(offsetof(T, f) == (off), #T "." #f)
#define SIZE(T, n) _Static_assert(sizeof(T) == (n), "sizeof " #T)

SIZE(struct is_config, 52);
AT(struct is_config, co_maxopen, 0);   AT(struct is_config, co_maxbuf, 2);
AT(struct is_config, co_maxusers, 4);  AT(struct is_config, co_maxnkeys, 6);
AT(struct is_config, co_avgalts, 8);   AT(struct is_config, co_alenlock, 10);
AT(struct is_config, co_anumlock, 12); AT(struct is_config, co_locksig, 14);
AT(struct is_config, co_maxfbuf, 16);  AT(struct is_config, co_fltime, 18);
AT(struct is_config, co_comsize, 20);  AT(struct is_config, co_bufbase, 24);
AT(struct is_config, co_pfobase, 28);  AT(struct is_config, co_heapbase, 32);
AT(struct is_config, co_pidbase, 36);  AT(struct is_config, co_needbase, 40);
AT(struct is_config, co_maxufile, 44); AT(struct is_config, co_bits, 48);

SIZE(struct isam_com, 156);
AT(struct isam_com, maxopen, 0);       AT(struct isam_com, maxbufs, 2);
AT(struct isam_com, maxusers, 4);      AT(struct isam_com, maxnkeys, 6);
AT(struct isam_com, avgalts, 8);       AT(struct isam_com, alenlock, 10);
AT(struct isam_com, anumlock, 12);     AT(struct isam_com, locksig, 14);
AT(struct isam_com, maxfbuf, 16);      AT(struct isam_com, vr_nsleep, 18);
AT(struct isam_com, comsize, 20);      AT(struct isam_com, buf_base, 24);
AT(struct isam_com, pfo_base, 28);     AT(struct isam_com, heap_base, 32);
AT(struct isam_com, pid_base, 36);     AT(struct isam_com, need_base, 40);
AT(struct isam_com, maxufile, 44);     AT(struct isam_com, buf_lock, 48);
AT(struct isam_com, buf_free, 52);     AT(struct isam_com, free_lock, 56);
AT(struct isam_com, opcl_lock, 60);    AT(struct isam_com, free_base, 64);
AT(struct isam_com, lru_cnt, 68);      AT(struct isam_com, lru_wcnt, 72);
AT(struct isam_com, hit, 76);          AT(struct isam_com, missfree, 80);
AT(struct isam_com, misswrite, 84);    AT(struct isam_com, missread, 88);
AT(struct isam_com, syswrite, 92);     AT(struct isam_com, sysread, 96);
AT(struct isam_com, masterlock, 100);  AT(struct isam_com, syswaits, 104);
AT(struct isam_com, usrwaits, 108);    AT(struct isam_com, tstmiss, 112);
AT(struct isam_com, totsyslocks, 116); AT(struct isam_com, totusrlocks, 120);
AT(struct isam_com, cursyslocks, 124); AT(struct isam_com, curusrlocks, 128);
AT(struct isam_com, maxsyslocks, 132); AT(struct isam_com, maxusrlocks, 136);
AT(struct isam_com, iscom_magicval, 140); AT(struct isam_com, iscom_version, 142);
AT(struct isam_com, isc_bits, 144);    AT(struct isam_com, isc_freezemtx, 148);
AT(struct isam_com, isc_freezelock, 152);

SIZE(IS_BUF, 1040);
AT(IS_BUF, bu_next, 0); AT(IS_BUF, bu_id, 2); AT(IS_BUF, bu_cnt, 4);
AT(IS_BUF, bu_wcnt, 8); AT(IS_BUF, bu_pno, 12); AT(IS_BUF, bu_data, 16);

SIZE(IS_DATA, 1024);
SIZE(BDR, 1024);
AT(BDR, bdr_magic, 0); AT(BDR, bdr_segx, 2); AT(BDR, bdr_link, 4); AT(BDR, bdr_data, 8);
SIZE(struct dr_free, 4);

SIZE(IS_KEY, 16);
AT(IS_KEY, k_root, 0); AT(IS_KEY, k_order, 4); AT(IS_KEY, k_keylen, 6);
AT(IS_KEY, k_offset, 8); AT(IS_KEY, k_itemlen, 10); AT(IS_KEY, k_ncomp, 12);
AT(IS_KEY, k_obsolete, 14);

SIZE(JD_INFO, 32);
AT(JD_INFO, jd_ino, 0); AT(JD_INFO, jd_dev, 8); AT(JD_INFO, jd_fcplock, 16);
AT(JD_INFO, jd_lock_hd, 20); AT(JD_INFO, jd_buf_hd, 24); AT(JD_INFO, jd_bits, 26);

_Static_assert(_Alignof(IS_FCP) == 4, "IS_FCP lives in the 4-aligned heap");
AT(IS_FCP, jd_ino, 0); AT(IS_FCP, jd_dev, 8); AT(IS_FCP, jd_fcplock, 16);
AT(IS_FCP, jd_lock_hd, 20); AT(IS_FCP, jd_buf_hd, 24); AT(IS_FCP, jd_bits, 26);
AT(IS_FCP, is_magic, 32); AT(IS_FCP, is_nkeys, 34); AT(IS_FCP, is_nextfree, 36);
AT(IS_FCP, is_lastpage, 40); AT(IS_FCP, Ofcp_time, 44); AT(IS_FCP, is_cdp, 48);
AT(IS_FCP, is_spare1, 112); AT(IS_FCP, is_usecnt, 116); AT(IS_FCP, is_minrec, 118);
AT(IS_FCP, is_optbits, 120); AT(IS_FCP, is_mincdpi, 128); AT(IS_FCP, is_keys, 132);

AT(IS_RC, rc_next, 0); AT(IS_RC, rc_waitcount, 4); AT(IS_RC, rc_lock, 8);
AT(IS_RC, rc_isfd, 12); AT(IS_RC, rc_len, 14); AT(IS_RC, rc_key, 16);

SIZE(Cheader, 16);
_Static_assert(_Alignof(Cheader) == 4, "heap blocks are only 4-aligned");
AT(Cheader, Cnext, 0); AT(Cheader, Csize, 8);

SIZE(IS_PFI, 12);
AT(IS_PFI, pfi_osfd, 0); AT(IS_PFI, pfi_bits, 4); AT(IS_PFI, pfi_nkeys, 5);
AT(IS_PFI, pfi_refcnt, 6); AT(IS_PFI, pfi_ctlcnt, 8);

SIZE(IS_DBKEY, 24);
AT(IS_DB, uniqueid, 0); AT(IS_DB, temp, 8); AT(IS_DB, db_key, 16);

SIZE(struct is_etrace, 2);
AT(struct is_etrace, is_euid, 0); AT(struct is_etrace, is_eproc, 1);

SIZE(KisamEntryTable, 28 * sizeof(void *));
AT(KisamEntryTable, reserved0, 0); AT(KisamEntryTable, reserved1, 8);
AT(KisamEntryTable, ZTKISAMTest, 16); AT(KisamEntryTable, is_init, 40);
AT(KisamEntryTable, niserrmsgget, 208); AT(KisamEntryTable, ZTKISAMGetLastErrorMsg, 216);

int main(void) {
    int failures = 0;
    char buf[64];
    /* A few calls through the linked library: no failure recorded yet, the tables. */
    if (niserrmsgget(buf, (int)sizeof buf) != 0 || buf[0] != '\0') {
        fprintf(stderr, "niserrmsgget before any failure: '%s'\n", buf);
        ++failures;
    }
    if (strcmp(KIprocname(0x3E), "isunlock") != 0) {
        fprintf(stderr, "KIprocname(0x3E) = %s\n", KIprocname(0x3E));
        ++failures;
    }
    if (wqindex("abc", 'c') != 2 || isam_com != NULL || is_lockfd != -1 || maxheapsize != 2147483647L) {
        fprintf(stderr, "initial state of the exported globals is wrong\n");
        ++failures;
    }
    if (ZTKISAMGetComAddr() != NULL) {
        fprintf(stderr, "common area reported before start-up\n");
        ++failures;
    }
    return failures ? 1 : 0;
}
