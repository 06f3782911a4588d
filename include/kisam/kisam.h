/*
 * libkisam: indexed-sequential files shared by many processes.
 *
 * Overview (the manual page kisam(3) says the same at more length):
 *
 * Configuration.  Every process of an installation reads one binary configuration file
 * (52 bytes, written by "kisam config init PATH" or kisam_config_write()) that sizes the
 * shared area: buffers, files open at once, processes, keys per file.  It is found through the KISCONFIG
 * setting (environment or settings files), else as "kisamconfig" under the etc_dir
 * setting, else under $HOME_Q9 (the second place only when the first does not exist).
 * The lock file is the configuration file's name with ".lk" appended; without one the
 * configuration file itself serves, and then it must be writable.
 *
 * Initialisation.  is_init() attaches the process; nisopen() and niscreate() call it
 * themselves when the process is not attached.  nisunisam() detaches; the last process
 * to detach removes the shared area.  kisam_config_path() names the configuration file
 * the last search tried, so that a failed initialisation can say which file was meant.
 *
 * Files, records, keys.  A file has 0 to 25 keys.  A record is 1 to 65534 bytes and
 * begins with its key values in key order, each as long as its key: key 0 first, then
 * key 1, ... ; the rest is free-form.  Key 0 is unique; the other keys admit duplicates.
 * Keys are compared as unsigned bytes (store numbers big-endian or as fixed-width digits
 * to have them sort as numbers).
 *
 * Results.  Every operation returns a negative value (-1) on failure and leaves an
 * ISE_* code in is_errno and a stack of procedure codes; niserrmsg() prints them and
 * niserrmsgget() formats them into a buffer.  is_errno is never cleared by a successful
 * call: look at it only after a call has failed.  A read that finds no record returns 0,
 * which is not a failure.
 *
 * Holding.  An operation on a descriptor needs it open in this process (which implies
 * being attached; otherwise ISE_BADFD).  No operation needs a lock held by the caller:
 * each takes what it needs and gives it back before it returns, except nisgetctl and
 * nislock, whose locks the caller gives back with nisrelctl and nisunlock.
 *
 * Caveats
 *   - One thread at a time.  All of the engine's state (the error state, the current
 *     file, the handle tables) is per process and unguarded: a process must not run two
 *     operations at once, from two threads or from a signal handler.
 *   - fork().  A child inherits the parent's attachment and handles but none of its
 *     locks; it must call is_chinit() before any other call of the library, and then
 *     may use the inherited descriptors.  A child that exec()s, or whose parent had not
 *     attached when it forked, starts afresh and attaches on its own.
 *   - A killed process.  Locks are POSIX record locks: the kernel frees those of a process
 *     that dies, so no lock stays held.  Every niswrite(), nisfwrite(), nisupdate() and
 *     nisdelete() is whole or absent: one interrupted by the kill of its process is rolled
 *     back (from its process's journal, "<lock file>.u<slot>" beside the lock file) by
 *     the next process that takes the file's control lock, or, when no process is left
 *     attached, by the next one to attach.  A process that died attached is cleaned up
 *     by whoever notices it (attach, open, close, create, kisam_reap()): its record
 *     locks, its share of each file's count of users and its process slot are freed.
 *     A crash of the whole machine is not covered: nothing is synchronised to the device
 *     unless the configuration asks for it.
 *   - A failed write.  A niswrite(), nisfwrite(), nisupdate() or nisdelete() that fails
 *     part-way with an error (a full disk, an I/O error; also when the control page
 *     cannot be written at its end: then 0x2402 of is_relctl is on the stack) is rolled
 *     back before it returns -1: nothing of it stays.  When even the rollback cannot be
 *     written, every later call on the file first finishes it, and fails with the I/O
 *     error as long as it cannot.
 *   - Byte order.  Files and the shared area hold numbers in the machine's byte order
 *     (little-endian on x86-64): a file is not portable to a machine of the other order.
 *   - Size.  Page positions are 32-bit: a file cannot grow beyond 4 GiB.  A write that
 *     would need a page past that fails with ISE_NWSK (procedure v_new, detail 1).
 *   - Names.  File names are at most 127 characters.
 *   - Configuration changes take effect only once every process has detached and the
 *     shared area has been removed.
 *   - Side effects of attaching.  The first attach loads the settings store of
 *     <kisam/ztsupport.h>: it creates $HOME/.Q9, $HOME/Documents, and $HOME_Q9/share and
 *     $HOME_Q9/tmp with mode 0777 (HOME_Q9 defaults to /usr/q9), a mutex lock file of
 *     mode 0666 in share, and appends "$HOME_Q9/bin:" to PATH.  Point HOME, HOME_Q9 and
 *     PROFILEQ9ENV elsewhere before attaching to keep this out of your home; kisam(3)
 *     has the details.
 */
#ifndef KISAM_KISAM_H
#define KISAM_KISAM_H

#include <kisam/isamdb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- error codes (is_errno) ----
 * Each code has a message text (niserrmsg(3) lists them with their usual causes).
 * A failure report also names the procedure where it arose and a detail number. */
