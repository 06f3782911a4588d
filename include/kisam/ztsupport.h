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

#ifdef __cplusplus
}
#endif

#endif /* KISAM_ZTSUPPORT_H */
