/*
 * libkisam: records shared between processes and stored on disk.
 *
 * Every record here is a plain C struct whose size and field offsets are fixed:
 * the common area is shared by every process of an installation, and the control
 * page, B-tree pages and data pages are the file format.  All multi-byte fields
 * are in the machine's byte order (little-endian on x86-64).  Tools may read the
 * common area through these definitions (see ZTKISAMGetComAddr()); programs never
 * write it.  A file's size is limited to 4 GiB by its 32-bit page positions.
 */
#ifndef KISAM_ISAMDB_H
#define KISAM_ISAMDB_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 64-bit fields of records that live in the common heap, which is only 4-aligned. */
typedef uint64_t kisam_u64a4 __attribute__((aligned(4)));

typedef uint32_t PAGE;    /* byte position of a page in the 1024-byte numbering; 0xFFFFFFFF none */
typedef uint32_t RELt;    /* offset of an object from the start of the common heap; 0xFFFFFFFF none */
typedef uint32_t LRUt;    /* buffer clock value; skips 0 when it wraps */
typedef uint16_t MAGICt;  /* magic number of a control page or of the common area */
typedef unsigned char CmpType;

#define KISAM_NOPAGE   ((PAGE)0xFFFFFFFFu)  /* no page; also "no record" as a record address */
#define KISAM_NOREL    ((RELt)0xFFFFFFFFu)  /* no object of the common heap */
#define KISAM_PAGESIZE 1024                 /* bytes of every page of a file and of a buffer */
#define KISAM_MAXKEYS  25                   /* most keys a file may have */
#define KISAM_MAXREC   65534                /* longest record, in bytes */

/* Control-page magics. */
#define ISMAGIC_1024   0xAB55   /* 1024-byte control page */
#define ISMAGIC_512    0xAB54   /* 512-byte control page */
#define ISMAGIC_OLD1024 0xAB53  /* old layout, converted to 0xAB55 at open */
#define ISMAGIC_OLD512 0xAB52   /* old layout, converted to 0xAB54 at open */

/* is_optbits of a control page. */
#define ISO_CHANGED    0x01  /* shared copy changed, due to be written (never on disk) */
#define ISO_KEYOPT     0x02  /* key 0 kept only in its index item */
#define ISO_SEQ        0x04  /* sequential file without a control page */
#define ISO_TRACK      0x08  /* data-changed tracking on */
#define ISO_DIRTYMARK  0x10  /* data-changed mark */
#define ISO_SYNC       0x20  /* synchronise when the mark changes */
#define ISO_CLEARREL   0x40  /* clear the mark at every final control release */

/* Common-area magic and layout version. */
#define ISCOM_MAGIC    0x1412
#define ISCOM_VERSION  7

/* ---- configuration record (first 52 bytes of the configuration file) ----
 * co_maxopen: files open at once in the installation, and descriptors per process;
 * co_maxbuf: page buffers; co_maxusers: processes attached at once; co_maxnkeys: most
 * keys per file; co_avgalts, co_alenlock, co_anumlock: average alternate keys per file,
 * record-lock key length and record locks per file, which size the common heap;
 * co_maxufile: descriptors per process, 0 for co_maxopen; co_bits: 0x1 keep each file's
 * data-changed mark, with 0x4 clear it at every final control-lock release, or with 0x2
 * synchronise the file when the mark changes.  The base and size fields are computed at
 * start-up; stored values are ignored.  "kisam config init" writes the file. */
struct is_config {
    int16_t  co_maxopen;    /*  0 */
    int16_t  co_maxbuf;     /*  2 */
    int16_t  co_maxusers;   /*  4 */
    int16_t  co_maxnkeys;   /*  6 */
    int16_t  co_avgalts;    /*  8 */
    int16_t  co_alenlock;   /* 10 */
    int16_t  co_anumlock;   /* 12 */
    int16_t  co_locksig;    /* 14 */
    int16_t  co_maxfbuf;    /* 16 */
    int16_t  co_fltime;     /* 18 */
    int32_t  co_comsize;    /* 20 */
    int32_t  co_bufbase;    /* 24 */
    int32_t  co_pfobase;    /* 28 */
    int32_t  co_heapbase;   /* 32 */
    int32_t  co_pidbase;    /* 36 */
    int32_t  co_needbase;   /* 40 */
    int16_t  co_maxufile;   /* 44 */
    int16_t  co_pad;        /* 46 */
    uint32_t co_bits;       /* 48 */
};