#define ISE_BTNP          1   /* an index page link is missing: the file is damaged */
#define ISE_CREATF        2   /* niscreate: the file cannot be created, written or closed,
                                 or its name is null or longer than 127 characters */
#define ISE_INITERR       3   /* is_init: no usable configuration, lock file or shared area;
                                 kisam_config_path() names the configuration file tried */
#define ISE_NKEYERR       4   /* niscreate: more keys than the configuration allows;
                                 niswrite on a file without keys */
#define ISE_NOIDB         5   /* nisopen: no free handle (all co_maxopen are in use) or no memory */
#define ISE_NOKEY         6   /* nisdelete, nisupdate: no record with this key 0 value */
#define ISE_OPENF         7   /* nisopen: the file does not exist or cannot be opened, or its
                                 name is null or longer than 127 characters */
#define ISE_INVKL         8   /* niscreate: a key length below 1 or too long for an index page;
                                 nisfind without a key; nislock, nisunlock: bad key length */
#define ISE_RONLY         9   /* niswrite, nisfwrite, nisupdate, nisdelete in a process that
                                 has the file open read-only only */
#define ISE_RSIZE         10  /* record size below the sum of the key lengths or above 65534
                                 (writes), or a buffer shorter than key 0 (reads) */
#define ISE_BADFD         11  /* the descriptor is not open in this process (or the process
                                 is not attached) */
#define ISE_BADKN         12  /* key number below 0 or not below the file's key count */
#define ISE_NOFCP         13  /* nisopen: the shared-file table or the common heap is full */
#define ISE_NOTISAM       14  /* nisopen: the file is not an ISAM file */
#define ISE_RDSK          15  /* reading or writing a page: a seek failed (or the page lies
                                 beyond 4 GiB) */
#define ISE_RDWT          16  /* writing a page back before reusing its buffer failed */
#define ISE_BUFLINK       17  /* no buffer could be had: every buffer is in use by this
                                 process (too few buffers configured), or the buffer lists
                                 of the shared area are damaged */
#define ISE_RDRD          18  /* reading a page failed or found the file too short */
#define ISE_FLSK          19  /* writing a changed page: the seek failed */
#define ISE_FLWT          20  /* writing a changed page failed (a full disk, say) */
#define ISE_NWSK          21  /* a new page could not be added: the file would pass 4 GiB */
#define ISE_NWWT          22  /* a new page could not be written (a full disk, say) */
#define ISE_FLFCP         23  /* the file's control page could not be written */
/* The file is damaged: a page, link or record met on the way breaks the structure
 * of the file -- of an index, a data page, an overflow chain or the free chain, not
 * only of a B-tree.  Every failure that is found in the contents of the file (rather
 * than in reading or writing it) is reported with this code, and the stack says where
 * it was found. */
#define ISE_BTS           24
#define ISE_KEYSAVE       25  /* no memory to hold a record's key fields */
#define ISE_TMFILES       26  /* nisopen: this process holds co_maxufile handles already */
#define ISE_MAGICVALERR   27  /* is_init: the shared area was made by an older library */
#define ISE_VERSIONERR    28  /* is_init: the shared area has another layout version */
#define ISE_CREATEISOPEN  29  /* niscreate: the file is open in some process */
#define ISE_INCONSISTENT  30  /* nisopen: the file's data-changed mark is set (a change was
                                 interrupted); ISF_NOVERIFY opens it all the same */
/* A wait for a lock that the kernel refused because it would close a cycle of
 * waits between processes (errno EDEADLK).  The operation fails and holds nothing
 * it did not hold before.  One case gives up more: nislock, having waited for a
 * record lock, must take the file's control lock back; when that is refused again
 * and again for about a second, it returns -1 with this code and this process then
 * holds the file's control lock no more, also where it had taken it with nisgetctl
 * (a later nisrelctl is harmless).  It has no text of its own: reports use the
 * "isam error #31" form followed by the system error.  Wherever a call may fail with
 * ISE_DEADLOCK, it may also fail, in the same way and holding nothing new, with
 * KISAM_ISE_LOCKFAIL (the lock call itself failed) and, when the program asked for it
 * with kisam_set_wait_hook, KISAM_ISE_INTERRUPTED (see Waiting for locks below). */
#define ISE_DEADLOCK      31

/* ---- open access flags (nisopen's access argument) ----
 * The low bits choose the mode: ISO_RDONLY (0) opens read-only, any other value
 * read-write; the ISF_ flags may be added. */
#define ISO_RDONLY   0
#define ISO_RDWR     2
#define ISF_SEQ      0x8000  /* sequential file without control page */
#define ISF_DEFER    0x4000  /* marks the shared entry deferred (pfi_bits 0x08); no other effect */
#define ISF_NOVERIFY 0x2000  /* accept a file whose data-changed mark is set */

/* ---- error state ----
 * is_errno: the ISE_* code of the last failure of this process; set only on failure,
 *   never cleared by a successful call.
 * is_estk, is_etop: the procedure-code stack of the last failure.  is_etop points one
 *   past the last entry and is null until the first failure.  is_estk[0] is the
 *   innermost point; each entry is a detail byte and a procedure character (KIprocname).
 * is_eall: reserved; nothing reads or writes it. */
