// The binary configuration record, read by is_init, which sizes and lays out the
// shared segment from it.
//
// Promises checked: is_init either refuses the record with a code and leaves nothing
// attached, or attaches a segment in which a small workload (create, write records of
// every size class, read them back, close) either works -- and then leaves a sound file
// -- or fails with a code.  Each input attaches afresh and detaches.
//
// The kernel here refuses segments above 64 MiB, as one with a smaller kernel.shmmax
// would: a record may ask for gigabytes, and zeroing them for every input would leave
// no time for anything else.
#include "harness.h"

#include "kcheck.h"

#include <kisam/kisam.h>

#include "os.h"

#include <cerrno>

#include <unistd.h>

#include <string>
#include <vector>

namespace {

constexpr int kRecords = 24;
constexpr size_t kMaxSegment = 64u << 20;

int capped_shmget(key_t key, size_t size, int flags) {
    if (size > kMaxSegment) {
        errno = EINVAL;
        return -1;
    }
    return kisam::os_real.shmget(key, size, flags);
}

std::string record(int i) {
    char key[16];
    std::snprintf(key, sizeof key, "%04d%06d", i * 37 % 1000, i);
    std::string r(key);
    // Short records, one that fills a shared page, and some with overflow pages.
    const size_t len = i % 6 == 5 ? 2500 + static_cast<size_t>(i) * 11 : i % 6 == 4 ? 1020 : 12 + static_cast<size_t>(i) * 5;
    while (r.size() < len) r.push_back(static_cast<char>('a' + r.size() % 23));
    return r;
}

// Returns true when every call succeeded.
bool workload(const std::string& file) {
    const int lens[2] = {4, 6};
    kfz::clear_error();
    int fd = niscreate(file.c_str(), 2, lens);
    kfz::expect_named(fd < 0 ? -1 : 0, "niscreate");
    if (fd < 0) return false;
    bool ok = true;
    for (int i = 0; i < kRecords && ok; ++i) {
        std::string r = record(i);
        kfz::clear_error();
        int w = niswrite(fd, r.data(), static_cast<int>(r.size()));
        kfz::expect_named(w, "niswrite");
        ok = w == 0;
    }
    std::vector<char> buf(4096);
    for (int k = 0; k < 2 && ok; ++k) {
        int n = 0, got;
        do {
            kfz::clear_error();
            got = nisread(fd, k, buf.data(), static_cast<int>(buf.size()));
            kfz::expect_named(got, "nisread");
        } while (got > 0 && ++n <= kRecords);
        if (got < 0) ok = false;
        else if (n != kRecords) kfz::finding("read %d records along key %d, wrote %d", n, k, kRecords);
    }
    kfz::clear_error();
    int c = nisclose(fd);
    kfz::expect_named(c, "nisclose");
    return ok && c == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kisam::os.shmget = capped_shmget;
    const std::string conf = kfz::in_sandbox("kisamconfig");
    const std::string file = kfz::in_sandbox("work.ism");
    kfz::write_file(conf, data, size);

    kfz::clear_error();
    int r = is_init();
    kfz::expect_named(r, "is_init");
    if (r != 0 && isam_com != nullptr) kfz::finding("is_init failed but left the segment attached");
    if (r == 0) {
        bool ok = workload(file);
        nisunisam();
        if (ok) {
            kisam::check::Report rep = kisam::check::check_file(file);
            if (!rep.ok) kfz::finding("a workload that succeeded left a damaged file: %s", rep.error.c_str());
        }
    }
    ::unlink(file.c_str());
    kfz::write_default_config(conf);
    return 0;
}