/* ---- common area header (156 bytes at the start of the shared segment) ----
 * The first fields repeat the configuration.  Statistics (read them through
 * ZTKISAMGetComAddr(); they are updated without a common lock, so concurrent updates may
 * be lost): hit, missfree, misswrite, missread (buffer lookups: found; loaded into a
 * free buffer; into one whose page had to be written first; into a clean one taken
 * over), syswrite, sysread (page writes and reads), syswaits (waits for an internal
 * lock), usrwaits (waits for a record lock), totsyslocks, cursyslocks, maxsyslocks and
 * totusrlocks, curusrlocks, maxusrlocks (internal and record locks: taken in all, held
 * now, most held at once).  Lock words (buf_lock, free_lock, opcl_lock) hold the pid of
 * their holder or 0. */
struct isam_com {
    int16_t  maxopen;        /*   0 */
    int16_t  maxbufs;        /*   2 */
    int16_t  maxusers;       /*   4 */
    int16_t  maxnkeys;       /*   6 */
    int16_t  avgalts;        /*   8 */
    int16_t  alenlock;       /*  10 */
    int16_t  anumlock;       /*  12 */
    int16_t  locksig;        /*  14 */
    int16_t  maxfbuf;        /*  16 */
    uint16_t vr_nsleep;      /*  18 */
    int32_t  comsize;        /*  20 */
    int32_t  buf_base;       /*  24 */
    int32_t  pfo_base;       /*  28 */
    int32_t  heap_base;      /*  32 */
    int32_t  pid_base;       /*  36 */
    int32_t  need_base;      /*  40 */
    int16_t  maxufile;       /*  44 */
    int16_t  com_pad1;       /*  46 */
    uint32_t buf_lock;       /*  48 */
    int16_t  buf_free;       /*  52 */
    int16_t  com_pad2;       /*  54 */
    uint32_t free_lock;      /*  56 */
    uint32_t opcl_lock;      /*  60 */
    RELt     free_base;      /*  64 */
    LRUt     lru_cnt;        /*  68 */
    LRUt     lru_wcnt;       /*  72 */
    uint32_t hit;            /*  76 */
    uint32_t missfree;       /*  80 */
    uint32_t misswrite;      /*  84 */
    uint32_t missread;       /*  88 */
    uint32_t syswrite;       /*  92 */
    uint32_t sysread;        /*  96 */
    int16_t  masterlock;     /* 100 */
    int16_t  com_pad3;       /* 102 */
    uint32_t syswaits;       /* 104 */
    uint32_t usrwaits;       /* 108 */
    uint32_t tstmiss;        /* 112 */
    uint32_t totsyslocks;    /* 116 */
    uint32_t totusrlocks;    /* 120 */
    uint32_t cursyslocks;    /* 124 */
    uint32_t curusrlocks;    /* 128 */
    uint32_t maxsyslocks;    /* 132 */
    uint32_t maxusrlocks;    /* 136 */
    uint16_t iscom_magicval; /* 140 */
    uint16_t iscom_version;  /* 142 */
    uint32_t isc_bits;       /* 144 */
    uint32_t isc_freezemtx;  /* 148 */
    uint32_t isc_freezelock; /* 152 */
};

/* ---- pages ---- */
typedef struct BT_HDR {
    int16_t bt_keyno;   /* 0: key whose tree holds the page (>= 0) */
    int16_t bt_nitems;  /* 2: number of items */
} BT_HDR;