extern short is_errno;
extern struct is_etrace is_estk[20];
extern struct is_etrace *is_etop;
extern int64_t is_eall;

/* ---- call framing ----
 * Iscurfun: the procedure code of the operation running (positive), or its negation
 *   after it returned; 0 before the first call.  Islastfun: Iscurfun's value when the
 *   current operation began.
 * is_curdb, is_curpfi, is_curfcp: the handle, this process's file entry and the shared
 *   control page of the descriptor the last framed operation named.
 * Read them for diagnosis only; the library writes them. */
extern short Iscurfun;
extern short Islastfun;
extern IS_DB *is_curdb;
extern IS_PFI *is_curpfi;
extern IS_FCP *is_curfcp;

/* ---- attachment state (set by is_init, cleared by nisunisam; read-only for callers) ----
 * isam_com: address of the shared area in this process, null when not attached.
 * is_pid: this process's id as the locks know it.  is_lockfd: descriptor of the lock file
 * (kept open for the life of the process).  is_env: pointers into the shared area.
 * is_db, is_pfi: this process's handle table and file table (co_maxopen entries each).
 * maxheapsize: the largest common heap a configuration may ask for (2147483647 bytes).
 * hexchars: the text "0123456789abcdef". */
extern struct isam_com *isam_com;
extern int is_pid;
extern int is_lockfd;
extern struct is_envinfo is_env;
extern IS_DB **is_db;
extern IS_PFI *is_pfi;
extern long maxheapsize;
extern const char *hexchars;

/* B-tree split rule: non-zero splits evenly, zero splits at the insertion point.
 * Default 1.  Per process; affects how full index pages are left, never what they hold. */
extern short Sp_half;

/* ---- start-up and shutdown ---- */

/* Attaches this process: finds and reads the configuration file, opens the lock file,
 * creates the shared area (as its first user) or attaches it, claims a slot of the
 * process table and allocates the handle tables.  Needs: nothing; call it once per
 * process (a second call attaches a second time and takes a second slot).  nisopen and
 * niscreate call it when the process is not attached, so calling it is optional.
 * Returns 0, or -1 with is_errno:
 *   ISE_INITERR      detail 1: the configuration file cannot be opened (kisam_config_path
 *                    names it); 2, 3: it is empty or shorter than 48 bytes; 9, 13: the lock
 *                    file (or, without one, the configuration file) cannot be opened
 *                    read-write; 10: the configuration's figures are unusable; 7: they ask
 *                    for a heap above maxheapsize (a message goes to stderr); 4: the shared
 *                    area cannot be created or attached (a message goes to stderr); 5: the
 *                    process table is full; 6: no memory; 11: the start-up lock failed;
 *   ISE_MAGICVALERR, ISE_VERSIONERR: the shared area belongs to another release.
 * The system error of the failing call, if any, stays in errno and is part of the report. */
int  is_init(void);
/* In a child after fork(), before any other call: registers the child in the process
 * table and counts it as a user of every file the parent had open, so the inherited
 * descriptors work in the child.  Does nothing and returns 0 when the parent was not
 * attached.  Returns 0, or -1 with ISE_INITERR (detail 8: the process table is full; the
 * child is then not attached) or ISE_DEADLOCK. */
int  is_chinit(void);           /* in a child after fork() */
/* Closes every descriptor of this process (nisclose on each); stays attached.  Returns 0. */
int  isallclose(void);
/* Closes every descriptor, releases this process's record locks and locks left by an
 * interrupted call, frees the handle tables and detaches; the last process to detach
 * removes the shared area.  Returns 0 (also when not attached).  A later is_init,
 * nisopen or niscreate attaches again.  A close whose wait was given up at a signal (see
 * kisam_set_wait_hook) leaves its file to the next process that cleans up after dead
 * ones, as if this process had died. */
int  nisunisam(void);
/* nisunisam(), then exit(rc). */
void nisexit(int rc);

/* ---- files ---- */

/* Chooses how later niscreate calls of this process lay out files.  keyopt 1 (the
 * default) keeps key 0 only in its index, so records cost key 0's length less on data
 * pages; 0 stores the whole record; other values leave the choice.  magicv 1024 (the
 * default) writes a 1024-byte control page, 512 a 512-byte one; other values leave it. */
void niscr_ctl(int keyopt, int magicv);
/* Creates filename with nkeys keys of the lengths key_lens[0 .. nkeys-1] (bytes, each at
 * least 1) and opens it read-write.  A negative nkeys means -nkeys keys with key 0 kept
 * only in its index whatever niscr_ctl chose.  nkeys 0 makes a file without keys, which
 * holds no records.  An existing file of that name is replaced unless some process has
 * it open, which fails with ISE_CREATEISOPEN; between processes that check is advisory
 * (nothing holds the name between the check and the creation).  The file is created with
 * mode 0666 less the umask (a replaced file's permissions are kept), written under a
 * temporary name beside it and renamed into place: a create that fails leaves no new
 * file, and a file it would have replaced stays as it was.  Attaches first when not
 * attached.
 * The longest key: its index item (length rounded up to even, plus key 0's length rounded
 * up to even, or plus 4 for key 0) must be at most 504 bytes; so key 0 is at most 500.
 * Returns the new descriptor (>= 0), or -1 with is_errno:
 *   ISE_CREATF (null or too long name; creat, write or close failed), ISE_NKEYERR (more
 *   keys than co_maxnkeys or 25), ISE_INVKL (a length below 1 or too long; null key_lens),
 *   ISE_CREATEISOPEN, ISE_DEADLOCK, an is_init error with "iscreate - 1" pushed over it,
 *   or any error of nisopen. */
