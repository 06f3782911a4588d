// Writes on damaged files: an ISAM image, damaged further by the input's own commands
// (bytes flipped, pages cut out, the file cut short, pages zeroed), opened read-write and
// given up to 48 writes, forced writes, updates, deletes, reads, seeks, finds and
// flushes; then closed and checked by the structural checker.
//
// Input: byte 0 is the length of the script in 4-byte commands (at most 64), then the
// script, then the image (the seeds are sound files).  A command is (kind, a, b, c).
//
// Promises checked: no crash, hang or out-of-bounds access whatever the file holds;
// every failing call returns -1 with an ISE_* code and a stack of its own; a read never
// claims more bytes than the buffer holds; the checker says what it found.  Each input
// gets a fresh attachment.
#include "harness.h"

#include "kcheck.h"

#include <kisam/kisam.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kMaxCalls = 48;
constexpr int kMaxCommands = 64;
constexpr int kPage = 1024;
constexpr int kRecBuf = 66000;

struct Command {
    uint8_t kind, a, b, c;
};

// The damage commands, applied to the image before it is written out.
void damage(std::string& img, const Command& k) {
    if (img.empty()) return;
    const size_t pages = (img.size() + kPage - 1) / kPage;
    switch (k.kind % 16) {
    case 12: {  // flip the bits c in byte (a, b) of the first 64 KiB
        const size_t at = ((static_cast<size_t>(k.a) << 8) | k.b) % img.size();
        img[at] = static_cast<char>(img[at] ^ (k.c ? k.c : 0x80));
        break;
    }
    case 13: {  // cut page a out: the pages after it move down
        const size_t p = k.a % pages;
        img.erase(p * kPage, kPage);
        break;
    }
    case 14:  // the file ends inside page a, at byte b * 4
        img.resize(std::min(img.size(), (k.a % pages) * kPage + static_cast<size_t>(k.b) * 4));
        break;
    case 15: {  // page a zeroed, or set to the byte c
        const size_t p = k.a % pages;
        const size_t end = std::min(img.size(), (p + 1) * kPage);
        std::fill(img.begin() + static_cast<long>(p * kPage), img.begin() + static_cast<long>(end),
                  static_cast<char>(k.b & 1 ? k.c : 0));
        break;
    }
    default:
        break;
    }
}

struct Writer {
    int fd = -1;
    int nkeys = 0;
    int lens[KISAM_MAXKEYS] = {};
    int minrec = 0;   // the sum of the key lengths: the shortest record
    std::vector<char> rec = std::vector<char>(kRecBuf);
    std::vector<char> buf = std::vector<char>(kRecBuf);

    int check(int r, int size, const char* what) {
        kfz::expect_named(r, what);
        if (r < -1 || r > size) kfz::finding("%s returned %d for a buffer of %d bytes", what, r, size);
        return r;
    }

    // Record `id` of generation `gen`: every key value made from the two, then filler;
    // at least the key lengths' sum, at most about 3 pages, or a bad size now and then.
    int make(const Command& k) {
        const int id = k.a % 24;
        const int gen = k.b;
        int size = minrec + (k.c % 8 == 7 ? k.c * 12 : k.c % 64);
        if (k.c == 0xFF) size = minrec - 1;   // too short: refused with a code
        size = std::max(0, std::min(size, kRecBuf));
        char* p = rec.data();
        for (int i = 0; i < size; ++i) p[i] = static_cast<char>('a' + (i + gen) % 26);
        int off = 0;
        for (int key = 0; key < nkeys && off < size; ++key) {
            char v[16];
            // Key 0 from the id alone, so that updates and deletes meet written records.
            const int n = std::snprintf(v, sizeof v, "%06d%04d", id, key == 0 ? 0 : gen % 7);
            for (int i = 0; i < lens[key] && off + i < size; ++i) p[off + i] = v[i % n];
            off += lens[key];
        }
        return size;
    }

