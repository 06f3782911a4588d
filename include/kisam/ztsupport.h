/*
 * libkisam support library: message output, settings store, parameter and
 * configuration files, file operations and system queries, mutexes, string and
 * buffer helpers.  The manual page ztsupport(3) describes it at more length.
 *
 * Functions return 0 or -1 (or a pointer or null) and report through VError and
 * the three message hooks ZTVDebug, ZTVErrorW and ZTVError, which a host program
 * may define itself to receive the library's messages.  None of them touches is_errno.
 *
 * Threads: the settings store, the parameter-file reader and the settings-list lookup
 * state are process-wide and unguarded (use them from one thread, in practice at
 * start-up); the mutexes are for threads and processes; the other helpers are
 * reentrant.  Text arguments must not be null unless a comment says otherwise.
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
/* VMsg, VError: format a message (at most 1023 characters with its newline; longer
 * texts are cut) and write it with one fputs to stdout (VMsg) or stderr (VError), adding
 * a newline unless it ends in one; not flushed.  A null or empty format writes nothing. */
void VMsg(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void VError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/* fflush(fp); returns its result. */
int  StdFlush(FILE *fp);
/* Message hooks.  The library's own definitions do nothing; a host program that defines
 * functions of these names (with C linkage) receives the messages instead, since every
 * call is resolved by name at load time.  ZTVDebug: escape-conversion warnings of the
 * settings lists.  ZTVError: file-operation messages, ZTLibLoad failures, and ZTAlloc's
 * report before it aborts.  ZTVErrorW: the same form, never called by the library. */
void ZTVDebug(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ZTVErrorW(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ZTVError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/* Returns errno. */
int  ZTGetErrno(void);
/* Sleeps seconds (ZTSleep) or milliseconds (ZTSleepMS, resumed after a signal); a value
 * of 0 or less does not sleep. */
void ZTSleep(int seconds);
void ZTSleepMS(int ms);

/* ---- environment store ----
 * Two lists of settings: the user store (the profile $PROFILEQ9ENV, else
 * $HOME/.Q9.profile, plus everything put at run time and every process-environment
 * variable looked up) and the system store ($HOME_Q9/Q9.info, default HOME_Q9
 * "/usr/q9", and the site file named by config_fn, default base_dir/Q9Config).  Names
 * are compared without regard to case.  Each store is loaded once per process, at the
 * first lookup; later changes of the files or of the process environment are not seen.
 * Returned texts point into the stores: do not change or free them; they stay valid
 * until that setting is replaced. */

/* Loads the user store, then the system store, if not loaded yet.  Loading the system
 * store also settles the installation's directories (zt_homep and the other zt_*
 * globals), exports them to the process environment (ZT_HOME, ZT_APPDATA, ...), adds
 * $HOME_Q9/bin to PATH, creates the per-user and shared directories, and creates the
 * two system mutexes (zt_mtxp, zt_glblmtxp).  Missing files are skipped silently. */
void  LoadEnv(void);
/* Looks name up: the user store (then the process environment, whose value is kept in
 * the user store), the system store, and last the override variable: "WQ" and the
 * upper-cased name less a trailing "_dir", "_lst" or "_fn" (tmp_dir: WQTMP).  Null when
 * none has it. */
char *ZTGetEnvX(const char *name);
/* Puts name = value into the user store, after ${NAME} expansion (ZTExpand, 1024
 * bytes).  The process environment is not changed (ZTPutRealEnv changes it). */
void  ZTPutEnv(const char *name, const char *value);
/* Folds runs of "/" in path into one, in place; after a URL scheme ("http://", ...) the
 * first double slash stays. */
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

/* Keys are compared without regard to case; a list holds one record per key, in the
 * order keys were first added. */

/* nullvl: sets *headp to null without freeing anything.  emptyvl: frees every record
 * (and every value a record owns) and sets *headp to null. */
void  nullvl(ValList **headp);
void  emptyvl(ValList **headp);
/* Adds key = value, replacing in place the record of the same key if there is one.  A
 * value written in matching single or double quotes is unquoted and escape-converted
 * (convline) in the caller's buffer, which is changed.  Returns 0, or -1 when memory runs
 * out (the list is unchanged). */
int   addvl(ValList **headp, const char *key, char *value);   /* value may be changed */
/* Gives the record of key the value pointer value, which the record then owns (it is
 * freed with the record; a value it owned before is freed now), and the type tag type
 * (ty = type with bit 0 set).  Returns 0, or -1 for an empty list or an unknown key. */
int   repvl(ValList **headp, const char *key, char *value, int type);
/* getvlp: the value of key in the list, or null; remembers the record's ty.  getvlty: the
 * ty of the record the last getvlp found, -1 when it found none (process-wide). */
char *getvlp(ValList *head, const char *key);
int   getvlty(void);
/* Compares two texts without regard to case: 0 when equal, else the difference of the
 * upper-cased characters where they differ (negative when a sorts first). */
int   ICStrcmp(const char *a, const char *b);
/* Writes one line per record to stdout (VMsg): key, value address, length and value. */
void  printvlp(ValList *head);
/* Escape conversion of src into dst (dst may equal src): backslash with a, b, e, f, n, r,
 * t, v (either case) gives the control character, with any other character that
 * character; caret with a letter or "@" to "Z" gives the control character.  Problems
 * keep the character and send a warning to ZTVDebug.  convline returns the length of the
 * result, convlineverify the number of warnings; a null dst returns 0. */
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

#define ZTMTX_INIT    0x1u   /* m_bits: initialised */
#define ZTMTX_GLOBAL  0x2u   /* m_bits: a global (cross-process) mutex */
#define ZTMTX_ONFORK  0x4u   /* m_bits: held across fork() (ZTMutexLockOnFork) */

/* mtx_headp, mtx_tailp: first and last of the list of every local mutex of the process,
 * in order of creation (read-only). */
extern ZTMutex *mtx_headp;
extern ZTMutex *mtx_tailp;

/* A local mutex is a recursive thread mutex of one process.  A global mutex is a named
 * lock shared by every process of the machine: a lock file name + ".lck" (under
 * zt_comappdatap when name is not absolute; created with mode 0666 and removed by the
 * last process to destroy its mutex) plus a local mutex for the threads of one process.
 * Null mutex pointers are reported through VError and give -1. */

/* Allocates and initialises a local mutex (name is ignored and may be null).
 * ZTMutexInit does it in a caller's zeroed record; returns 0 (-1 for a null record). */
ZTMutex *ZTMutexAlloc(const char *name);
int      ZTMutexInit(ZTMutex *mp, const char *name);
/* Allocates and initialises a global mutex named name; null for a null name or when its
 * lock file cannot be opened and locked (11 attempts, a second apart).
 * ZTGlobalMutexInit does it in a caller's zeroed record; returns 0 or -1. */
ZTMutex *ZTGlobalMutexAlloc(const char *name);
int      ZTGlobalMutexInit(ZTMutex *mp, const char *name);
/* Locks, waiting as long as needed; the owner may lock again (a global mutex then
 * releases for the whole process at its first unlock).  Returns 0, or -1 or the thread
 * mutex's error code. */
int      ZTMutexLock(ZTMutex *mp);
/* Locks a local mutex, trying once a second up to max(seconds, 1) times.  Returns 0,
 * 1 when it timed out, -1 for a global or uninitialised mutex or another error. */
int      ZTMutexLockWTO(ZTMutex *mp, int seconds);
/* Unlocks one level.  Returns 0, or -1 or the thread mutex's error code. */
int      ZTMutexUnlock(ZTMutex *mp);
/* ZTMutexDestroy: releases what the record holds (thread mutex, lock file) and keeps the
 * record; nothing for a null or uninitialised one.  ZTMutexFree: destroys and frees a
 * record from ZTMutexAlloc or ZTGlobalMutexAlloc; null is allowed. */
void     ZTMutexDestroy(ZTMutex *mp);
void     ZTMutexFree(ZTMutex *mp);
/* Marks a local mutex to be held by the forking thread across fork(), so that the child
 * finds it in a consistent state. */
void     ZTMutexLockOnFork(ZTMutex *mp);
/* The fork handlers, registered with pthread_atfork at the first mutex initialisation:
 * ZT_PrepareForkCB locks the marked mutexes, ZT_ParentForkCB unlocks them,
 * ZT_ChildForkCB re-creates every local mutex unlocked.  A program never needs to call
 * them. */
void     ZT_PrepareForkCB(void);
void     ZT_ParentForkCB(void);
void     ZT_ChildForkCB(void);

/* ---- environment store (continued) ----
 * Directories settled by loading the system store (null until then; do not change):
 * zt_homep: the installation home (base_dir, else $HOME_Q9 when it is a directory, else
 * "."); zt_appdatap: per-user data ($HOME/.Q9, or $ZT_APPDATA); zt_comappdatap: shared
 * data ($HOME_Q9/share, or $ZT_COMMONAPPDATA); zt_docp: $HOME/Documents (or
 * $ZT_DOCUMENTS); zt_imagep: base/images; zt_climagep: shared data/images; zt_tempp:
 * base/tmp (or $ZT_TEMP); zt_sessionp: per-user data/s_<pid in 8 hex digits>.
 * zt_datetype: 0 American dates (default), 1 European (setting datetype "EUROPEAN").
 * zt_mtxp, zt_glblmtxp: the library's local mutex and its global mutex "_Q9_Glbl_Mtx_".
 * zt_bits: a flag word for the programs; the library neither sets nor reads it. */
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

/* GetUsrEnv: the user store, then the process environment (cached in the user store).
 * GetSysEnv: the system store only.  ZTGetEnv: the user lookup, then the system store
 * (and for "WQSYSTEM" the setting system_dir).  Null when not found. */
char *GetUsrEnv(const char *name);
char *GetSysEnv(const char *name);
char *ZTGetEnv(const char *name);
/* Sets name in the process environment and the user store, after ${NAME} expansion;
 * an empty value removes the variable from the process environment, a null value removes
 * it and stores it empty.  Putting "ZT_UMASK" also sets the process's umask (C number
 * syntax).  Returns 0, or -1 for a null or empty name, a name holding "=", or no
 * memory. */
int   ZTPutRealEnv(const char *name, const char *value);
/* Copies text into out (size bytes, always terminated, cut to fit), replacing each
 * ${NAME} by ZTGetEnvX(NAME) or by nothing; not recursive.  Returns the length. */
int   ZTExpand(const char *text, char *out, int size);
/* Adds zt_homep/bin to PATH unless it is there already or zt_homep is not absolute. */
void  ZTUpdatePath(void);
/* Stores in out (ZT_PATHBUF bytes) the directory named by the setting word + "_dir",
 * with a trailing "/", else base_dir/word/ when that is a directory.  Returns 0, or -1
 * when neither names a directory.  getQ9dirX also consults the WQ override variable. */
int   getQ9dir(const char *word, char *out);
int   getQ9dirX(const char *word, char *out);
/* Keeps the directories from the process environment (they go to the user store only),
 * leaves PATH alone and creates no per-user directories.  Call it before the first lookup. */
void  ZTSetNoExport(void);
/* Loads the environment and creates zt_mtxp and zt_glblmtxp if missing; 0, or -1 (with a
 * message through VError) when one cannot be made.  ZTSysMutexFree frees both. */
int   ZTSysMutexAlloc(void);
void  ZTSysMutexFree(void);
/* FreeUsrEnv, FreeSysEnv: empty the user store, or the system store (and free the
 * system mutexes).  The stores
 * are not loaded again afterwards, and no directory may be looked up any more. */
void  FreeUsrEnv(void);
void  FreeSysEnv(void);
/* printvllist: both stores on stdout; printusrenv: the user store (printvlp). */
void  printvllist(void);
void  printusrenv(void);
/* strendsin: 1 when s is longer than t and ends with t.  strbeginsin: 1 when s begins
 * with t (case-sensitive).  IsFileSepChar: 1 for "/".  0 otherwise. */
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

/* One parameter file at a time per process.  A record is a line that begins with an
 * identifier (letters, digits, "_"; starting with a letter or "_"), blanks or tabs, and
 * a value to the end of the line; a line ending in a backslash continues on the next;
 * other lines are skipped.  The texts returned live until the next ParmRead. */

/* Closes the open file, then opens path for reading.  Returns 0, or the errno of the
 * failed open.  A null or empty path only closes and frees the reader; returns 0. */
int     ParmOpen(const char *path);
/* Reads the next record: 1 a record, 0 end of file, -1 read error, -2 no file open. */
int     ParmRead(void);
/* ParmID: the current record's identifier.  ParmValue: its value (null when it has
 * none). */
char   *ParmID(void);
char   *ParmValue(void);
/* The value split into at most 50 arguments: words and numbers (C syntax: 0x1F, 010),
 * quoted strings (quotes removed, backslash escapes), and runs of punctuation.
 * ParmArgc: their number.  ParmArgvS: argument i, null outside 0 .. count-1.
 * ParmArgvSl: its length, -1 outside.  ParmArgvN: its numeric value, INT32_MIN when it
 * is not a number or i is outside. */
int     ParmArgc(void);
char   *ParmArgvS(int i);
int     ParmArgvSl(int i);
int32_t ParmArgvN(int i);

/* ---- configuration entries ---- */
typedef struct ZTConfigInfo ZTConfigInfo;   /* opaque */

/* An entry is a line that starts in the first column and the indented lines after it;
 * "#" starts a comment anywhere.  Texts returned live in the reader until its next call. */

/* Opens path for reading; null when it cannot be opened.  ZTCFClose closes and frees. */
ZTConfigInfo *ZTCFOpen(const char *path);
void  ZTCFClose(ZTConfigInfo *cip);
/* ZTCFGetLine: the next physical line (newline included), null at the end.
 * ZTCFUngetLine: the next ZTCFGetLine returns the last line again. */
char *ZTCFGetLine(ZTConfigInfo *cip);
void  ZTCFUngetLine(ZTConfigInfo *cip);
/* The next entry: its lines without indentation and comments, each ending in a newline
 * (at most 8191 characters; the rest is dropped); null at the end. */
char *ZTCFGetEntry(ZTConfigInfo *cip);
/* Splits the current entry in place with SplitArgs into argv (maxargs slots, null-ended).
 * Returns the number of fields, 0 for an empty entry, -1 when it was split already.
 * ZTCFGetParsedEntry: ZTCFGetEntry, then ZTCFParseEntry; -1 at the end of the file. */
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

/* Runs file operation cmd (ZTFO_COPY ... ZTFO_SIZE32) on paths[0 .. count-1], after
 * ${NAME} expansion of each.  Copy, Move (sources..., destination; parent directories of
 * the destination are created), Rename (2 paths) and Delete run cp, mv and rm, each path
 * passed as one quoted word; the others work directly.  CreateDir and CreateFile fail on
 * an existing path unless ZTFO_FORCE, which deletes it first.  Returns 0 on success (for
 * the tests 1 yes, 0 no; for Size32 the size, 0x80000000 from 2 GiB on), -1 on failure
 * with *statusp (when not null) set: 1 bad command, 2 bad or missing paths, 3 not found,
 * 4 permission denied, 5 is a directory, 6 not a directory, 7 directory not empty, 8 too
 * many open files, 9 already exists, 9999 other or a command that failed.  Messages go to
 * ZTVError unless ZTFO_QUIET; progress messages only with ZTFO_VERBOSE. */
int   ZTFileOp(int cmd, int flags, int *statusp, int count, char **paths);
/* The status code for errno value err (as above); an unmapped one gives 9999 and the
 * message "Unix <opword> errno: <err>" (unless ZTFO_QUIET in flags). */
int   ZTFileOpErrStatus(const char *opword, int flags, int err);
/* Creates every missing directory of path up to its last "/" (mode 0777 less the
 * umask); the last element is not created.  Returns 0, or -1 when a prefix is not a
 * directory or mkdir fails (message through VError). */
int   ZTMakeDirs(const char *path);
/* Removes dir and everything under it (rm -rf), best effort. */
void  ZTRMDashRF(const char *dir);
/* Removes the files WQ* of the directory $WQTMP, else of the setting tmp_dir. */
void  ZTRMTmpWQStar(void);
/* 1 when path exists, 0 when it does not, -1 on another error; path is changed in place
 * by ZTFileNameFix. */
int   ZTFileExists(char *path);
/* 1 when path (expanded) is a directory (ZTFileIsDir) or a regular file (ZTFileIsFile),
 * 0 when it is something else, -1 when it cannot be examined. */
int   ZTFileIsDir(const char *path);
int   ZTFileIsFile(const char *path);
/* ZTDirname, ZTBasename: POSIX dirname and basename; path may be changed, the result
 * may point into it. */
char *ZTDirname(char *path);
char *ZTBasename(char *path);
/* Installs handler for sig with sigaction and returns the previous one (SIG_ERR on
 * failure).  ZTSignal restarts interrupted system calls (except for SIGALRM);
 * ZTSignal_intr lets the handler interrupt them. */
ZTSigHandler ZTSignal(int sig, ZTSigHandler handler);
ZTSigHandler ZTSignal_intr(int sig, ZTSigHandler handler);
/* 1 when the effective user is root, else 0. */
int   ZTIsAdmin(void);
/* The login name of the real user (cached), null when unknown. */
char *ZTGetUserName(void);
/* The user id of the named user, -1 when there is none. */
int   ZTGetUIDFromName(const char *name);
/* The host name (cached), null on failure. */
char *ZTGetComputerName(void);
/* ZTGetOsType: "UNIX".  ZTGetOsName: "LINUX".  ZTGetOsVer, ZTGetOsPlatform: 0. */
char *ZTGetOsType(void);
char *ZTGetOsName(void);
int   ZTGetOsVer(void);
int   ZTGetOsPlatform(void);
/* Sets the client type (at most 20 characters kept); ZTGetClType returns it, "None"
 * when none was set. */
void  ZTSetClType(const char *type);
char *ZTGetClType(void);
/* Loads a shared library with dlopen (RTLD_NOW | RTLD_DEEPBIND): an absolute name as it
 * stands, else lib_dir/name (or the name alone without a lib_dir setting).  Null on
 * failure, with dlerror's text through ZTVError.  ZTLibUnload: dlclose.
 * ZTLibGetProcAddr: dlsym. */
void *ZTLibLoad(const char *name);
void  ZTLibUnload(void *handle);
void *ZTLibGetProcAddr(void *handle, const char *symbol);

/* ---- string and buffer helpers ---- */
/* When a program points it at a counter, every 100th ZTAlloc stores there how far the
 * heap has grown (bytes) since the first ZTAlloc.  Null by default. */
extern uint32_t *zt_uimaxumemp;

/* Splits line in place into fields; argv receives at most maxargs - 1 pointers into line
 * and a null after the last.  delims null means ":", tab, CR and newline.  Runs of
 * delimiters are skipped (also in front); a field in double or single quotes keeps its
 * delimiters and loses its quotes.  flags: 1 quotes are ordinary, 2 every delimiter
 * separates (empty fields kept), 4 leading quotes are kept.  Returns the field count.
 * SplitArgs: flags 0.  SplitArgsNoQuote: flags 1. */
int   ZTSplitArgs(char *line, char **argv, int maxargs, const char *delims, int flags);
int   SplitArgs(char *line, char **argv, int maxargs, const char *delims);
int   SplitArgsNoQuote(char *line, char **argv, int maxargs, const char *delims);

/* Allocates n zeroed bytes (n rounded up to even); null for 0.  When memory runs out it
 * reports through ZTVError and aborts the process: it never returns null otherwise.
 * ZTFree frees (null is ignored).  ZTStrAlloc: a ZTAlloc'ed copy of s, null for a null
 * or empty s.  ZTAllocDbgStart, ZTAllocDbgEnd: do nothing. */
void *ZTAlloc(uint32_t n);
void  ZTFree(void *p);
char *ZTStrAlloc(const char *s);
void  ZTAllocDbgStart(void);
void  ZTAllocDbgEnd(void);

/* StripBl: removes trailing blanks; LStripBl: leading blanks.  RightFill: pads s with ch
 * to n characters when shorter (s must hold n + 1 bytes); BlFill: with blanks.
 * chlfillmem: right-aligns s in maxlen characters filled in front with ch, cutting a
 * longer text.  uctolc, lctouc: copy src to dst changing ASCII case.  chconv: replaces
 * every from by to in s. */
void  StripBl(char *s);
void  LStripBl(char *s);
void  RightFill(char *s, int ch, int n);
void  BlFill(char *s, int n);
void  chlfillmem(char *s, int maxlen, int ch);
void  uctolc(char *dst, const char *src);
void  lctouc(char *dst, const char *src);
void  chconv(char *s, int from, int to);
/* As chconv; returns the number replaced, -1 for a null s. */
int   ZTStringReplaceChar(char *s, int from, int to);
/* Copies fromvalp to tobufp (buflen bytes, terminated) leaving out the characters of
 * stripcharp; returns the number copied, -1 for a null fromvalp. */
int   ZTStringStripChars(const char *fromvalp, const char *stripcharp, char *tobufp, int buflen);
/* Copies at most n - 1 characters of src and terminates dst (nothing when n < 1);
 * returns dst. */
char *ZTStrNCopy(char *dst, const char *src, int n);
/* Index of the first ch in s, -1 when there is none. */
int   ZTIndex(const char *s, int ch);

/* 1 or 0: equsub, a is a prefix of b; ICEqusub, the same ignoring case; issubstr,
 * icissubstr: the same (an empty a is a prefix of anything).  cmpbuf: the difference of
 * the first differing bytes of n bytes (unsigned), 0 when equal or a pointer is null. */
int   equsub(const char *a, const char *b);
int   ICEqusub(const char *a, const char *b);
int   issubstr(const char *a, const char *b);
int   icissubstr(const char *a, const char *b);
int   cmpbuf(const void *p, const void *q, int n);

/* Big-endian numbers in buffers (most significant byte first, whatever the processor):
 * ToWBuf, FromWBuf 2 bytes; ToLBuf, FromLBuf 4; ToL64Buf, FromL64Buf 8.  The From forms
 * return the value signed.  Keys stored so sort as unsigned numbers. */
void    ToWBuf(void *buf, int v);
int16_t FromWBuf(const void *buf);
void    ToLBuf(void *buf, int32_t v);
int32_t FromLBuf(const void *buf);
void    ToL64Buf(void *buf, int64_t v);
int64_t FromL64Buf(const void *buf);
/* ZTLtoA, ZTItoA, ZTLongtoA, ZTL64toA: format n right-aligned in at least w characters
 * into s; return s. */
char   *ZTLtoA(int32_t n, char *s, int w);
char   *ZTItoA(int n, char *s, int w);
char   *ZTLongtoA(int64_t n, char *s, int w);
char   *ZTL64toA(int64_t n, char *s, int w);

/* mvbytes: copies n bytes forward, byte by byte (overlap spreads bytes); mvovbytes:
 * copies n bytes, the areas may overlap.  notbytes: inverts n bytes.  nullmem: zeroes n
 * bytes.  chfillmem: sets n bytes to ch.  n below 1 does nothing. */
void  mvbytes(const void *from, void *to, int n);
void  mvovbytes(const void *from, void *to, int n);
void  notbytes(void *buf, int n);
void  nullmem(void *p, int n);
void  chfillmem(void *p, int n, int ch);
/* mvf_sstr: copies characters first .. last (0-based, inclusive) of from into to (all
 * of it for a negative first; empty when first > last or past the end).  mvt_sstr:
 * replaces characters first .. last of to by from, padding to with blanks up to first
 * (a negative first replaces all of to; first > last does nothing); to must have room. */
void  mvf_sstr(const char *from, char *to, int first, int last);
void  mvt_sstr(const char *from, char *to, int first, int last);

/* Bit n of a set lives in byte n / 8, least significant bit first.  SetLBit: sets bit
 * n mod 32 of *word.  ZTGet128Bit, ZTSet128Bit: a 16-byte set, n outside 0 .. 127 reads
 * 0 and sets nothing.  ZTGetBit, ZTSetBit, ZTClearBit: a set of any size (the caller's
 * to ensure); a negative n reads 0 and changes nothing. */
void  SetLBit(uint32_t *word, int n);
int   ZTGet128Bit(const void *set, int n);
void  ZTSet128Bit(void *set, int n);
int   ZTGetBit(const void *set, int n);
void  ZTSetBit(void *set, int n);
void  ZTClearBit(void *set, int n);

/* ZTPathIsAbsolute: 1 when p starts with "/".  ZTPathIsURL: 1 when p starts with
 * http://, https://, file://, ftp://, gopher://, telnet://, news:// or wais:// (any
 * case).  ZTFileGetCTime, ZTFileGetMTime: status-change or modification time (seconds)
 * of dir/name (of name alone when dir is null or name absolute), 0 when it cannot be
 * examined or name is null or empty. */
int      ZTPathIsAbsolute(const char *p);
int      ZTPathIsURL(const char *p);
uint32_t ZTFileGetCTime(const char *dir, const char *name);
uint32_t ZTFileGetMTime(const char *dir, const char *name);

/* Hashes h = h * 31 + c over the text (ZTStringHash, c a signed char), over its
 * upper-cased characters (ZTICStringHash) or over n unsigned bytes (ZTBufHash).
 * Fletcher16CSum: Fletcher-16 checksum of n bytes, neither byte ever 0 (0xFFFF for
 * n < 1).  printhexbytearray: header (when not null) and the bytes as hex, 20 a line, on
 * stdout.  ZT_stripfill: copies value to out without the literal characters of the edit
 * mask format ("123-45-6789" with "999-99-9999" gives "123456789"). */
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