int  niscreate(const char *filename, int nkeys, const int *key_lens);
/* Opens an ISAM file and returns a new descriptor (>= 0) with its own cursors, one per
 * key, each at no position.  access: ISO_RDONLY or ISO_RDWR, plus ISF_* flags.  Opening a
 * file that is open already (in this or another process) shares it; opening it
 * read-write in a process that has it read-only reopens this process's descriptor
 * read-write.  Read-only belongs to the process's hold of the file, not to one
 * descriptor: once the process has the file open read-write, each of its descriptors of
 * the file may write, also those opened with ISO_RDONLY.  Attaches first when not attached (after checking that the file exists).
 * Returns -1 with is_errno:
 *   ISE_OPENF (no such file, null or too long name, open failed), ISE_NOTISAM (no control
 *   page, unknown magic or key table), ISE_INCONSISTENT (data-changed mark set and no
 *   ISF_NOVERIFY), ISE_TMFILES, ISE_NOFCP, ISE_NOIDB, ISE_DEADLOCK, or an is_init error
 *   with "isopen - 2" pushed over it. */
int  nisopen(const char *filename, int access);
/* Closes a descriptor: releases its record locks; with this process's last descriptor
 * of the file, writes the control page and closes the system descriptor; with the last
 * process anywhere, writes and frees the file's buffers and its shared control page.
 * A read-write close clears the file's data-changed mark.  Returns 0, or -1 with
 * ISE_BADFD (not open) or ISE_DEADLOCK (nothing closed).  Failures of writing are not
 * reported: the close completes. */
int  nisclose(int isfd);
/* Writes the file's changed control page (page changes are written as they happen).
 * Returns 0 whatever the writing did, or -1 with ISE_BADFD or ISE_DEADLOCK. */
int  nisflush(int isfd);
/* Returns the file's key count and stores the first min(maxkeys, count) key lengths in
 * keylens (which may be null when maxkeys is 0 or less).  maxkeys is taken as 16-bit.
 * -1 with ISE_BADFD. */
int  nisstat(int isfd, int maxkeys, int *keylens);

/* ---- records ----
 * Cursors: each descriptor has one cursor per key, which remembers a key value, not a
 * place, and starts at no position.  Every read along a key moves that key's cursor only;
 * writes and deletes move none.  Reads search the index afresh from the remembered value,
 * so changes by other processes between two reads are seen, and a cursor whose record was
 * deleted still steps to its neighbour.
 * Truncation: a read delivers at most recsize bytes; a longer record is cut to recsize
 * bytes without an error, and the result is then recsize.
 * Every read, write and delete takes the file's control lock for the time of the call
 * (so it waits while another process holds it, e.g. in a nisgetctl bracket).  Record
 * locks are not consulted: cooperating programs take them with nislock. */

/* Reads the next record along key keyno into record (at most recsize bytes): on a cursor
 * at no position the first record in key order; after nisseek or a failed nisfind the
 * first whose key is >= (nisseek) or > (nisfind) the value; after a read the one after
 * it.  Among equal values of an alternate key, records come in key 0 order.
 * Returns the number of bytes delivered (> 0), 0 when there is no such record (the cursor
 * stays where it was, so the next nisread again returns 0 and a nispread the record
 * before it), or -1: ISE_BADFD, ISE_BADKN, ISE_RSIZE (recsize below key 0's length, or
 * record null), or a page or index error. */
int  nisread(int isfd, int keyno, char *record, int recsize);
/* As nisread, backwards: on a cursor at no position the last record in key order; after
 * nisseek the last whose key is <= the value; after a read the one before it. */
int  nispread(int isfd, int keyno, char *record, int recsize);
/* Reads a record whose key keyno equals key (its first k_keylen bytes; with duplicates
 * of an alternate key, any one of them -- nisseek and nisread visit all).  Returns the
 * bytes delivered, 0 when no record matches (the cursor then stands at the value sought:
 * nisread gives the first record after it, nispread the last before it), or -1:
 * ISE_INVKL (key null) and the errors of nisread. */
int  nisfind(int isfd, int keyno, const char *key, char *record, int recsize);
/* Sets key keyno's cursor to the value key (its first k_keylen bytes) without reading;
 * the next nisread returns the first record >= key, the next nispread the last <= key.
 * Returns 0 (a null key changes nothing), or -1 with ISE_BADFD or ISE_BADKN. */
