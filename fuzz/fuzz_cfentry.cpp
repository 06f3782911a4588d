// Configuration-entry files through ZTCFOpen and its readers: entries split into fields,
// lines pushed back, entries taken apart twice.
//
// Promises checked: no crash or out-of-bounds access; a split never yields more fields
// than the array holds and always ends the array with null; splitting an entry a second
// time is refused.
#include "harness.h"

#include <kisam/ztsupport.h>

#include <cstring>
#include <string>

namespace {

constexpr int kArgs = 12;

void check_fields(char** argv, int n, const char* how) {
    if (n < -1 || n >= kArgs) kfz::finding("%s: %d fields in an array of %d", how, n, kArgs);
    if (n >= 0 && argv[n] != nullptr) kfz::finding("%s: the fields do not end with null", how);
    for (int i = 0; i < n; ++i)
        if (argv[i] == nullptr) kfz::finding("%s: field %d of %d is null", how, i, n);
        else (void)std::strlen(argv[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = kfz::in_sandbox("entries.txt");
    kfz::write_file(file, data, size);
    char* argv[kArgs];

    // Entries split with the default delimiters.
    ZTConfigInfo* ci = ZTCFOpen(file.c_str());
    if (ci == nullptr) kfz::finding("ZTCFOpen refused a readable file");
    for (int i = 0; i < 4096; ++i) {
        int n = ZTCFGetParsedEntry(ci, argv, kArgs, nullptr);
        if (n < 0) break;
        check_fields(argv, n, "ZTCFGetParsedEntry");
    }
    ZTCFClose(ci);

    // Entries with blanks as delimiters, each split twice; lines read and pushed back in
    // between.
    ci = ZTCFOpen(file.c_str());
    if (ci == nullptr) kfz::finding("ZTCFOpen refused a readable file");
    for (int i = 0; i < 4096; ++i) {
        if (i % 3 == 1) {
            char* line = ZTCFGetLine(ci);
            if (line != nullptr) (void)std::strlen(line);
            ZTCFUngetLine(ci);
            ZTCFUngetLine(ci);
        }
        char* e = ZTCFGetEntry(ci);
        if (e == nullptr) break;
        (void)std::strlen(e);
        int n = ZTCFParseEntry(ci, argv, kArgs, " \t\n");
        check_fields(argv, n, "ZTCFParseEntry");
        if (ZTCFParseEntry(ci, argv, kArgs, " \t\n") != -1) kfz::finding("an entry was split twice");
    }
    ZTCFClose(ci);
    return 0;
}
