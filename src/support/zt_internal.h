// Private declarations shared by the support library's modules.
#pragma once

#include <kisam/ztsupport.h>

#include <cstddef>
#include <string>

#ifndef KISAM_API
#define KISAM_API __attribute__((visibility("default")))
#endif

// Scratch sizes of the settings store: names and paths are limited to 512 characters.
constexpr int ZT_SCRATCH = 576;
constexpr int ZT_PATHMAX = 513;

// Internal steps of the settings store (getq9env.cpp).
char *__GetUsrEnv(const char *name);
char *__GetSysEnv(const char *name);
char *__GetUsrEnvX(const char *name);
bool  is_a_dir(const char *path);
// For tests and fuzzing: read the user profile again into an emptied user store; read
// one settings file, directives included, into the system store (0 when it cannot be
// opened, else 1).
void  zt_reload_usr_env();
int   zt_load_settings_file(const char *path);
// ZTExpand that also tells whether the result was cut to fit: a cut path names some
// other file and must not be acted upon.
int   zt_expand(const char *text, char *out, int size, bool *cut);

// The parameter reader is one per process.  The settings store reads its files with
// it, possibly while a caller has a file of its own open: the caller's reader is
// set aside for the load and put back afterwards (parmio.cpp).
struct ParmState {
    FILE *fp;
    ParmData *data;
    char *id;
    char *value;
    int nargs;
    char *argp;
};
ParmState parm_detach();
void parm_attach(const ParmState &saved);

namespace kisam {

// Bounded formatting into a fixed buffer: always terminated, cut when too long.
// Returns the length written; *cut (when given) tells whether the text was cut.
int zt_fmt(char *buf, std::size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
bool zt_fits(char *buf, std::size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// Appends `text` to `out` as one shell word that the shell reads back unchanged,
// whatever characters it holds (single quotes are closed, escaped and reopened).
void zt_shell_quote(std::string &out, const char *text);

}  // namespace kisam