int  nisseek(int isfd, int keyno, const char *key);
/* Adds a record of recsize bytes (the key values first).  Returns 0 when stored; 1 when a
 * record with the same key 0 value exists (nothing is stored, no error code is set); -1:
 * ISE_RONLY, ISE_RSIZE (recsize below the sum of the key lengths or above 65534, or record
 * null), ISE_NKEYERR (a file without keys), ISE_BADFD, or a page error (ISE_NWSK at the
 * 4 GiB ceiling, ISE_NWWT or ISE_FLWT on a full disk, ...). */
int  niswrite(int isfd, const char *record, int recsize);
/* As niswrite, but a record with the same key 0 value is replaced: its data, and the
 * alternate index entries whose values changed.  Returns 0 (stored or replaced) or -1. */
int  nisfwrite(int isfd, const char *record, int recsize);
/* Replaces the record whose key 0 value is that of record: deletes it and writes record,
 * both under one hold of the control lock.  Returns 0, or -1: ISE_NOKEY (no such record;
 * nothing is written), ISE_RONLY, ISE_RSIZE (refused before anything is deleted), and the
 * errors of niswrite and nisdelete. */
int  nisupdate(int isfd, const char *record, int recsize);
/* Deletes the record whose key 0 value is the first k_keylen bytes of primekey, with its
 * entries in every index.  Cursors keep their values, so a cursor on the deleted record
 * steps to its neighbour.  Returns 0, or -1: ISE_NOKEY (no such record, or primekey null),
 * ISE_RONLY, ISE_BADFD, or a page or index error. */
int  nisdelete(int isfd, const char *primekey);

/* ---- locks ---- */

/* Takes the file's control lock for the caller, to be given back with nisrelctl, so
 * that several calls are one unit for other processes (a read and an update, say) and
 * the lock is not taken and released per call.  Holds nest per process: only the
 * release that matches the first nisgetctl gives the lock up.  While it is held, other
 * processes' calls on the file wait; nislock waiting for a record lock gives it up for
 * the wait and has it again when it returns.  Opening or closing another file while
 * holding it may close a cycle with another process (ISE_DEADLOCK).
 * Returns 0, or -1 with ISE_BADFD or ISE_DEADLOCK (nothing held). */
int  nisgetctl(int isfd);
/* Gives back one nisgetctl hold; the last one writes the control page and frees the
 * lock.  A release without a hold does nothing.  Returns 0 (-1 with ISE_BADFD).  Should
 * writing the changed pages fail, the error is recorded and the lock is kept until a
 * later release of this process succeeds. */
int  nisrelctl(int isfd);
/* Locks the key value key[0 .. keylen-1] for this process and descriptor.  Locks are
 * advisory: reads and writes never consult them.  Two locks conflict when they belong to
 * different processes and agree over the shorter of their two lengths (so keylen 0 locks
 * the whole file); a process never conflicts with itself.
 * rtnopt <= 0: wait while another process holds a conflicting lock; 1: do not wait;
 * 2: do not wait, and return 1 without adding a lock when this process already holds an
 * overlapping one.  Returns 0 when the lock was added; 1 (rtnopt 2 only); -1 with
 * ISE_BADFD or ISE_INVKL (keylen below 0 or above 32767, or key null with keylen > 0), or
 * -1 WITHOUT setting is_errno when a conflicting lock is held and rtnopt > 0, when the
 * wait was refused as a deadlock, or when the common heap has no room for the lock.
 * The lock lasts until nisunlock, nisclose of the descriptor or the end of the process. */
int  nislock(int isfd, const char *key, int keylen, int rtnopt);
/* Releases this process's and descriptor's locks.  matchopt 0: the one lock whose key is
 * exactly key[0 .. keylen-1]; returns 0, or -1 (no error code) when there is none.
 * matchopt != 0: every lock that overlaps the key (keylen 0: all of them); returns how
 * many.  -1 with ISE_BADFD or ISE_INVKL as for nislock. */
int  nisunlock(int isfd, const char *key, int keylen, int matchopt);

/* ---- errors ---- */

/* Writes the report of the last failure to stderr (through VError) and flushes it:
 *   "<message> in proc. <procedure> - <detail>", one "    called from proc. ..." line per
 *   further stack entry, and "Sys errno #<n> <text>" when errno is above 0.
 * Writes nothing before the first failure.  errno is left as it was. */
void  niserrmsg(void);
/* Formats the first line of the report, with ", Sys errno #<n> <text>" appended when
 * errno is above 0, into buf, cut to buflen - 1 characters when buflen > 0 (buflen 0 or
 * less: no cut, buf must then hold 1024 bytes).  Returns the length stored; 0 and an
 * empty text before the first failure; 0 for a null buf. */
int   niserrmsgget(char *buf, int buflen);
/* Name of the procedure whose character is pnum ("isopen" for 0x38).  An unknown one is
 * formatted "#<pnum>" into a static buffer that the next such call overwrites. */
char *KIprocname(short pnum);
/* Writes "proc: <proc>, det: <detail>" to stderr.  A diagnostic aid. */
void  is_msg(short proc, short detail);

/* ---- text helpers of the common module ---- */
/* wqltoa, wqitoa: format n right-aligned in at least w characters ("%*ld") into str,
 * which must hold the text and its NUL.  wqindex: index of the first ch in str, -1 when
 * there is none or str is null. */