    void call(const Command& k) {
        const int key = nkeys > 0 ? k.b % nkeys : 0;
        kfz::clear_error();
        switch (k.kind % 16) {
        case 0:
        case 1: {
            const int n = make(k);
            check(niswrite(fd, rec.data(), n), 1, "niswrite");
            break;
        }
        case 2: {
            const int n = make(k);
            check(nisfwrite(fd, rec.data(), n), 1, "nisfwrite");
            break;
        }
        case 3:
        case 4: {
            const int n = make(k);
            check(nisupdate(fd, rec.data(), n), 1, "nisupdate");
            break;
        }
        case 5: {
            make(k);
            check(nisdelete(fd, rec.data()), 0, "nisdelete");
            break;
        }
        case 6:
        case 7: {
            const int size = k.c & 1 ? kRecBuf : std::max(1, lens[0] + k.c % 40);
            check(nisread(fd, key, buf.data(), size), size, "nisread");
            break;
        }
        case 8: {
            const int size = k.c & 1 ? kRecBuf : std::max(1, lens[0] + k.c % 40);
            check(nispread(fd, key, buf.data(), size), size, "nispread");
            break;
        }
        case 9: {
            make(k);
            int off = 0;
            for (int i = 0; i < key; ++i) off += lens[i];
            check(nisseek(fd, key, rec.data() + off), 0, "nisseek");
            break;
        }
        case 10: {
            make(k);
            int off = 0;
            for (int i = 0; i < key; ++i) off += lens[i];
            check(nisfind(fd, key, rec.data() + off, buf.data(), kRecBuf), kRecBuf, "nisfind");
            break;
        }
        case 11:
            check(nisflush(fd), 0, "nisflush");
            break;
        default:
            break;
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const size_t ncmd = std::min<size_t>({data[0], kMaxCommands, (size - 1) / 4});
    std::vector<Command> script(ncmd);
    for (size_t i = 0; i < ncmd; ++i)
        script[i] = {data[1 + 4 * i], data[2 + 4 * i], data[3 + 4 * i], data[4 + 4 * i]};
    const size_t head = 1 + 4 * ncmd;
    std::string img(reinterpret_cast<const char*>(data) + head, size - head);
    for (const Command& k : script) damage(img, k);

    const std::string file = kfz::in_sandbox("damaged.ism");
    kfz::write_file(file, reinterpret_cast<const uint8_t*>(img.data()), img.size());

    if (is_init() != 0) kfz::finding("the sandbox installation does not attach");
    Writer w;
    kfz::clear_error();
    w.fd = nisopen(file.c_str(), ISO_RDWR);
    w.check(w.fd < 0 ? -1 : 0, 0, "nisopen");
    if (w.fd >= 0) {
        kfz::clear_error();
        w.nkeys = nisstat(w.fd, KISAM_MAXKEYS, w.lens);
        w.check(w.nkeys < 0 ? -1 : 0, 0, "nisstat");
        if (w.nkeys > KISAM_MAXKEYS) kfz::finding("nisstat: %d keys", w.nkeys);
        for (int k = 0; k < w.nkeys; ++k) w.minrec += w.lens[k];
        int calls = 0;
        for (const Command& k : script) {
            if (k.kind % 16 >= 12) continue;
            if (++calls > kMaxCalls) break;
            w.call(k);
        }
        kfz::clear_error();
        kfz::expect_named(nisclose(w.fd), "nisclose");
    }
    nisunisam();
    // Each input on its own: no journal of this run is left for the next to settle.
    for (int slot = 0; slot < 4; ++slot)
        ::unlink(kfz::in_sandbox("kisamconfig.lk.u" + std::to_string(slot)).c_str());

    kisam::check::Report rep = kisam::check::check_file(file);
    if (!rep.ok && rep.error.empty()) kfz::finding("the checker found damage but did not say what");
    ::unlink(file.c_str());
    return 0;
}
