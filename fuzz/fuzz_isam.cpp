// ISAM file images: opened by the engine and read along every key in every mode, then
// checked by the structural checker.
//
// Promises checked: no crash, hang or out-of-bounds access whatever the bytes; every
// failing call returns -1 with an ISE_* code and a stack of its own; a read never
// claims more bytes than the buffer holds.  Each input gets a fresh attachment, so that
// one image cannot leave state behind for the next.
#include "harness.h"

#include "kcheck.h"

#include <kisam/kisam.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Reads per key and direction; images with cycles in their trees would otherwise read
// for ever (each read is bounded, a scan along a cycle is not).
constexpr int kSteps = 12;
constexpr int kRecBuf = 66000;

struct Reader {
    int fd;
    int nkeys;
    int lens[KISAM_MAXKEYS];
    int offs[KISAM_MAXKEYS];   // where key k's value sits in a record
    std::vector<char> rec = std::vector<char>(kRecBuf);
    std::vector<std::string> seen;   // key values met, to look up again

    int check(int r, int size, const char* what) {
        kfz::expect_named(r, what);
        if (r < -1 || r > size) kfz::finding("%s returned %d for a buffer of %d bytes", what, r, size);
        return r;
    }
    int read(int k, bool forward, int size) {
        kfz::clear_error();
        int r = forward ? nisread(fd, k, rec.data(), size) : nispread(fd, k, rec.data(), size);
        check(r, size, forward ? "nisread" : "nispread");
        if (r > 0 && offs[k] + lens[k] <= r && seen.size() < 8)
            seen.emplace_back(rec.data() + offs[k], static_cast<size_t>(lens[k]));
        return r;
    }
    void seek(int k, const std::string& key) {
        kfz::clear_error();
        kfz::expect_named(nisseek(fd, k, key.data()), "nisseek");
    }
    void find(int k, const std::string& key, int size) {
        kfz::clear_error();
        check(nisfind(fd, k, key.data(), rec.data(), size), size, "nisfind");
    }

    void along(int k) {
        const int len = lens[k];
        const std::string low(static_cast<size_t>(len), '\0'), high(static_cast<size_t>(len), '\xFF');
        seen.clear();
        // From the front, then back again from where the scan stopped.
        for (int i = 0; i < kSteps && read(k, true, kRecBuf) > 0; ++i) {}
        for (int i = 0; i < kSteps && read(k, false, kRecBuf) > 0; ++i) {}
        // From the back, with a buffer that holds only key 0 (records are cut).
        seek(k, high);
        for (int i = 0; i < kSteps && read(k, false, lens[0]) > 0; ++i) {}
        seek(k, low);
        for (int i = 0; i < 3 && read(k, true, 1 + lens[0]) > 0; ++i) {}
        // Every value met, exactly and as neighbours; and a value no record has.
        for (const std::string& v : std::vector<std::string>(seen)) {
            find(k, v, kRecBuf);
            find(k, v, 1020);
            seek(k, v);
            read(k, false, kRecBuf);
            read(k, true, kRecBuf);
        }
        find(k, high, kRecBuf);
        // A buffer too small for key 0 is refused with a code.
        kfz::clear_error();
        check(nisread(fd, k, rec.data(), lens[0] - 1), lens[0] - 1, "nisread (short buffer)");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = kfz::in_sandbox("image.ism");
    kfz::write_file(file, data, size);

    if (is_init() != 0) kfz::finding("the sandbox installation does not attach");
    Reader r;
    kfz::clear_error();
    r.fd = nisopen(file.c_str(), ISO_RDONLY | ISF_NOVERIFY);
    r.check(r.fd < 0 ? -1 : 0, 0, "nisopen");
    if (r.fd >= 0) {
        kfz::clear_error();
        r.nkeys = nisstat(r.fd, KISAM_MAXKEYS, r.lens);
        r.check(r.nkeys < 0 ? -1 : 0, 0, "nisstat");
        if (r.nkeys > KISAM_MAXKEYS) kfz::finding("nisstat: %d keys", r.nkeys);
        for (int k = 0, off = 0; k < r.nkeys; ++k) {
            r.offs[k] = off;
            off += r.lens[k];
        }
        for (int k = 0; k < r.nkeys; ++k) r.along(k);
        kfz::clear_error();
        kfz::expect_named(nisclose(r.fd), "nisclose");
    }
    nisunisam();

    // The checker reads the file on its own, without the engine.
    kisam::check::Report rep = kisam::check::check_file(file);
    if (!rep.ok && rep.error.empty()) kfz::finding("the checker found damage but did not say what");
    for (int k = 0; k < std::min(rep.keys.empty() ? 0 : static_cast<int>(rep.keys.size()), 3); ++k) {
        std::vector<std::string> items;
        std::string err;
        kisam::check::list_items(file, k, &items, &err);
    }
    ::unlink(file.c_str());
    return 0;
}
