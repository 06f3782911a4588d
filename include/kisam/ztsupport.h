/*
 * libkisam support library: message output, settings store, parameter and
 * configuration files, file operations and system queries, mutexes, string and
 * buffer helpers.
 *
 * Functions return 0 or -1 (or a pointer or null) and report through VError and
 * the three message hooks ZTVDebug, ZTVErrorW and ZTVError, which a host program
 * may define itself to receive the library's messages.
 */
#ifndef KISAM_ZTSUPPORT_H
#define KISAM_ZTSUPPORT_H

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- message output ---- */
void VMsg(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void VError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int  StdFlush(FILE *fp);
void ZTVDebug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ZTVErrorW(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ZTVError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int  ZTGetErrno(void);
void ZTSleep(int seconds);
void ZTSleepMS(int ms);

/* ---- environment store ---- */
void  LoadEnv(void);
char *ZTGetEnvX(const char *name);
void  ZTPutEnv(const char *name, const char *value);
void  ZTFileNameFix(char *path);

/* Buffers that receive a path from the library (getQ9dir, getQ9dirX) must hold
 * ZT_PATHBUF bytes: paths are limited to 512 characters plus the NUL. */
#define ZT_PATHBUF 513

/* ---- settings lists ---- */
/* One record of a settings list.  A record made by addvl is a single allocation:
 * this header, the key text from `key` on, then the value text (valp points at it). */
typedef struct ValList {
    struct ValList *next;   /* next record, null at the tail */
    char *valp;             /* the value, never null for records made by addvl */
    signed char ty;         /* bit 0: valp is owned separately (repvl); others: type tag */
    char key[3];            /* the key, stored inline and NUL-terminated */
} ValList;

void  nullvl(ValList **headp);
void  emptyvl(ValList **headp);
int   addvl(ValList **headp, const char *key, char *value);   /* value may be changed */
int   repvl(ValList **headp, const char *key, char *value, int type);
char *getvlp(ValList *head, const char *key);
int   getvlty(void);
int   ICStrcmp(const char *a, const char *b);
void  printvlp(ValList *head);
int   convline(char *dst, const char *src);
int   convlineverify(char *dst, const char *src);

/* ---- mutexes ---- */
typedef struct ZTMutex {
    uint32_t m_bits;            /* 1 initialised, 2 global, 4 lock on fork */
    int m_count;                /* recursion depth of the owner (local kind) */
    struct ZTMutex *m_nextp;    /* list of all local mutexes */
    struct ZTMutex *m_prevp;
    pthread_mutex_t m_mtx;      /* recursive thread mutex (local kind) */
    pthread_t m_owner;          /* holder, 0 when free */
    int m_lockfd;               /* lock file descriptor (global kind), else -1 */
    char *m_lockfnp;            /* lock file path (global kind), owned */
    struct ZTMutex *m_localmp;  /* companion local mutex (global kind), owned */
} ZTMutex;

#define ZTMTX_INIT    0x1u
#define ZTMTX_GLOBAL  0x2u
#define ZTMTX_ONFORK  0x4u

extern ZTMutex *mtx_headp;
extern ZTMutex *mtx_tailp;

ZTMutex *ZTMutexAlloc(const char *name);
int      ZTMutexInit(ZTMutex *mp, const char *name);
ZTMutex *ZTGlobalMutexAlloc(const char *name);
int      ZTGlobalMutexInit(ZTMutex *mp, const char *name);
int      ZTMutexLock(ZTMutex *mp);
int      ZTMutexLockWTO(ZTMutex *mp, int seconds);
int      ZTMutexUnlock(ZTMutex *mp);
void     ZTMutexDestroy(ZTMutex *mp);
void     ZTMutexFree(ZTMutex *mp);
void     ZTMutexLockOnFork(ZTMutex *mp);
void     ZT_PrepareForkCB(void);
void     ZT_ParentForkCB(void);
void     ZT_ChildForkCB(void);

/* ---- environment store (continued) ---- */
extern char *zt_homep;
extern char *zt_appdatap;
extern char *zt_comappdatap;
extern char *zt_docp;
extern char *zt_imagep;
extern char *zt_climagep;
extern char *zt_tempp;
extern char *zt_sessionp;
extern int zt_datetype;
extern ZTMutex *zt_mtxp;
extern ZTMutex *zt_glblmtxp;
extern uint32_t zt_bits;

char *GetUsrEnv(const char *name);
char *GetSysEnv(const char *name);
char *ZTGetEnv(const char *name);
int   ZTPutRealEnv(const char *name, const char *value);
int   ZTExpand(const char *text, char *out, int size);
void  ZTUpdatePath(void);
int   getQ9dir(const char *word, char *out);
int   getQ9dirX(const char *word, char *out);
void  ZTSetNoExport(void);
int   ZTSysMutexAlloc(void);
void  ZTSysMutexFree(void);
void  FreeUsrEnv(void);
void  FreeSysEnv(void);
void  printvllist(void);
void  printusrenv(void);
int   strendsin(const char *s, const char *t);
int   strbeginsin(const char *s, const char *t);
int   IsFileSepChar(int c);

/* ---- parameter files ---- */
typedef struct ParmData {
    char parmbuf[1024];      /* the current logical line */
    char parmargs[1074];     /* cracked argument texts, each NUL-terminated */
    char *parmargv[51];      /* argument texts, null-terminated */
    int32_t parmargn[50];    /* numeric values, INT32_MIN when not a number */
    int parmargl[50];        /* argument lengths */
} ParmData;

int     ParmOpen(const char *path);
int     ParmRead(void);
char   *ParmID(void);
char   *ParmValue(void);
int     ParmArgc(void);
char   *ParmArgvS(int i);
int     ParmArgvSl(int i);
int32_t ParmArgvN(int i);

/* ---- configuration entries ---- */
typedef struct ZTConfigInfo ZTConfigInfo;   /* opaque */

ZTConfigInfo *ZTCFOpen(const char *path);
void  ZTCFClose(ZTConfigInfo *cip);
char *ZTCFGetLine(ZTConfigInfo *cip);
void  ZTCFUngetLine(ZTConfigInfo *cip);
char *ZTCFGetEntry(ZTConfigInfo *cip);
int   ZTCFParseEntry(ZTConfigInfo *cip, char **argv, int maxargs, const char *delims);
int   ZTCFGetParsedEntry(ZTConfigInfo *cip, char **argv, int maxargs, const char *delims);

/* ---- file operations and system queries ---- */
/* ZTFileOp commands */
#define ZTFO_COPY          1
#define ZTFO_MOVE          2
#define ZTFO_RENAME        3
#define ZTFO_DELETE        4
#define ZTFO_CREATEDIR     5
#define ZTFO_CREATEFILE    6
#define ZTFO_DELETEDIR     7
#define ZTFO_DELETEFILE    8
#define ZTFO_TESTEXIST     9
#define ZTFO_TESTDIR      10
#define ZTFO_TESTFILE     11
#define ZTFO_TESTDIREMPTY 12
#define ZTFO_TRUNCATE     13
#define ZTFO_SIZE32       14
/* ZTFileOp flags */
#define ZTFO_QUIET     2
#define ZTFO_VERBOSE   4
#define ZTFO_FORCE     8
#define ZTFO_RECURSIVE 16

typedef void (*ZTSigHandler)(int);

int   ZTFileOp(int cmd, int flags, int *statusp, int count, char **paths);
int   ZTFileOpErrStatus(const char *opword, int flags, int err);
int   ZTMakeDirs(const char *path);
void  ZTRMDashRF(const char *dir);
void  ZTRMTmpWQStar(void);
int   ZTFileExists(char *path);
int   ZTFileIsDir(const char *path);
int   ZTFileIsFile(const char *path);
char *ZTDirname(char *path);
char *ZTBasename(char *path);
ZTSigHandler ZTSignal(int sig, ZTSigHandler handler);
ZTSigHandler ZTSignal_intr(int sig, ZTSigHandler handler);
int   ZTIsAdmin(void);
char *ZTGetUserName(void);
int   ZTGetUIDFromName(const char *name);
char *ZTGetComputerName(void);
char *ZTGetOsType(void);
char *ZTGetOsName(void);
int   ZTGetOsVer(void);
int   ZTGetOsPlatform(void);
void  ZTSetClType(const char *type);
char *ZTGetClType(void);
void *ZTLibLoad(const char *name);
void  ZTLibUnload(void *handle);
void *ZTLibGetProcAddr(void *handle, const char *symbol);

/* ---- string and buffer helpers ---- */
extern uint32_t *zt_uimaxumemp;

int   ZTSplitArgs(char *line, char **argv, int maxargs, const char *delims, int flags);
int   SplitArgs(char *line, char **argv, int maxargs, const char *delims);
int   SplitArgsNoQuote(char *line, char **argv, int maxargs, const char *delims);

void *ZTAlloc(uint32_t n);
void  ZTFree(void *p);
char *ZTStrAlloc(const char *s);
void  ZTAllocDbgStart(void);
void  ZTAllocDbgEnd(void);

void  StripBl(char *s);
void  LStripBl(char *s);
void  RightFill(char *s, int ch, int n);
void  BlFill(char *s, int n);
void  chlfillmem(char *s, int maxlen, int ch);
void  uctolc(char *dst, const char *src);
void  lctouc(char *dst, const char *src);
void  chconv(char *s, int from, int to);
int   ZTStringReplaceChar(char *s, int from, int to);
int   ZTStringStripChars(const char *fromvalp, const char *stripcharp, char *tobufp, int buflen);
char *ZTStrNCopy(char *dst, const char *src, int n);
int   ZTIndex(const char *s, int ch);

int   equsub(const char *a, const char *b);
int   ICEqusub(const char *a, const char *b);
int   issubstr(const char *a, const char *b);
int   icissubstr(const char *a, const char *b);
int   cmpbuf(const void *p, const void *q, int n);

void    ToWBuf(void *buf, int v);
int16_t FromWBuf(const void *buf);
void    ToLBuf(void *buf, int32_t v);
int32_t FromLBuf(const void *buf);
void    ToL64Buf(void *buf, int64_t v);
int64_t FromL64Buf(const void *buf);
char   *ZTLtoA(int32_t n, char *s, int w);
char   *ZTItoA(int n, char *s, int w);
char   *ZTLongtoA(int64_t n, char *s, int w);
char   *ZTL64toA(int64_t n, char *s, int w);

void  mvbytes(const void *from, void *to, int n);
void  mvovbytes(const void *from, void *to, int n);
void  notbytes(void *buf, int n);
void  nullmem(void *p, int n);
void  chfillmem(void *p, int n, int ch);
void  mvf_sstr(const char *from, char *to, int first, int last);
void  mvt_sstr(const char *from, char *to, int first, int last);

void  SetLBit(uint32_t *word, int n);
int   ZTGet128Bit(const void *set, int n);
void  ZTSet128Bit(void *set, int n);
int   ZTGetBit(const void *set, int n);
void  ZTSetBit(void *set, int n);
void  ZTClearBit(void *set, int n);

int      ZTPathIsAbsolute(const char *p);
int      ZTPathIsURL(const char *p);
uint32_t ZTFileGetCTime(const char *dir, const char *name);
uint32_t ZTFileGetMTime(const char *dir, const char *name);

uint32_t ZTStringHash(const char *s);
uint32_t ZTICStringHash(const char *s);
uint32_t ZTBufHash(const void *p, int n);
uint16_t Fletcher16CSum(const void *p, int n);
void     printhexbytearray(const char *header, const void *p, int n);
void     ZT_stripfill(const char *value, const char *format, char *out);

#ifdef __cplusplus
}
#endif

#endif /* KISAM_ZTSUPPORT_H */
