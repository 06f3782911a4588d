// Parameter files through ParmOpen and ParmRead, with every value cracked into its
// arguments.
//
// Promises checked: no crash or out-of-bounds access; every record has an identifier
// that starts with a letter or "_"; the argument count is 0..50, every argument in range
// has a text and a length, and the accessors give their documented values outside it.
#include "harness.h"

#include <kisam/ztsupport.h>

#include <cctype>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = kfz::in_sandbox("parm.txt");
    kfz::write_file(file, data, size);
    if (ParmOpen(file.c_str()) != 0) kfz::finding("ParmOpen refused a readable file");
    for (int rec = 0; rec < 4096; ++rec) {
        int r = ParmRead();
        if (r == 0) break;
        if (r != 1) kfz::finding("ParmRead returned %d on a readable file", r);
        const char* id = ParmID();
        if (id == nullptr || !(std::isalpha(static_cast<unsigned char>(id[0])) || id[0] == '_'))
            kfz::finding("record %d has no identifier", rec);
        const char* value = ParmValue();
        if (value != nullptr) (void)std::strlen(value);
        const int argc = ParmArgc();
        if (argc < 0 || argc > 50) kfz::finding("record %d: %d arguments", rec, argc);
        for (int i = -1; i <= argc; ++i) {
            const char* a = ParmArgvS(i);
            const int len = ParmArgvSl(i);
            const int32_t n = ParmArgvN(i);
            const bool in = i >= 0 && i < argc;
            if (in != (a != nullptr)) kfz::finding("record %d: argument %d of %d has%s a text", rec, i, argc, a ? "" : " no");
            if (in ? len < 0 : len != -1) kfz::finding("record %d: argument %d has length %d", rec, i, len);
            if (!in && n != INT32_MIN) kfz::finding("record %d: argument %d out of range has a number", rec, i);
            if (a != nullptr) (void)std::strlen(a);
        }
        if (ParmArgc() != argc) kfz::finding("record %d cracked twice differently", rec);
    }
    ParmOpen(nullptr);
    return 0;
}