void wqltoa(long n, char *str, int w);
void wqitoa(int n, char *str, int wid);
int  wqindex(const char *str, char ch);

/* ---- entry table and service entries ----
 * For programs that load the library at run time: dlopen it, fetch ZTKISAMInit with
 * dlsym, and let it fill a table with the other operations. */
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

/* Fills every slot of tbl but reserved0 and reserved1 with the operations of the same
 * names.  Returns 0, or -1 for a null tbl.  Initialises nothing else. */
int   ZTKISAMInit(KisamEntryTable *tbl);
/* Prints "ZTKISAMTest(): <s>" and then test2's line on stdout; returns 0.  A loading test. */
int   ZTKISAMTest(const char *s);
/* Prints "LIBKisam: test2" on stdout. */
void  test2(void);
/* Returns is_errno. */
int   ZTKISAMGetLastError(void);
/* Returns niserrmsgget(buf, buflen). */
int   ZTKISAMGetLastErrorMsg(char *buf, int buflen);
/* Returns isam_com: where this process has the shared area, null when not attached.
 * Monitoring tools read its header (struct isam_com in isamdb.h) for the statistics. */
void *ZTKISAMGetComAddr(void);

/* ---- Extensions ----
 * Functions of our own, beyond the interface above.  Their names begin with kisam_. */

/* The configuration file name that the last search for it (by is_init, or by nisopen or
 * niscreate initialising) tried: the KISCONFIG value, or etc_dir/kisamconfig, or
 * $HOME_Q9/kisamconfig when the first place did not exist.  Null before any search.
 * After is_init failed with ISE_INITERR detail 1 it names the file that could not be
 * opened, and errno (or the "Sys errno" part of the report) says why.  The text is
 * the library's own and changes at the next search. */
const char *kisam_config_path(void);

/* Cleans up after processes that died while attached: the call each was making, if
 * any, is rolled back; its record locks, its share of each file's count of users and
 * its process slot are released.  (Attaching, opening and closing do the same for the
 * processes they notice.)  Fills pids[0 .. maxpids) with the process ids cleaned up
 * and returns how many were cleaned; 0 when not attached.  Takes other files' control
 * locks only when they are free: a process whose files are held elsewhere is cleaned
 * up at a later call. */
int kisam_reap(int *pids, int maxpids);

/* Figures of recovery since the shared area was made: *cleaned processes that died
 * attached and were cleaned up, *rolledback calls rolled back (of killed processes, or
 * that failed part way).  Fills recent[0 .. maxrecent) with the pids of the processes
 * cleaned up most recently (newest first, at most 8) and returns how many it filled;
 * -1 when not attached.  Null pointers are skipped. */
int kisam_recovery_stats(unsigned *cleaned, unsigned *rolledback, int *recent, int maxrecent);

/* Whether a call on the file at path was cut short (its process killed, or its write
 * refused by a full or failing disk) and the rollback that undoes it still waits in the
 * journal of this installation (the configuration is found as is_init finds it).  The
 * rollback is applied at the next start of the shared area or the next use of the file;
 * until then the file on disk holds the call half done, and a program that reads the
 * file itself (a checker, a copy) would find it damaged.  Attaches nothing, changes
 * nothing.  1 pending, 0 not; 2 when no rollback is pending but calls made on the file
 * are in its redo log and not yet in the file (normal while programs use it, or after a
 * crash before anyone attached again: kisam_settle writes them in); 3 when a redo log
 * written by a newer version of the library names the file: this version can neither
 * replay it nor tell whether it still holds calls the file lacks, and refuses to open
 * the file over it (ISE_OPENF) -- the newer version opens it and writes them in; -1
 * when path cannot be examined or no configuration file is found (errno says why). */
int kisam_pending(const char *path);

/* Applies such a rollback now: attaches to the shared area when not attached (and
 * detaches again), opens the file, takes its control lock and gives it back, closes it.
 * 1 a rollback was applied, 0 none was pending, -1 on failure (is_errno and the error
 * stack of the call that failed; ISE_RDWT when the disk still refuses the rollback's
 * writes: it stays pending; ISE_OPENF when a log of a newer version names the file,
 * which this version does not replay). */
int kisam_settle(const char *path);

/* kisam_backup copies the ISAM file at path to dest exactly as it stood at one moment between calls,
 * while other processes go on reading and writing it: the copy holds every call that
 * had completed at that moment and none that had not, and opens as a sound file of its
 * own (without the data-changed mark).  Writers of the file wait only while its image is
 * taken (a clone of its blocks where the file system can share them, else one read of
 * the file into memory; files over 1 GiB are copied whole under the lock); *held_us
 * (when not null) tells for how many microseconds.  The copy is written under a
 * temporary name beside dest, synced, passed to verify (when not null; non-zero means
 * unsound) and only then renamed to dest, so that a backup that fails leaves nothing
 * under dest's name and an existing dest as it was.  Attaches (and detaches again) when
 * not attached.  0, or -1 with is_errno: the open's or the control lock's error, or
 * ISE_CREATF (the copy cannot be created or renamed), ISE_RDRD (the file cannot be
 * read), ISE_FLWT (the copy cannot be written or synced), ISE_BTS (verify refused it).
 * kisam_verify_fn is the type of verify. */
