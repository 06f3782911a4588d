// A settings profile, read the two ways the settings store reads such files: as the
// user profile (every record a setting) and as a system settings file (with the
// LocalEnv, Env and UserEnv directives), followed by lookups and ${NAME} expansion of
// what it set.
//
// Promises checked: no crash, out-of-bounds access or leak; an expansion never writes
// beyond the size it is given.  The process environment and file-creation mask that
// the directives may change are put back after each input.
#include "harness.h"

#include "zt_internal.h"

#include <kisam/ztsupport.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <map>
#include <string>
#include <vector>

extern char** environ;

// The directives put variables into the process environment with putenv, which keeps
// the strings it is given; ZTPutRealEnv allocates them and never frees them.  The
// harness takes every such string back after the input (below), so that each input
// frees what it allocated and the leak checker stays quiet unless something else leaks.
namespace {
bool g_recording = false;
std::vector<char*> g_put;
}  // namespace

extern "C" int putenv(char* s) {
    using Fn = int (*)(char*);
    static Fn real = reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, "putenv"));
    const int r = real(s);
    if (r == 0 && g_recording) g_put.push_back(s);   // a refused string stays its owner's
    return r;
}

namespace {

std::map<std::string, char*> g_env;   // the environment before any input, by name
mode_t g_umask = 022;

std::string name_of(const char* entry) {
    const char* eq = std::strchr(entry, '=');
    return eq ? std::string(entry, static_cast<size_t>(eq - entry)) : std::string(entry);
}

// Puts the environment back as it was before the input, with its own strings, then
// frees the strings the input handed to putenv: none of them is in the environment now.
void restore_environment() {
    g_recording = false;
    std::vector<std::string> added;
    for (char** e = environ; *e; ++e)
        if (!g_env.count(name_of(*e))) added.push_back(name_of(*e));
    for (const std::string& name : added) ::unsetenv(name.c_str());
    for (const auto& [name, entry] : g_env) {
        bool same = false;
        for (char** e = environ; *e && !same; ++e) same = *e == entry;
        if (!same) ::putenv(entry);
    }
    for (char* s : g_put) std::free(s);
    g_put.clear();
    ::umask(g_umask);
}

// Identifiers at the start of the lines, as the reader finds them (at most 16).
std::vector<std::string> identifiers(const uint8_t* data, size_t size) {
    std::vector<std::string> ids;
    for (size_t i = 0; i < size && ids.size() < 16;) {
        size_t j = i;
        while (j < size && (std::isalnum(data[j]) || data[j] == '_')) ++j;
        if (j > i && j - i < 200) ids.emplace_back(reinterpret_cast<const char*>(data + i), j - i);
        while (j < size && data[j] != '\n') ++j;
        i = j + 1;
    }
    return ids;
}

void expand(const char* v) {
    if (v == nullptr) return;
    char big[1024], small[8];
    if (ZTExpand(v, big, sizeof big) >= static_cast<int>(sizeof big)) kfz::finding("ZTExpand overran 1024 bytes");
    if (ZTExpand(v, small, sizeof small) >= static_cast<int>(sizeof small)) kfz::finding("ZTExpand overran 8 bytes");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static bool done = false;
    if (done) return 0;
    done = true;
    kfz::sandbox();
    // The system store is loaded once, from the sandbox, before any input: loading it
    // creates directories below the base directory, which an input could otherwise
    // name anywhere.
    LoadEnv();
    g_umask = ::umask(022);
    ::umask(g_umask);
    for (char** e = environ; *e; ++e) g_env.emplace(name_of(*e), *e);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LLVMFuzzerInitialize(nullptr, nullptr);
    const std::string profile = std::getenv("PROFILEQ9ENV");
    g_recording = true;
    kfz::write_file(profile, data, size);
    const std::vector<std::string> ids = identifiers(data, size);
    static const char* const fixed[] = {"base_dir", "tmp_dir", "config_fn", "HOME_Q9", "datetype", "KISCONFIG"};

    zt_reload_usr_env();
    for (const std::string& id : ids) {
        expand(GetUsrEnv(id.c_str()));
        expand(ZTGetEnvX(id.c_str()));
    }
    for (const char* name : fixed) expand(ZTGetEnv(name));
    char dir[ZT_PATHBUF];
    getQ9dir("tmp", dir);
    getQ9dirX("bin", dir);

    FreeSysEnv();
    zt_load_settings_file(profile.c_str());
    for (const std::string& id : ids) expand(GetSysEnv(id.c_str()));

    FreeUsrEnv();
    FreeSysEnv();
    restore_environment();
    return 0;
}
