#include "oracle.h"

#include "kisam_test.h"

#include "is_common.h"
#include "is_lock.h"
#include "isx_area.h"
#include "v_pool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <vector>

namespace kt::oracle {

std::ostream& operator<<(std::ostream& os, const Rec& r) {
    if (!r.present()) return os << "absent";
    return os << "gen " << r.gen << " size " << r.size;
}

namespace {
int gen_digits(const Layout& L) { return std::min(L.l1, 8); }
unsigned gen_mask(const Layout& L) { return gen_digits(L) >= 8 ? ~0u : (1u << (4 * gen_digits(L))) - 1; }
}  // namespace

std::string key(const Layout& L, int id) {
    char k[16];
    std::snprintf(k, sizeof k, "%0*d", std::min(L.l0, 10), id);
    return std::string(static_cast<size_t>(L.l0 - std::min(L.l0, 10)), '0') + k;
}

std::string record(const Layout& L, int id, int gen, int size) {
    std::string r(static_cast<size_t>(std::max(size, L.min())), ' ');
    const std::string k0 = key(L, id);
    std::memcpy(&r[0], k0.data(), static_cast<size_t>(L.l0));
    const unsigned g = static_cast<unsigned>(gen) & gen_mask(L);
    char k1[16];
    std::snprintf(k1, sizeof k1, "%0*x", gen_digits(L), g);
    std::memcpy(&r[static_cast<size_t>(L.l0)], k1, static_cast<size_t>(gen_digits(L)));
    for (int i = gen_digits(L); i < L.l1; ++i) r[static_cast<size_t>(L.l0 + i)] = static_cast<char>('a' + (id * 7 + static_cast<int>(g)) % 26);
    const size_t k2 = static_cast<size_t>(L.l0 + L.l1);
    if (L.l2 > 0) r[k2] = static_cast<char>('A' + (static_cast<int>(g) * 7 + id) % 5);   // few values: long runs of duplicates
    for (int i = 1; i < L.l2; ++i) r[k2 + static_cast<size_t>(i)] = static_cast<char>('A' + (id + static_cast<int>(g) * 3 + i) % 26);
    for (size_t i = static_cast<size_t>(L.min()); i < r.size(); ++i)
        r[i] = static_cast<char>('a' + (id * 13 + static_cast<int>(g) * 7 + static_cast<int>(i)) % 26);
    return r;
}

bool parse(const Layout& L, const char* p, int n, int* id, Rec* r) {
    if (n < L.min()) return false;
    const std::string k0(p, static_cast<size_t>(L.l0)), k1(p + L.l0, static_cast<size_t>(gen_digits(L)));
    char* end;
    const long i = std::strtol(k0.c_str(), &end, 10);
    if (*end || k0.find_first_not_of("0123456789") != std::string::npos) return false;
    const unsigned long g = std::strtoul(k1.c_str(), &end, 16);
    if (*end || k1.find_first_not_of("0123456789abcdef") != std::string::npos) return false;
    const std::string want = record(L, static_cast<int>(i), static_cast<int>(g), n);
    if (std::memcmp(want.data(), p, static_cast<size_t>(n)) != 0) return false;
    *id = static_cast<int>(i);
    *r = Rec{static_cast<int>(g), n};
    return true;
}

Rec find(int fd, const Layout& L, int id) {
    std::vector<char> buf(65536);
    const int n = nisfind(fd, 0, key(L, id).c_str(), buf.data(), static_cast<int>(buf.size()));
    int got;
    Rec r;
    if (n <= 0) return Rec{n == 0 ? -1 : -3, 0};
    return parse(L, buf.data(), n, &got, &r) && got == id ? r : Rec{-2, n};
}

Rec after(char op, const Rec& before, int gen, int size) {
    switch (op) {
        case 'w': return before.present() ? before : Rec{gen, size};
        case 'f': return Rec{gen, size};
        case 'd': return Rec{};
        default: return before.present() ? Rec{gen, size} : before;
    }
}

::testing::AssertionResult same(const Model& want, const Model& got) {
    long wrong = 0;
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    auto compare = [&](int id) {
        const Rec w = want.count(id) ? want.at(id) : Rec{};
        const Rec g = got.count(id) ? got.at(id) : Rec{};
        if (w == g) return;
        if (++wrong <= 5) r << "record " << id << ": " << g << ", but the calls made give " << w << "\n";
    };
    for (const auto& [id, rec] : want) compare(id);
    for (const auto& [id, rec] : got)
        if (!want.count(id)) compare(id);
    if (!wrong) return ::testing::AssertionSuccess();
    return r << wrong << " records differ from the model";
}

// ---- the oracle ----------------------------------------------------------------------------

void Oracle::begin(char op, int id, int gen, int size) {
    pending_ = true;
    op_ = op, id_ = id, gen_ = gen, size_ = size;
    ++calls;
}

void Oracle::end(int rc) {
    if (pending_ && rc >= 0) model_[id_] = after(op_, get(id_), gen_, size_);
    pending_ = false;
}

::testing::AssertionResult Oracle::cut(const Rec& now) {
    const Rec before = get(id_), done = after(op_, before, gen_, size_);
    model_[id_] = now;
    pending_ = false;
    ++cut_short;
    if (now == before || now == done) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "a call " << op_ << " on " << id_ << " cut short left " << now
                                         << "; before it: " << before << ", after it: " << done;
}

Model Oracle::with_pending() const {
    Model m = model_;
    if (pending_) m[id_] = after(op_, get(id_), gen_, size_);
    return m;
}

Rec Oracle::get(int id) const {
    auto it = model_.find(id);
    return it == model_.end() ? Rec{} : it->second;
}

// ---- the log -------------------------------------------------------------------------------

Log::Log(const std::string& path) : fd_(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {}
Log::~Log() { ::close(fd_); }

void Log::line(const char* fmt, ...) {
    char b[128];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(b, sizeof b, fmt, ap);
    va_end(ap);
    if (::write(fd_, b, static_cast<size_t>(n)) != n) std::_Exit(60);
}

void Log::begin(int seq, char op, int id, int gen, int size) { line("B %d %c %d %d %d\n", seq, op, id, gen, size); }
void Log::end(int seq, int rc, int err) { line("E %d %d %d\n", seq, rc, err); }
void Log::resolved(int id, const Rec& now) { line("R %d %d %d\n", id, now.gen, now.present() ? now.size : 0); }

void Log::heal(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    off_t end = ::lseek(fd, 0, SEEK_END);
    char c = '\n';
    while (end > 0 && ::pread(fd, &c, 1, end - 1) == 1 && c != '\n') --end;
    if (::ftruncate(fd, end) != 0) std::_Exit(62);
    ::close(fd);
}

int Log::open_call(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    char b[512];
    const off_t end = ::lseek(fd, 0, SEEK_END);
    const off_t from = end > static_cast<off_t>(sizeof b) ? end - static_cast<off_t>(sizeof b) : 0;
    const ssize_t n = ::pread(fd, b, sizeof b, from);
    ::close(fd);
    if (n <= 0) return -1;
    std::string s(b, static_cast<size_t>(n));
    if (s.back() == '\n') s.pop_back();
    const size_t nl = s.rfind('\n');
    int seq, id;
    char op;
    return std::sscanf(s.c_str() + (nl == std::string::npos ? 0 : nl + 1), "B %d %c %d", &seq, &op, &id) == 3 ? id : -1;
}

::testing::AssertionResult replay(const std::string& path, long* offset, Oracle& o) {
    Log::heal(path);
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) return ::testing::AssertionSuccess();   // no worker wrote it yet
    std::fseek(f, *offset, SEEK_SET);
    char line[256];
    ::testing::AssertionResult r = ::testing::AssertionSuccess();
    while (r && std::fgets(line, sizeof line, f)) {
        int seq, rc, err, id, gen, size;
        char op;
        if (std::sscanf(line, "B %d %c %d %d %d", &seq, &op, &id, &gen, &size) == 5) {
            o.begin(op, id, gen, size);
        } else if (std::sscanf(line, "E %d %d %d", &seq, &rc, &err) == 3) {
            if (!o.pending()) r = ::testing::AssertionFailure() << path << ": an end without a start: " << line;
            o.end(rc);
        } else if (std::sscanf(line, "R %d %d %d", &id, &gen, &size) == 3) {
            if (!o.pending() || id != o.pending_id())
                r = ::testing::AssertionFailure() << path << ": a resolution of nothing: " << line;
            else
                r = o.cut(Rec{gen, gen < 0 ? 0 : size});
        }
        *offset = std::ftell(f);
    }
    std::fclose(f);
    return r;
}

// ---- reading the file ----------------------------------------------------------------------

Scan scan(int fd, const Layout& L, int keys) {
    Scan s;
    if (keys == 0) keys = L.keys();
    const int off[3] = {0, L.l0, L.l0 + L.l1}, len[3] = {L.l0, L.l1, L.l2};
    const std::string low(static_cast<size_t>(std::max({L.l0, L.l1, L.l2})), '\0');
    std::vector<std::pair<int, Rec>> along[3];
    std::vector<char> buf(65536);
    auto fail = [&](const std::string& why) {
        if (s.why.empty()) s.why = why;
    };
    for (int k = 0; k < keys; ++k) {
        if (nisseek(fd, k, low.data()) != 0) {
            fail("seek along key " + std::to_string(k) + " fails: is_errno " + std::to_string(is_errno));
            s.read_failed = true;
            continue;
        }
        // Every key is read to its end or first error, also after a bad record, so that a
        // program that would have seen an error is told from one that would not.
        std::string prev;
        int n;
        // A damaged index or a read that does not move on could loop: no key holds more records
        // than the file has room for their index items (four bytes at least).
        const IS_FCP* fcp = kisam::pfo_fcp(is_db[fd]->uniqueid);
        const long most = (fcp ? static_cast<long>(fcp->is_lastpage / 4) : 1L << 22) + 64;
        long steps = 0;
        while ((n = nisread(fd, k, buf.data(), static_cast<int>(buf.size()))) > 0) {
            if (++steps > most) {
                fail("key " + std::to_string(k) + ": the reads along it do not end (more than " + std::to_string(most) +
                     " records in a file of " + std::to_string(fcp ? fcp->is_lastpage / 1024 : 0) + " pages)");
                s.read_failed = true;
                break;
            }
            int id;
            Rec r;
            if (!parse(L, buf.data(), n, &id, &r)) {
                fail("key " + std::to_string(k) + ": a record of " + std::to_string(n) + " bytes that no call wrote (\"" +
                     std::string(buf.data(), static_cast<size_t>(std::min(n, 16))) + "\")");
                continue;
            }
            const std::string kv(buf.data() + off[k], static_cast<size_t>(len[k]));
            if (!along[k].empty() && (kv < prev || (k == 0 && kv == prev)))
                fail("key " + std::to_string(k) + ": records out of order at id " + std::to_string(id));
            prev = kv;
            along[k].emplace_back(id, r);
        }
        if (n < 0) {
            fail("read along key " + std::to_string(k) + " fails: is_errno " + std::to_string(is_errno));
            s.read_failed = true;
        }
    }
    for (const auto& [id, r] : along[0]) s.recs[id] = r;
    auto order = [](const std::pair<int, Rec>& a, const std::pair<int, Rec>& b) {
        return a.first != b.first ? a.first < b.first : a.second.gen != b.second.gen ? a.second.gen < b.second.gen
                                                                                      : a.second.size < b.second.size;
    };
    for (int k = 1; k < keys; ++k) {
        std::sort(along[k].begin(), along[k].end(), order);
        if (along[k] != along[0])
            fail("key " + std::to_string(k) + " holds " + std::to_string(along[k].size()) + " records, key 0 " +
                 std::to_string(along[0].size()) + ", or other ones");
    }
    return s;
}

::testing::AssertionResult holds(const std::string& file, const Layout& L, const Model& want, int mode) {
    const int fd = nisopen(file.c_str(), mode);
    if (fd < 0) return ::testing::AssertionFailure() << "open fails: is_errno " << is_errno;
    const Scan s = scan(fd, L);
    const int closed = nisclose(fd);
    nisunisam();
    if (closed != 0) return ::testing::AssertionFailure() << "close fails: is_errno " << is_errno;
    if (!s.ok()) return ::testing::AssertionFailure() << s.why;
    if (::testing::AssertionResult r = same(want, s.recs); !r) return r;
    return kt::sound(file);
}

// ---- the shared area -----------------------------------------------------------------------

::testing::AssertionResult shared_sound() {
    if (is_lock(&isam_com->free_lock) != 0) return ::testing::AssertionFailure() << "free_lock cannot be taken";
    ::testing::AssertionResult r = ::testing::AssertionSuccess();
    const RELt limit = static_cast<RELt>(isam_com->comsize - isam_com->heap_base);
    RELt p = 0;
    int wraps = 0, blocks = 0;
    do {
        const Cheader* b = kisam::rel_ptr<Cheader>(p);
        const RELt next = b->Cnext;
        const uint64_t size = kisam::load_at<uint64_t>(&b->Csize);   // 4-aligned in the heap
        if (next >= limit || next % 16 != 0) r = ::testing::AssertionFailure() << "heap: a bad link at " << p;
        else if (next > p && p + size * 16 > next) r = ::testing::AssertionFailure() << "heap: free blocks overlap at " << p;
        else if (p != 0 && size == 0) r = ::testing::AssertionFailure() << "heap: an empty free block at " << p;
        else if (++blocks >= 100000) r = ::testing::AssertionFailure() << "heap: the free list runs in a circle";
        wraps += next <= p;
        p = next;
    } while (r && p != 0);
    if (r && wraps > 1) r = ::testing::AssertionFailure() << "heap: the free list is not in order";
    is_unlock(&isam_com->free_lock);
    if (!r) return r;

    if (is_lock(&isam_com->buf_lock) != 0) return ::testing::AssertionFailure() << "buf_lock cannot be taken";
    if (is_lock_stale) v_repair_lists();
    const int nb = isam_com->maxbufs;
    std::vector<int> seen(static_cast<size_t>(nb), 0);
    auto walk = [&](int head) {
        for (int sl = head, n = 0; sl >= 0 && n <= nb; sl = is_env.buf_[sl].bu_next, ++n) {
            if (sl >= nb) {
                r = ::testing::AssertionFailure() << "a buffer list links to slot " << sl;
                return;
            }
            ++seen[static_cast<size_t>(sl)];
        }
    };
    walk(isam_com->buf_free);
    for (int u = 0; u < isam_com->maxopen; ++u)
        if (const IS_FCP* f = kisam::pfo_fcp(u)) walk(f->jd_buf_hd);
    for (int sl = 0; sl < nb && r; ++sl)
        if (seen[static_cast<size_t>(sl)] != 1)
            r = ::testing::AssertionFailure() << "buffer " << sl << " is on " << seen[static_cast<size_t>(sl)] << " lists";
    is_unlock(&isam_com->buf_lock);
    return r;
}

}  // namespace kt::oracle