typedef struct FP_HDR {
    int16_t  fp_ident;     /* 0: -2 marks a free page */
    int16_t  fp_fill;      /* 2: 0xFFFF */
    PAGE     fp_nextpage;  /* 4: next page of the free chain */
} FP_HDR;

typedef union IS_DATA {
    char     c[KISAM_PAGESIZE];
    BT_HDR   bt;
    struct { int16_t __pad1; int16_t __pad2; PAGE __p0; } __bt_p0;
    FP_HDR   fp;
    uint16_t us[16];
    int32_t  l[8];
} IS_DATA;

/* Data pages: overflow page (bdr_magic 0x8001) or shared page (page word 0x8000 + first free). */
typedef struct BDR {
    uint16_t bdr_magic;       /* 0 */
    uint16_t bdr_segx;        /* 2 */
    uint32_t bdr_link;        /* 4 */
    char     bdr_data[1016];  /* 8 */
} BDR;

struct dr_free {             /* free chunk inside a shared data page */
    int16_t dr_next;         /* offset of the next free chunk, 0 ends */
    int16_t dr_avail;        /* size of the chunk, header included */
};

struct dr_ctlstruct {        /* segment header of a continued segment */
    uint16_t dr_ctlw;
    uint8_t  dr_ctll;
};

/* ---- buffer slot (1040 bytes, maxbufs of them at buf_base) ---- */
#define BU_DIRTY    0x8000   /* bu_id: the page was changed and is due to be written */
#define BU_INUSE    0x4000   /* bu_id: a call holding the file's control lock uses the page */
#define BU_FILEMASK 0x3FFF   /* bu_id: the owner's slot in the shared-file table */

typedef struct IS_BUF {
    int16_t  bu_next;   /* 0: next slot in the same list, -1 ends */
    uint16_t bu_id;     /* 2: marks and owner file number */
    LRUt     bu_cnt;    /* 4: last-use stamp */
    LRUt     bu_wcnt;   /* 8: load/write stamp */
    PAGE     bu_pno;    /* 12: page held */
    IS_DATA  bu_data;   /* 16: the page */
} IS_BUF;

/* ---- control page ---- */
typedef struct IS_KEY {
    PAGE    k_root;      /*  0 */
    int16_t k_order;     /*  4 */
    int16_t k_keylen;    /*  6 */
    int16_t k_offset;    /*  8 */
    int16_t k_itemlen;   /* 10 */
    int16_t k_ncomp;     /* 12 */
    int16_t k_obsolete;  /* 14 */
} IS_KEY;

typedef IS_KEY oIS_KEY;  /* the old layout's key descriptor has the same form */

typedef struct JD_INFO {       /* sharing header in front of the shared control page */
    kisam_u64a4 jd_ino;        /*  0 */
    kisam_u64a4 jd_dev;        /*  8 */
    uint32_t    jd_fcplock;    /* 16: control lock word */
    RELt        jd_lock_hd;    /* 20: first record-lock entry */
    int16_t     jd_buf_hd;     /* 24: first buffer of the file's chain, -1 none */
    int16_t     jd_bits;       /* 26 */
    uint32_t    jd_pad;        /* 28 */
} JD_INFO;

/* Shared in-memory control page: JD_INFO, then the on-disk fields at disk offset + 32.
 * It occupies 136 + 16 * is_nkeys bytes of the common heap. */
