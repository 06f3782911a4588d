/*
 * libkisam: indexed-sequential files shared by many processes.
 *
 * Call is_init() once (or let the first nisopen()/niscreate() do it), then work on
 * files through the nis* operations.  Every operation returns a negative value on
 * failure and leaves is_errno and the procedure stack behind; niserrmsg() and
 * niserrmsgget() turn them into text.  One thread per process uses the engine at a time.
 */
#ifndef KISAM_KISAM_H
#define KISAM_KISAM_H

#include <kisam/isamdb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- error codes (is_errno) ---- */
#define ISE_BTNP          1
#define ISE_CREATF        2
#define ISE_INITERR       3
#define ISE_NKEYERR       4
#define ISE_NOIDB         5
#define ISE_NOKEY         6
#define ISE_OPENF         7
#define ISE_INVKL         8
#define ISE_RONLY         9
#define ISE_RSIZE         10
#define ISE_BADFD         11
#define ISE_BADKN         12
#define ISE_NOFCP         13
#define ISE_NOTISAM       14
#define ISE_RDSK          15
#define ISE_RDWT          16
#define ISE_BUFLINK       17
#define ISE_RDRD          18
#define ISE_FLSK          19
#define ISE_FLWT          20
#define ISE_NWSK          21
#define ISE_NWWT          22
#define ISE_FLFCP         23
/* The file is damaged: a page, link or record met on the way breaks the structure
 * of the file -- of an index, a data page, an overflow chain or the free chain, not
 * only of a B-tree.  Every failure that is found in the contents of the file (rather
 * than in reading or writing it) is reported with this code, and the stack says where
 * it was found. */
#define ISE_BTS           24
#define ISE_KEYSAVE       25
#define ISE_TMFILES       26
#define ISE_MAGICVALERR   27
#define ISE_VERSIONERR    28
#define ISE_CREATEISOPEN  29
#define ISE_INCONSISTENT  30
/* A wait for a lock that the kernel refused because it would close a cycle of
 * waits between processes (errno EDEADLK).  The operation fails and holds nothing
 * it did not hold before.  One case gives up more: nislock, having waited for a
 * record lock, must take the file's control lock back; when that is refused again
 * and again for about a second, it returns -1 with this code and this process then
 * holds the file's control lock no more, also where it had taken it with nisgetctl
 * (a later nisrelctl is harmless).  It has no text of its own: reports use the
 * "isam error #31" form followed by the system error. */
#define ISE_DEADLOCK      31

/* ---- open access flags ---- */
#define ISO_RDONLY   0
#define ISO_RDWR     2
#define ISF_SEQ      0x8000  /* sequential file without control page */
#define ISF_DEFER    0x4000
#define ISF_NOVERIFY 0x2000  /* accept a file whose data-changed mark is set */

/* ---- error state ---- */
extern short is_errno;
extern struct is_etrace is_estk[20];
extern struct is_etrace *is_etop;
extern int64_t is_eall;

/* ---- call framing ---- */
extern short Iscurfun;
extern short Islastfun;
extern IS_DB *is_curdb;
extern IS_PFI *is_curpfi;
extern IS_FCP *is_curfcp;

/* ---- attachment state ---- */
extern struct isam_com *isam_com;
extern int is_pid;
extern int is_lockfd;
extern struct is_envinfo is_env;
extern IS_DB **is_db;
extern IS_PFI *is_pfi;
extern long maxheapsize;
extern const char *hexchars;

/* B-tree split rule: non-zero splits evenly, zero splits at the insertion point. */
extern short Sp_half;

/* ---- start-up and shutdown ---- */
int  is_init(void);
int  is_chinit(void);           /* in a child after fork() */
int  isallclose(void);
int  nisunisam(void);
void nisexit(int rc);

/* ---- files ---- */
void niscr_ctl(int keyopt, int magicv);
int  niscreate(const char *filename, int nkeys, const int *key_lens);
int  nisopen(const char *filename, int access);
int  nisclose(int isfd);
int  nisflush(int isfd);
int  nisstat(int isfd, int maxkeys, int *keylens);

/* ---- records ---- */
int  nisread(int isfd, int keyno, char *record, int recsize);
int  nispread(int isfd, int keyno, char *record, int recsize);
int  nisfind(int isfd, int keyno, const char *key, char *record, int recsize);
int  nisseek(int isfd, int keyno, const char *key);
int  niswrite(int isfd, const char *record, int recsize);
int  nisfwrite(int isfd, const char *record, int recsize);
int  nisupdate(int isfd, const char *record, int recsize);
int  nisdelete(int isfd, const char *primekey);

/* ---- locks ---- */
int  nisgetctl(int isfd);
int  nisrelctl(int isfd);
int  nislock(int isfd, const char *key, int keylen, int rtnopt);
int  nisunlock(int isfd, const char *key, int keylen, int matchopt);

/* ---- errors ---- */
void  niserrmsg(void);
int   niserrmsgget(char *buf, int buflen);
char *KIprocname(short pnum);
void  is_msg(short proc, short detail);

/* ---- text helpers of the common module ---- */
void wqltoa(long n, char *str, int w);
void wqitoa(int n, char *str, int wid);
int  wqindex(const char *str, char ch);

/* ---- entry table and service entries ---- */
typedef struct KisamEntryTable {
    void *reserved0;                                   /* never touched by the library */
    void *reserved1;                                   /* never touched by the library */
    int   (*ZTKISAMTest)(const char *s);
    int   (*ZTKISAMGetLastError)(void);
    void *(*ZTKISAMGetComAddr)(void);
    int   (*is_init)(void);
    void  (*nisexit)(int rc);
    int   (*nisunisam)(void);
    int   (*nisclose)(int isfd);
    int   (*niscreate)(const char *filename, int nkeys, const int *key_lens);
    int   (*nisopen)(const char *filename, int access);
    int   (*nisdelete)(int isfd, const char *primekey);
    void  (*niserrmsg)(void);
    int   (*nisfind)(int isfd, int keyno, const char *key, char *record, int recsize);
    int   (*nisflush)(int isfd);
    int   (*nisfwrite)(int isfd, const char *record, int recsize);
    int   (*nisgetctl)(int isfd);
    int   (*nislock)(int isfd, const char *key, int keylen, int rtnopt);
    int   (*nisrelctl)(int isfd);
    int   (*nispread)(int isfd, int keyno, char *record, int recsize);
    int   (*nisread)(int isfd, int keyno, char *record, int recsize);
    int   (*nisseek)(int isfd, int keyno, const char *key);
    int   (*nisstat)(int isfd, int maxkeys, int *keylens);
    int   (*nisupdate)(int isfd, const char *record, int recsize);
    int   (*nisunlock)(int isfd, const char *key, int keylen, int matchopt);
    int   (*niswrite)(int isfd, const char *record, int recsize);
    int   (*niserrmsgget)(char *buf, int buflen);
    int   (*ZTKISAMGetLastErrorMsg)(char *buf, int buflen);
} KisamEntryTable;

int   ZTKISAMInit(KisamEntryTable *tbl);
int   ZTKISAMTest(const char *s);
void  test2(void);
int   ZTKISAMGetLastError(void);
int   ZTKISAMGetLastErrorMsg(char *buf, int buflen);
void *ZTKISAMGetComAddr(void);

#ifdef __cplusplus
}
#endif

#endif /* KISAM_KISAM_H */