typedef int (*kisam_verify_fn)(const char *copy, void *arg);
int kisam_backup(const char *path, const char *dest, kisam_verify_fn verify, void *arg, long *held_us);

/* Bytes that this library lays out in the shared segment after the regions of the
 * configuration record (co_comsize bytes): its own state for a configuration of `files`
 * shared files (co_maxopen), `users` processes (co_maxusers) and `buffers` page buffers
 * (co_maxbuf).  The segment is co_comsize plus this; -1 for a count below 1. */
long kisam_area_bytes(int files, int users, int buffers);

/* Settings of a new installation's configuration, as "kisam config init" takes them.
 * Start from KISAM_SETTINGS_DEFAULT and change what you need. */
struct kisam_settings {
    int files;              /* files open at once in the installation, and handles per
                               process (co_maxopen): 1 to 16383 */
    int buffers;            /* page buffers of the shared pool (co_maxbuf): 1 to 32767 */
    int users;              /* processes attached at once (co_maxusers): 1 to 32767 */
    int keys;               /* most keys a file may be created with (co_maxnkeys): 1 to 25 */
    int files_per_process;  /* most handles one process may hold (co_maxufile): 0 (as
                               files) to files */
    int file_buffers;       /* co_maxfbuf: 0 (as buffers) to 32767 */
    int avg_alt_keys;       /* heap sizing: alternate keys per file, 0 to 24 */
    int lock_key_len;       /* heap sizing: bytes of a record-lock key, 0 to 32767 */
    int locks_per_file;     /* heap sizing: record locks per open file, 0 to 32767 */
    unsigned options;       /* KISAM_TRACK_CHANGES, optionally with one of
                               KISAM_SYNC_ON_MARK and KISAM_CLEAR_ON_RELEASE */
};
/* The defaults of "kisam config init": 64 files, 256 buffers, 32 processes, 25 keys, the
 * rest as the counts above say, heap sizing 2, 16, 8, no options. */
#define KISAM_SETTINGS_DEFAULT { 64, 256, 32, 25, 0, 0, 2, 16, 8, 0u }
#define KISAM_TRACK_CHANGES    0x1u  /* keep each file's on-disk data-changed mark */
#define KISAM_SYNC_ON_MARK     0x2u  /* and synchronise the file when the mark changes */
#define KISAM_CLEAR_ON_RELEASE 0x4u  /* and clear the mark at every release of the control lock */
#define KISAM_DURABLE          0x10u /* every changing call returns only once it would survive
                                        a crash of the machine (written after the 52-byte
                                        record; KISAM_DURABLE=0 or 1 in a process's
                                        environment overrides it) */
#define KISAM_CONFIG_REPLACE   0x1   /* kisam_config_write: overwrite an existing file */

/* Writes the configuration file path (the 52-byte configuration record for settings; a
 * null settings means KISAM_SETTINGS_DEFAULT) and creates its lock file, path with ".lk"
 * appended, unless it exists.  New files get mode, permission bits only (0 to 0777,
 * before the umask; 0 means 0666).
 * flags 0 refuses an existing path; KISAM_CONFIG_REPLACE overwrites it in place (a process
 * attaching meanwhile reads the old record or the new one).  Does not attach and needs
 * no attachment; a running installation keeps its area until every process detached.
 * The kernel's limits on shared memory are not consulted.
 * Returns 0, or -1 with errno: EINVAL (null or empty path, a setting out of range,
 * unknown option or flag bits, mode bits beyond 0777, KISAM_SYNC_ON_MARK or KISAM_CLEAR_ON_RELEASE without
 * KISAM_TRACK_CHANGES), ERANGE (the shared area would exceed what the library can lay
 * out: a heap above maxheapsize or a segment above 2 GiB), EEXIST (path exists, without
 * KISAM_CONFIG_REPLACE), ENAMETOOLONG, or the error of open, write or ftruncate.  A file
 * it created and could not finish is removed. */
int kisam_config_write(const char *path, const struct kisam_settings *settings, int flags, int mode);

/* Puts key keyno's cursor back to no position, as when the file was opened: the next
 * nisread on the key returns its first record, the next nispread its last.  (nisseek with
 * a value of 0x00 bytes before nisread, or of 0xFF bytes before nispread, does the same
 * for one direction.)  Returns 0, or -1 with ISE_BADFD or ISE_BADKN. */
int kisam_rewind(int isfd, int keyno);

/* ---- Crashes of the machine ----
 * Each call's changes go into a redo log beside the lock file ("<lock file>.w<n>", one
 * per open file) before any of its pages reaches the file; after a power cut or a crash
 * of the kernel, the first program to attach replays the logs, so that every file holds
 * exactly the calls made on it up to some point.  By default a call returns without
 * waiting for the disk (the last calls before a crash may be lost, never half kept);
 * in durable mode (KISAM_DURABLE) it returns once its log record is on disk, calls of
 * processes that end together sharing one sync.
 *
 * kisam_sync puts on disk the logs of every file this process has open, up to the last
 * call made on each by anyone: once it returns, those calls survive a crash.  Returns 0
 * (also when the process is not attached: it has nothing to sync), or -1 with ISE_FLWT
 * when the disk refused the sync. */