typedef struct IS_FCP {
    kisam_u64a4 jd_ino;        /*   0 */
    kisam_u64a4 jd_dev;        /*   8 */
    uint32_t    jd_fcplock;    /*  16 */
    RELt        jd_lock_hd;    /*  20 */
    int16_t     jd_buf_hd;     /*  24 */
    int16_t     jd_bits;       /*  26 */
    uint32_t    jd_pad;        /*  28 */
    MAGICt      is_magic;      /*  32 (disk 0) */
    int16_t     is_nkeys;      /*  34 (disk 2) */
    PAGE        is_nextfree;   /*  36 (disk 4) */
    PAGE        is_lastpage;   /*  40 (disk 8) */
    uint32_t    Ofcp_time;     /*  44 (disk 12) */
    PAGE        is_cdp[16];    /*  48 (disk 16) */
    int32_t     is_spare1;     /* 112 (disk 80) */
    int16_t     is_usecnt;     /* 116 (disk 84) */
    int16_t     is_minrec;     /* 118 (disk 86) */
    uint8_t     is_optbits;    /* 120 (disk 88) */
    int8_t      is_spare2;     /* 121 (disk 89) */
    int16_t     is_spare3;     /* 122 (disk 90) */
    int16_t     is_spare4;     /* 124 (disk 92) */
    int16_t     is_spare5;     /* 126 (disk 94) */
    int16_t     is_mincdpi;    /* 128 (disk 96) */
    int16_t     is_spare6;     /* 130 (disk 98) */
    IS_KEY      is_keys[1];    /* 132 (disk 100): is_nkeys descriptors */
} IS_FCP;

#define IS_FCP_JDSIZE   32                   /* bytes of the sharing header before is_magic */
#define IS_FCP_SIZE(nkeys) (136 + 16 * (nkeys))  /* bytes of a shared control page */

/* ---- record-lock entry in the common heap ---- */
typedef struct IS_RC {
    RELt     rc_next;       /*  0 */
    int16_t  rc_waitcount;  /*  4 */
    int16_t  rc_pad;        /*  6 */
    uint32_t rc_lock;       /*  8 */
    int16_t  rc_isfd;       /* 12 */
    int16_t  rc_len;        /* 14 */
    char     rc_key[1];     /* 16: rc_len bytes */
} IS_RC;

/* ---- common heap block header ---- */
typedef struct Cheader {
    RELt        Cnext;   /* 0 */
    uint32_t    Cpad;    /* 4 */
    kisam_u64a4 Csize;   /* 8: size in 16-byte units, header included */
} Cheader;

/* ---- per-process tables ---- */
typedef struct IS_PFI {
    int      pfi_osfd;    /* descriptor, -1 when this process has the file closed */
    uint8_t  pfi_bits;    /* 0x01 read-only, 0x02 1024-byte control page, 0x04 sequential, 0x08 deferred */
    int8_t   pfi_nkeys;   /* key count at open */
    int16_t  pfi_refcnt;  /* this process's handles on the file */
    int16_t  pfi_ctlcnt;  /* nesting depth of this process's control-lock hold */
} IS_PFI;

#define PFI_RDONLY 0x01   /* pfi_bits: this process has the file read-only */
#define PFI_BIGFCP 0x02   /* pfi_bits: 1024-byte control page (magic 0xAB55) */
#define PFI_SEQ    0x04   /* pfi_bits: opened with ISF_SEQ */
#define PFI_DEFER  0x08   /* pfi_bits: opened with ISF_DEFER */

typedef struct IS_DBKEY {
    PAGE    currpage;     /* page hint, 0xFFFFFFFF none */
    LRUt    curr_wcnt;
    int16_t curr_buid;
    int16_t curr_kstate;  /* 0 no position, 1 search value set, 2 positioned */
    char   *currkey;      /* k_itemlen bytes */
} IS_DBKEY;

typedef struct IS_DB {
    int16_t  uniqueid;    /* shared-file slot */
    int16_t  pad;
    char    *temp;        /* scratch item of the largest k_itemlen */
    IS_DBKEY db_key[1];   /* one cursor per key */
} IS_DB;

/* Per-process pointers into the attached common area. */
struct is_envinfo {
    IS_BUF  *buf_;
    char    *heap_;
    int32_t *pfo_tbl;
    int32_t *pid_;
    uint32_t *needs_;
    int16_t  useridx;
};

/* Error stack entry: read as a little-endian 16-bit word it is the procedure code. */
struct is_etrace {
    int8_t is_euid;   /* detail */
    int8_t is_eproc;  /* procedure character */
};

struct file_info {
    ino_t f_inode;
    dev_t f_dev;
    PAGE  f_size;
};

#ifdef __cplusplus
}
#endif

#endif /* KISAM_ISAMDB_H */