int kisam_sync(void);

/* kisam_last_recovery fills *out with what the replay at the start of the shared area
 * found (all zero when none ran since the area was made): logs replayed, calls redone,
 * pages written, how long it took, when it ran (seconds since 1970), and self = 1 when
 * this process ran it.  Returns 0, or -1 when not attached (a process that ran a replay
 * still gets its figures after it detached). */
struct kisam_recovery {
    long logs, calls, pages, usec, when;
    int self;
};
int kisam_last_recovery(struct kisam_recovery *out);

/* ---- Waiting for locks ----
 * A call that finds a lock held by another process sleeps in the kernel until the
 * holder lets go (or dies).  A program can learn whom it waits for, and can give a wait
 * up when a signal comes, through a wait hook.  Nothing of this costs a lock that is
 * free anything: the hook is consulted only once a lock is found held.
 *
 * Error codes of our own, beyond the documented ones (niserrmsg prints their texts): */
#define KISAM_ISE_INTERRUPTED 32  /* a wait for a lock was given up because a signal came
                                     (the wait hook said so); nothing was changed and
                                     nothing is held that was not held before the call */
#define KISAM_ISE_LOCKFAIL    33  /* a lock call on the lock file failed (errno ENOLCK: the
                                     kernel's lock table is full; EIO, ...); the call was
                                     refused with nothing changed, as above */

/* What a wait is for (kisam_wait.what). */
#define KISAM_WAIT_CONTROL 1  /* the control lock of a file (kisam_wait.file) */
#define KISAM_WAIT_RECORD  2  /* a record lock of a file (nislock) */
#define KISAM_WAIT_OPEN    3  /* the lock over opening, creating and closing files */
#define KISAM_WAIT_HEAP    4  /* the shared heap; held only for moments */
#define KISAM_WAIT_BUFFERS 5  /* the buffer pool's lists; held only for moments */

/* The events a wait hook is called with (kisam_wait.event). */
#define KISAM_WAIT_BEGIN  1  /* the lock is held by process `holder`: the call sleeps now */
#define KISAM_WAIT_SIGNAL 2  /* a signal interrupted the sleep: a nonzero answer gives
                                the wait up when can_give_up is 1; 0 sleeps on.  Signals
                                are held back through the wait, its sleeps included, and
                                heard after each sleep (at most 50 ms late) */
#define KISAM_WAIT_END    3  /* the wait is over: given_up 0 the lock was taken, 1 the
                                wait was given up or failed */

/* kisam_set_wait_hook flag: a signal that interrupts a wait that can be given up gives
 * it up, whatever the hook answers (and also with no hook). */
#define KISAM_WAIT_GIVE_UP 1

/* One report to a wait hook.  The pointers are valid during the call only. */
struct kisam_wait {
    int         event;        /* KISAM_WAIT_BEGIN, KISAM_WAIT_SIGNAL or KISAM_WAIT_END */
    int         what;         /* KISAM_WAIT_CONTROL, ..._RECORD, ..._OPEN, ..._HEAP, ..._BUFFERS */
    int         holder;       /* process id of the holder when the wait began */
    int         can_give_up;  /* 1 when a nonzero answer to KISAM_WAIT_SIGNAL ends the wait */
    const char *file;         /* the file whose lock it is, as this process opened it; null
                                 for the locks that are not a file's */
    double      seconds;      /* how long the wait has lasted (0 at KISAM_WAIT_BEGIN) */
    int         given_up;     /* at KISAM_WAIT_END: 1 the wait did not get the lock */
};
/* A wait hook: called by the thread that waits, inside a library call; it must not call
 * the library. */
typedef int (*kisam_wait_fn)(const struct kisam_wait *w, void *arg);

/* Sets this process's wait hook fn (null: none) with arg, and flags (0 or
 * KISAM_WAIT_GIVE_UP); returns 0.  With no hook and no flag a signal never ends a wait.
 * A signal interrupts a wait only when its handler was installed without SA_RESTART.
 * A wait that is given up makes its call fail with KISAM_ISE_INTERRUPTED (errno EINTR),
 * with nothing changed and nothing held that was not held before the call.  Waits that
 * a call cannot give up cleanly (the heap's and the buffer pool's, held for moments; a
 * record-lock wait's taking back of the control lock) report KISAM_WAIT_SIGNAL with
 * can_give_up 0 and sleep on.  To say after a second whom it waits for, a program arms
 * a timer at KISAM_WAIT_BEGIN (alarm(1) with a SIGALRM handler without SA_RESTART) and
 * reports at the KISAM_WAIT_SIGNAL that the timer causes. */
int kisam_set_wait_hook(kisam_wait_fn fn, void *arg, int flags);

#ifdef __cplusplus
}
#endif

#endif /* KISAM_KISAM_H */
