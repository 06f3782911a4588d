// The workload of workload.h on this library and on three other embedded stores, in one
// run, printed as tables (operations per second per phase and engine, and system calls
// per call).
//
//   peer_bench [records [cache_mib [processes]]] [--only NAME,...] [--tsv FILE]
//              [--syscalls [--syscall-records M]] [--durable CALLS [--writers K]]
//              [--no-default] [--repeat R] [--out DIR] [--no-pin]
//   (defaults: 100000 records, 32 MiB of cache, 2 processes for the mixes and readers;
//    engines kisam, bdb, lmdb, lmdb-wm, sqlite)
//
// The default set runs every engine in the mode where a completed call survives the kill
// of its process (nothing is synced to the disk at commit; the data is in the operating
// system's hands):
//   kisam    pages written as they change; a pool of cache_mib MiB (1024-byte buffers,
//            at most 32,767);
//   bdb      Berkeley DB, transactional B-trees, DB_TXN_WRITE_NOSYNC, one transaction per
//            call, secondaries associated with the primary, a cache of cache_mib MiB;
//   lmdb     LMDB with MDB_NOSYNC, one transaction per call, secondaries as sorted
//            duplicates (LMDB has no cache of its own: it reads through the page cache);
//   lmdb-wm  the same with MDB_WRITEMAP: a transaction changes the pages of a writable
//            shared mapping of the file in place, with no write call;
//   sqlite   SQLite in WAL mode with synchronous=OFF, a WITHOUT ROWID table with two
//            indexes, cache_size of cache_mib MiB, one statement per call.
// --durable CALLS runs the durable set (workload.h, run_durable: inserts, then updates, by
// one writer process and by K at once, CALLS calls per writer) with every engine in the
// mode where a changing call is on the disk when it returns:
//   kisam    "KISAM_DURABLE" set to 1 (a library without that mode ignores it);
//   bdb      transactions synced at commit (no DB_TXN_WRITE_NOSYNC);
//   lmdb     sync at commit (neither MDB_NOSYNC nor MDB_NOMETASYNC), lmdb-wm with
//            MDB_WRITEMAP as well;
//   sqlite   WAL with synchronous=FULL.
// --syscalls counts the system calls of every phase, the processes it starts included, in
// a second run of the same sets under `strace -c -f` (attached to the run for each phase
// only; M records in that run, by default as many as in the timed one, and a quarter of
// the durable calls): the timed run is never traced.  Under strace every system call is
// slow, so the durable writers may group their syncs differently than when timed.  --out
// DIR writes the tables as tab-separated files there (default.tsv, default-syscalls.tsv,
// durable.tsv, durable-syscalls.tsv) for bench/chart.sh; --tsv FILE writes the default
// set's operations per second to FILE.  --repeat R runs every timed set R times, in rounds
// of all engines one after the other, and gives the median of each figure.  The reader
// phases time the readers' reads alone, each reader process bound to a processor of its
// own when there are enough of them (workload.h says why); --no-pin leaves them to the
// scheduler.  The durable set is preceded and followed by a measure of the disk's flush
// (one 1 KiB pwrite and fdatasync), since its figures follow that.
//
// Each engine runs in a process of its own (forked), in a fresh directory under $TMPDIR
// (else /tmp), removed at the end.  Durable figures depend on the disk under it.
#include "kisam_engine.h"

#include <db.h>
#include <lmdb.h>
#include <sqlite3.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using wl::kKey0;
using wl::kKey1;
using wl::kKey2;
using wl::kRecLen;

// ---- Berkeley DB ------------------------------------------------------------------------

int bdb_key1(DB*, const DBT*, const DBT* pdata, DBT* skey) {
    std::memset(skey, 0, sizeof *skey);
    skey->data = static_cast<char*>(pdata->data) + kKey0;
    skey->size = kKey1;
    return 0;
}
int bdb_key2(DB*, const DBT*, const DBT* pdata, DBT* skey) {
    std::memset(skey, 0, sizeof *skey);
    skey->data = static_cast<char*>(pdata->data) + kKey0 + kKey1;
    skey->size = kKey2;
    return 0;
}

class BdbEngine : public wl::Engine {
public:
    explicit BdbEngine(bool durable) : durable_(durable) {}
    const char* name() const override { return "bdb"; }
    bool open(const std::string& dir, long cache_bytes) override {
        dir_ = dir;
        cache_ = cache_bytes;
        return attach(true);
    }
    void close() override { detach(); }
    bool child_open() override {
        // The parent's handles are not to be touched after fork: start afresh.
        env_ = nullptr;
        prim_ = k1_ = k2_ = nullptr;
        return attach(false);
    }
    void child_close() override { detach(); }
    bool insert(const char* rec) override {
        return retry([&] {
            DBT k = dbt(rec, kKey0), d = dbt(rec, kRecLen);
            return prim_->put(prim_, nullptr, &k, &d, DB_NOOVERWRITE);
        });
    }
    bool find(const char* key0, char* rec) override {
        return retry([&] {
            DBT k = dbt(key0, kKey0), d = dbt(nullptr, 0);
            d.data = rec;
            d.ulen = kRecLen;
            d.flags = DB_DBT_USERMEM;
            return prim_->get(prim_, nullptr, &k, &d, 0);
        });
    }
    long scan_key1() override {
        DBC* c = nullptr;
        if (k1_->cursor(k1_, nullptr, &c, 0) != 0) return -1;
        DBT k, d;
        std::memset(&k, 0, sizeof k);
        std::memset(&d, 0, sizeof d);
        long n = 0;
        int rc;
        while ((rc = c->get(c, &k, &d, DB_NEXT)) == 0) ++n;
        c->close(c);
        return rc == DB_NOTFOUND ? n : -1;
    }
    bool update(const char* rec) override {
        return retry([&] {
            DBT k = dbt(rec, kKey0), d = dbt(rec, kRecLen);
            return prim_->put(prim_, nullptr, &k, &d, 0);
        });
    }
    bool remove(const char* key0) override {
        return retry([&] {
            DBT k = dbt(key0, kKey0);
            return prim_->del(prim_, nullptr, &k, 0);
        });
    }

private:
    static DBT dbt(const char* p, int n) {
        DBT t;
        std::memset(&t, 0, sizeof t);
        t.data = const_cast<char*>(p);
        t.size = static_cast<u_int32_t>(n);
        return t;
    }
    // An autocommitted call chosen as a deadlock victim is simply tried again.
    template <class F>
    static bool retry(F f) {
        for (;;) {
            int rc = f();
            if (rc == 0) return true;
            if (rc != DB_LOCK_DEADLOCK && rc != DB_LOCK_NOTGRANTED) {
                std::fprintf(stderr, "bdb: %s\n", db_strerror(rc));
                return false;
            }
        }
    }
    bool attach(bool create) {
        const u_int32_t c = create ? DB_CREATE : 0;
        if (db_env_create(&env_, 0) != 0) return false;
        env_->set_cachesize(env_, static_cast<u_int32_t>(cache_ >> 30),
                            static_cast<u_int32_t>(cache_ & ((1L << 30) - 1)), 1);
        // Durable: each call's transaction commits with the log synced (concurrent commits
        // share a sync); otherwise the log is written at commit but not synced.
        env_->set_flags(env_, durable_ ? DB_AUTO_COMMIT : DB_TXN_WRITE_NOSYNC | DB_AUTO_COMMIT, 1);
        env_->set_lk_detect(env_, DB_LOCK_DEFAULT);
        env_->set_lk_max_locks(env_, 100000);
        env_->set_lk_max_objects(env_, 100000);
        if (env_->open(env_, dir_.c_str(),
                       c | DB_INIT_TXN | DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_MPOOL, 0644) != 0)
            return false;
        auto open_db = [&](DB** db, const char* file, bool dups) {
            if (db_create(db, env_, 0) != 0) return false;
            if (dups) (*db)->set_flags(*db, DB_DUPSORT);
            return (*db)->open(*db, nullptr, file, nullptr, DB_BTREE, c | DB_AUTO_COMMIT, 0644) == 0;
        };
        if (!open_db(&prim_, "prim.db", false) || !open_db(&k1_, "k1.db", true) ||
            !open_db(&k2_, "k2.db", true))
            return false;
        return prim_->associate(prim_, nullptr, k1_, bdb_key1, DB_AUTO_COMMIT) == 0 &&
               prim_->associate(prim_, nullptr, k2_, bdb_key2, DB_AUTO_COMMIT) == 0;
    }
    void detach() {
        for (DB** db : {&k2_, &k1_, &prim_})
            if (*db) (*db)->close(*db, 0), *db = nullptr;
        if (env_) env_->close(env_, 0), env_ = nullptr;
    }
    bool durable_;
    std::string dir_;
    long cache_ = 0;
    DB_ENV* env_ = nullptr;
    DB* prim_ = nullptr;
    DB* k1_ = nullptr;
    DB* k2_ = nullptr;
};

// ---- LMDB -------------------------------------------------------------------------------

class LmdbEngine : public wl::Engine {
public:
    LmdbEngine(bool writemap, bool durable) : writemap_(writemap), durable_(durable) {}
    const char* name() const override { return writemap_ ? "lmdb-wm" : "lmdb"; }
    bool open(const std::string& dir, long) override {
        dir_ = dir;
        return attach();
    }
    void close() override { detach(); }
    bool child_open() override {
        // The parent's handles are not to be touched after fork: start afresh.
        rt_ = nullptr;
        env_ = nullptr;
        return attach();
    }
    void child_close() override { detach(); }
    bool insert(const char* rec) override {
        MDB_txn* t;
        if (mdb_txn_begin(env_, nullptr, 0, &t) != 0) return false;
        MDB_val k = val(rec, kKey0), d = val(rec, kRecLen);
        bool ok = mdb_put(t, prim_, &k, &d, MDB_NOOVERWRITE) == 0 && put_secondaries(t, rec);
        return finish(t, ok);
    }
    bool find(const char* key0, char* rec) override {
        if (!reader()) return false;
        MDB_val k = val(key0, kKey0), d;
        bool ok = mdb_get(rt_, prim_, &k, &d) == 0 && d.mv_size == kRecLen;
        if (ok) std::memcpy(rec, d.mv_data, kRecLen);
        mdb_txn_reset(rt_);
        return ok;
    }
    long scan_key1() override {
        if (!reader()) return -1;
        MDB_cursor* c;
        if (mdb_cursor_open(rt_, k1_, &c) != 0) return -1;
        MDB_val k, d, r;
        long n = 0;
        // Each record delivered into the caller's buffer, as find delivers it (and as the
        // other engines' scans do).
        int rc = mdb_cursor_get(c, &k, &d, MDB_FIRST);
        for (; rc == 0; rc = mdb_cursor_get(c, &k, &d, MDB_NEXT)) {
            if (mdb_get(rt_, prim_, &d, &r) != 0 || r.mv_size != kRecLen) break;
            std::memcpy(scanned_, r.mv_data, kRecLen);
            ++n;
        }
        mdb_cursor_close(c);
        mdb_txn_reset(rt_);
        return rc == MDB_NOTFOUND ? n : -1;
    }
    bool update(const char* rec) override {
        MDB_txn* t;
        if (mdb_txn_begin(env_, nullptr, 0, &t) != 0) return false;
        MDB_val k = val(rec, kKey0), old, d = val(rec, kRecLen);
        char prev[kRecLen];
        bool ok = mdb_get(t, prim_, &k, &old) == 0 && old.mv_size == kRecLen;
        if (ok) std::memcpy(prev, old.mv_data, kRecLen);
        ok = ok && del_secondaries(t, prev) && mdb_put(t, prim_, &k, &d, 0) == 0 &&
             put_secondaries(t, rec);
        return finish(t, ok);
    }
    bool remove(const char* key0) override {
        MDB_txn* t;
        if (mdb_txn_begin(env_, nullptr, 0, &t) != 0) return false;
        MDB_val k = val(key0, kKey0), old;
        char prev[kRecLen];
        bool ok = mdb_get(t, prim_, &k, &old) == 0 && old.mv_size == kRecLen;
        if (ok) std::memcpy(prev, old.mv_data, kRecLen);
        ok = ok && del_secondaries(t, prev) && mdb_del(t, prim_, &k, nullptr) == 0;
        return finish(t, ok);
    }

private:
    static MDB_val val(const char* p, size_t n) { return MDB_val{n, const_cast<char*>(p)}; }
    bool put_secondaries(MDB_txn* t, const char* rec) {
        MDB_val k1 = val(rec + kKey0, kKey1), k2 = val(rec + kKey0 + kKey1, kKey2), p = val(rec, kKey0);
        return mdb_put(t, k1_, &k1, &p, 0) == 0 && mdb_put(t, k2_, &k2, &p, 0) == 0;
    }
    bool del_secondaries(MDB_txn* t, const char* rec) {
        MDB_val k1 = val(rec + kKey0, kKey1), k2 = val(rec + kKey0 + kKey1, kKey2), p = val(rec, kKey0);
        return mdb_del(t, k1_, &k1, &p) == 0 && mdb_del(t, k2_, &k2, &p) == 0;
    }
    bool finish(MDB_txn* t, bool ok) {
        if (!ok) {
            mdb_txn_abort(t);
            return false;
        }
        return mdb_txn_commit(t) == 0;
    }
    bool reader() {
        if (rt_) return mdb_txn_renew(rt_) == 0;
        return mdb_txn_begin(env_, nullptr, MDB_RDONLY, &rt_) == 0;
    }
    bool attach() {
        if (mdb_env_create(&env_) != 0) return false;
        mdb_env_set_mapsize(env_, size_t{16} << 30);
        mdb_env_set_maxdbs(env_, 4);
        // Durable: LMDB's default, the data pages and then the meta page synced at commit.
        const unsigned flags = (writemap_ ? MDB_WRITEMAP : 0u) | (durable_ ? 0u : MDB_NOSYNC);
        if (mdb_env_open(env_, dir_.c_str(), flags, 0644) != 0) return false;
        MDB_txn* t;
        if (mdb_txn_begin(env_, nullptr, 0, &t) != 0) return false;
        bool ok = mdb_dbi_open(t, "prim", MDB_CREATE, &prim_) == 0 &&
                  mdb_dbi_open(t, "k1", MDB_CREATE | MDB_DUPSORT, &k1_) == 0 &&
                  mdb_dbi_open(t, "k2", MDB_CREATE | MDB_DUPSORT, &k2_) == 0;
        return finish(t, ok);
    }
    void detach() {
        if (rt_) mdb_txn_abort(rt_), rt_ = nullptr;
        if (env_) mdb_env_close(env_), env_ = nullptr;
    }
    bool writemap_, durable_;
    std::string dir_;
    MDB_env* env_ = nullptr;
    MDB_txn* rt_ = nullptr;
    MDB_dbi prim_ = 0, k1_ = 0, k2_ = 0;
    char scanned_[kRecLen];  // the record a scan delivered last
};

// ---- SQLite -----------------------------------------------------------------------------

class SqliteEngine : public wl::Engine {
public:
    explicit SqliteEngine(bool durable) : durable_(durable) {}
    const char* name() const override { return "sqlite"; }
    bool open(const std::string& dir, long cache_bytes) override {
        path_ = dir + "/bench.sqlite";
        cache_kib_ = cache_bytes / 1024;
        if (!attach()) return false;
        return exec("CREATE TABLE t(k0 BLOB PRIMARY KEY, k1 BLOB NOT NULL, k2 BLOB NOT NULL,"
                    " rec BLOB NOT NULL) WITHOUT ROWID;"
                    "CREATE INDEX t_k1 ON t(k1); CREATE INDEX t_k2 ON t(k2);") &&
               prepare();
    }
    void close() override { detach(); }
    bool child_open() override {
        // The parent's handles are not to be touched after fork: start afresh.
        db_ = nullptr;
        ins_ = get_ = scan_ = upd_ = del_ = nullptr;
        return attach() && prepare();
    }
    void child_close() override { detach(); }
    bool insert(const char* rec) override {
        bind(ins_, 1, rec, kKey0);
        bind(ins_, 2, rec + kKey0, kKey1);
        bind(ins_, 3, rec + kKey0 + kKey1, kKey2);
        bind(ins_, 4, rec, kRecLen);
        return step(ins_) == SQLITE_DONE;
    }
    bool find(const char* key0, char* rec) override {
        bind(get_, 1, key0, kKey0);
        int rc = step_row(get_);
        bool ok = rc == SQLITE_ROW && sqlite3_column_bytes(get_, 0) == kRecLen;
        if (ok) std::memcpy(rec, sqlite3_column_blob(get_, 0), kRecLen);
        sqlite3_reset(get_);
        return ok;
    }
    long scan_key1() override {
        long n = 0;
        int rc;
        while ((rc = sqlite3_step(scan_)) == SQLITE_ROW)
            if (sqlite3_column_bytes(scan_, 0) == kRecLen) ++n;
        sqlite3_reset(scan_);
        return rc == SQLITE_DONE ? n : -1;
    }
    bool update(const char* rec) override {
        bind(upd_, 1, rec + kKey0, kKey1);
        bind(upd_, 2, rec + kKey0 + kKey1, kKey2);
        bind(upd_, 3, rec, kRecLen);
        bind(upd_, 4, rec, kKey0);
        return step(upd_) == SQLITE_DONE && sqlite3_changes(db_) == 1;
    }
    bool remove(const char* key0) override {
        bind(del_, 1, key0, kKey0);
        return step(del_) == SQLITE_DONE && sqlite3_changes(db_) == 1;
    }

private:
    bool exec(const char* sql) {
        char* err = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
        std::fprintf(stderr, "sqlite: %s\n", err ? err : "?");
        sqlite3_free(err);
        return false;
    }
    static void bind(sqlite3_stmt* s, int i, const char* p, int n) {
        sqlite3_bind_blob(s, i, p, n, SQLITE_STATIC);
    }
    // A statement run to its end; SQLITE_BUSY (another process writing) is waited out by
    // the busy timeout.
    int step(sqlite3_stmt* s) {
        int rc = sqlite3_step(s);
        sqlite3_reset(s);
        if (rc != SQLITE_DONE) std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(db_));
        return rc;
    }
    int step_row(sqlite3_stmt* s) { return sqlite3_step(s); }
    bool attach() {
        if (sqlite3_open(path_.c_str(), &db_) != SQLITE_OK) return false;
        sqlite3_busy_timeout(db_, 60000);
        // Durable: the log synced at every commit (FULL); otherwise never (OFF).
        const std::string pragmas = std::string("PRAGMA journal_mode=WAL; PRAGMA synchronous=") +
                                    (durable_ ? "FULL" : "OFF") + "; PRAGMA cache_size=-" +
                                    std::to_string(cache_kib_) + ";";
        return exec(pragmas.c_str());
    }
    bool prepare() {
        auto p = [&](const char* sql, sqlite3_stmt** s) {
            return sqlite3_prepare_v2(db_, sql, -1, s, nullptr) == SQLITE_OK;
        };
        return p("INSERT INTO t VALUES (?, ?, ?, ?)", &ins_) && p("SELECT rec FROM t WHERE k0 = ?", &get_) &&
               p("SELECT rec FROM t ORDER BY k1", &scan_) &&
               p("UPDATE t SET k1 = ?, k2 = ?, rec = ? WHERE k0 = ?", &upd_) &&
               p("DELETE FROM t WHERE k0 = ?", &del_);
    }
    void detach() {
        for (sqlite3_stmt** s : {&ins_, &get_, &scan_, &upd_, &del_})
            if (*s) sqlite3_finalize(*s), *s = nullptr;
        if (db_) sqlite3_close(db_), db_ = nullptr;
    }
    bool durable_;
    std::string path_;
    long cache_kib_ = 0;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *ins_ = nullptr, *get_ = nullptr, *scan_ = nullptr, *upd_ = nullptr, *del_ = nullptr;
};

std::unique_ptr<wl::Engine> make_engine(const std::string& name, bool durable) {
    if (name == "kisam") return std::make_unique<wl::KisamEngine>(durable ? 1 : 0);
    if (name == "bdb") return std::make_unique<BdbEngine>(durable);
    if (name == "lmdb") return std::make_unique<LmdbEngine>(false, durable);
    if (name == "lmdb-wm") return std::make_unique<LmdbEngine>(true, durable);
    if (name == "sqlite") return std::make_unique<SqliteEngine>(durable);
    return nullptr;
}

// Counts the system calls of this process, and of the processes it starts, between
// start() and stop(): `strace -c -f` attached to it for that time.
class SyscallCounter {
public:
    bool start() {
        char tmpl[] = "/tmp/kisam-strace-XXXXXX";
        int fd = ::mkstemp(tmpl);
        if (fd < 0) return false;
        ::close(fd);
        path_ = tmpl;
        const std::string self = std::to_string(::getpid());
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ < 0) return false;
        if (pid_ == 0) {
            int null = ::open("/dev/null", O_RDWR);
            if (null >= 0) {  // its summary goes to the file; its notes on detaching mid-call nowhere
                ::dup2(null, 1);
                ::dup2(null, 2);
            }
            ::execlp("strace", "strace", "-c", "-f", "-q", "-o", path_.c_str(), "-p", self.c_str(),
                     static_cast<char*>(nullptr));
            ::_exit(127);
        }
        // Attached once the kernel names a tracer for this process.
        for (int i = 0; i < 20000; ++i) {
            std::ifstream st("/proc/self/status");
            std::string line;
            while (std::getline(st, line))
                if (line.rfind("TracerPid:", 0) == 0 && std::atol(line.c_str() + 10) != 0) return true;
            int status;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {  // strace failed
                pid_ = -1;
                break;
            }
            ::usleep(500);
        }
        std::fprintf(stderr, "peer_bench: strace did not attach (is it installed? tools/deps.sh peers)\n");
        stop();
        return false;
    }
    // The calls counted, or -1.
    long stop() {
        long calls = -1;
        if (pid_ > 0) {
            ::kill(pid_, SIGINT);
            int status;
            ::waitpid(pid_, &status, 0);
            pid_ = -1;
            // strace's summary ends with the line "... calls [errors] total".
            std::ifstream f(path_);
            std::string line;
            while (std::getline(f, line)) {
                std::istringstream ws(line);
                std::vector<std::string> t;
                for (std::string w; ws >> w;) t.push_back(w);
                if (t.size() >= 5 && t.back() == "total") calls = std::atol(t[3].c_str());
            }
        }
        if (!path_.empty()) ::unlink(path_.c_str());
        path_.clear();
        return calls;
    }

private:
    pid_t pid_ = -1;
    std::string path_;
};

struct Run {
    bool ok = false;
    double seconds = 0;
    std::vector<wl::Phase> phases;
    std::vector<long> syscalls;  // per phase, when counted (-1: the count failed)
};

// Reader processes bound one to a processor (workload.h, run_all); --no-pin leaves them
// to the scheduler.
bool pin_readers = true;

// One engine through one set (durable or not) in a forked process of its own, so that no
// engine's global state (nor the environment it was given) carries over to the next.
Run run_isolated(const std::string& name, bool durable, long n, long mib, int procs, long per_writer,
                 int writers, bool count) {
    Run r;
    int p[2];
    if (::pipe2(p, O_CLOEXEC) != 0) return r;
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) return r;
    if (pid == 0) {
        ::close(p[0]);
        const char* tmp = std::getenv("TMPDIR");
        std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kisam-peer-XXXXXX";
        if (!::mkdtemp(tmpl.data())) ::_exit(1);
        auto e = make_engine(name, durable);
        std::vector<wl::Phase> out;
        std::vector<long> sys;
        SyscallCounter counter;
        wl::PhaseHook before, after;
        if (count) {
            before = [&](const char*) { counter.start(); };
            after = [&](const char*) { sys.push_back(counter.stop()); };
        }
        auto t0 = wl::Clock::now();
        bool ok = e->open(tmpl, mib << 20) &&
                  (durable ? wl::run_durable(*e, per_writer, writers, out, after, before)
                           : wl::run_all(*e, n, procs, out, after, before, pin_readers));
        const double secs = std::chrono::duration<double>(wl::Clock::now() - t0).count();
        counter.stop();
        e->close();
        const std::string cmd = "rm -rf '" + tmpl + "'";
        if (std::system(cmd.c_str()) != 0) ok = false;
        std::string msg;
        for (size_t i = 0; i < out.size(); ++i) {
            char line[512];
            std::snprintf(line, sizeof line, "P\t%s\t%.6g\t%.6g\t%ld\t%ld\t%ld\n", out[i].name.c_str(),
                          out[i].ops_per_s, out[i].cpu_us, out[i].ops, out[i].calls,
                          i < sys.size() ? sys[i] : -1L);
            msg += line;
        }
        msg += "T\t" + std::to_string(secs) + "\t" + (ok ? "1" : "0") + "\n";
        for (size_t off = 0; off < msg.size();) {
            ssize_t w = ::write(p[1], msg.data() + off, msg.size() - off);
            if (w <= 0) break;
            off += static_cast<size_t>(w);
        }
        ::_exit(ok ? 0 : 1);
    }
    ::close(p[1]);
    std::string all;
    char buf[4096];
    for (ssize_t k; (k = ::read(p[0], buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(k));
    ::close(p[0]);
    int st = 0;
    ::waitpid(pid, &st, 0);
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f;
        std::istringstream ls(line);
        for (std::string x; std::getline(ls, x, '\t');) f.push_back(x);
        if (f.size() == 7 && f[0] == "P") {
            wl::Phase ph{f[1], std::atof(f[2].c_str()), std::atof(f[3].c_str()), std::atol(f[4].c_str()),
                         std::atol(f[5].c_str())};
            r.phases.push_back(ph);
            const long sc = std::atol(f[6].c_str());
            if (count) r.syscalls.push_back(sc);
        } else if (f.size() == 3 && f[0] == "T") {
            r.seconds = std::atof(f[1].c_str());
            r.ok = f[2] == "1";
        }
    }
    r.ok = r.ok && WIFEXITED(st) && WEXITSTATUS(st) == 0;
    return r;
}

// A table: phases down, engines across; a cell given several figures (repeated runs)
// shows their median.
struct Table {
    std::vector<std::string> phases;
    std::vector<std::string> engines;
    std::map<std::string, std::map<std::string, std::vector<double>>> cell;  // engine -> phase -> figures
    void put(const std::string& engine, const std::string& phase, double v) {
        if (std::find(engines.begin(), engines.end(), engine) == engines.end()) engines.push_back(engine);
        if (std::find(phases.begin(), phases.end(), phase) == phases.end()) phases.push_back(phase);
        cell[engine][phase].push_back(v);
    }
    bool has(const std::string& engine, const std::string& phase) const {
        auto e = cell.find(engine);
        return e != cell.end() && e->second.count(phase) != 0;
    }
    double get(const std::string& engine, const std::string& phase) const {
        if (!has(engine, phase)) return -1;
        std::vector<double> v = cell.at(engine).at(phase);
        std::sort(v.begin(), v.end());
        const size_t m = v.size() / 2;
        return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
    }
    void print(const char* title, const char* fmt) const {
        const int w = std::max(48, static_cast<int>(std::strlen(title)));
        std::printf("%-*s", w, title);
        for (auto& e : engines) std::printf(" %10s", e.c_str());
        std::printf("\n");
        for (auto& ph : phases) {
            std::printf("%-*s", w, ph.c_str());
            for (auto& e : engines) {
                if (has(e, ph) && get(e, ph) >= 0) std::printf(fmt, get(e, ph));
                else std::printf(" %10s", "-");
            }
            std::printf("\n");
        }
    }
    // Tab-separated, the phase quoted, a missing figure 0 (what bench/chart.sh reads).
    bool write_tsv(const std::string& path, const char* fmt) const {
        FILE* f = std::fopen(path.c_str(), "w");
        if (!f) {
            std::fprintf(stderr, "peer_bench: cannot write %s\n", path.c_str());
            return false;
        }
        std::fprintf(f, "phase");
        for (auto& e : engines) std::fprintf(f, "\t%s", e.c_str());
        std::fprintf(f, "\n");
        for (auto& ph : phases) {
            std::fprintf(f, "\"%s\"", ph.c_str());
            for (auto& e : engines) {
                std::fprintf(f, "\t");
                std::fprintf(f, fmt, std::max(0.0, get(e, ph)));
            }
            std::fprintf(f, "\n");
        }
        return std::fclose(f) == 0;
    }
};

// What one durable write costs on the disk under $TMPDIR: the median of 200 writes of
// 1 KiB at the start of a file, each followed by fdatasync, in microseconds (-1: failed).
double flush_us() {
    const char* tmp = std::getenv("TMPDIR");
    std::string path = std::string(tmp && *tmp ? tmp : "/tmp") + "/kisam-flush-XXXXXX";
    int fd = ::mkstemp(path.data());
    if (fd < 0) return -1;
    ::unlink(path.c_str());
    char page[1024];
    std::memset(page, 'f', sizeof page);
    std::vector<double> t;
    for (int i = 0; i < 200; ++i) {
        const auto t0 = wl::Clock::now();
        if (::pwrite(fd, page, sizeof page, 0) != static_cast<ssize_t>(sizeof page) || ::fdatasync(fd) != 0) break;
        t.push_back(std::chrono::duration<double, std::micro>(wl::Clock::now() - t0).count());
    }
    ::close(fd);
    if (t.size() < 200) return -1;
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

// The durable set's two questions: kisam against the best other engine, and what K
// writers do against one (group commit).
void durable_summary(const Table& t, int writers) {
    const std::string w = std::to_string(writers) + " writers";
    for (const char* op : {"insert", "update"}) {
        const std::string one = std::string("durable ") + op + ", 1 writer", many = std::string("durable ") + op + ", " + w;
        std::printf("%s: %s / 1 writer:", op, w.c_str());
        for (auto& e : t.engines)
            if (t.get(e, one) > 0 && t.get(e, many) > 0) std::printf("  %s %.2fx", e.c_str(), t.get(e, many) / t.get(e, one));
        std::printf("\n");
        for (const std::string& ph : {one, many}) {
            std::string best;
            for (auto& e : t.engines)
                if (e != "kisam" && t.get(e, ph) > 0 && (best.empty() || t.get(e, ph) > t.get(best, ph))) best = e;
            if (t.get("kisam", ph) > 0 && !best.empty())
                std::printf("%s: kisam %.0f against the best other, %s %.0f: %.2fx\n", ph.c_str(), t.get("kisam", ph),
                            best.c_str(), t.get(best, ph), t.get("kisam", ph) / t.get(best, ph));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> pos;
    std::string only = "kisam,bdb,lmdb,lmdb-wm,sqlite", tsv, outdir;
    bool count = false, defaults = true;
    long count_n = 0, per_writer = 0;
    int writers = 4, repeat = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--only" && i + 1 < argc) only = argv[++i];
        else if (a == "--tsv" && i + 1 < argc) tsv = argv[++i];
        else if (a == "--out" && i + 1 < argc) outdir = argv[++i];
        else if (a == "--syscalls") count = true;
        else if (a == "--syscall-records" && i + 1 < argc) count_n = std::atol(argv[++i]);
        else if (a == "--durable" && i + 1 < argc) per_writer = std::atol(argv[++i]);
        else if (a == "--writers" && i + 1 < argc) writers = std::atoi(argv[++i]);
        else if (a == "--no-default") defaults = false;
        else if (a == "--no-pin") pin_readers = false;
        else if (a == "--repeat" && i + 1 < argc) repeat = std::atoi(argv[++i]);
        else if (!a.empty() && a[0] == '-') pos.push_back("bad");
        else pos.push_back(a);
    }
    const long n = pos.size() > 0 ? std::atol(pos[0].c_str()) : 100000;
    const long mib = pos.size() > 1 ? std::atol(pos[1].c_str()) : 32;
    const int procs = pos.size() > 2 ? std::atoi(pos[2].c_str()) : 2;
    if (count_n == 0) count_n = n;
    std::vector<std::string> engines;
    for (std::string x, rest = only + ","; !rest.empty(); rest.erase(0, rest.find(',') + 1)) {
        x = rest.substr(0, rest.find(','));
        if (!x.empty()) engines.push_back(x);
    }
    bool bad = pos.size() > 3 || n < 1 || n > 4000000 || mib < 1 || mib > 1024 || procs < 1 || procs > 8 ||
               count_n < 1 || count_n > 4000000 || per_writer < 0 || per_writer > 1000000 || writers < 2 ||
               writers > 8 || repeat < 1 || repeat > 9 || engines.empty();
    for (auto& e : engines)
        if (!make_engine(e, false)) bad = true;
    if (bad) {
        std::fprintf(stderr,
                     "usage: peer_bench [records [cache_mib [processes]]] [--only NAME,...] [--tsv FILE]\n"
                     "                  [--syscalls [--syscall-records M]] [--durable CALLS [--writers K]]\n"
                     "                  [--no-default] [--repeat R] [--out DIR] [--no-pin]\n"
                     "engines: kisam, bdb, lmdb, lmdb-wm, sqlite\n");
        return 2;
    }

    int rc = 0;
    Table ops, sys, dops, dsys;
    // Processor time per call of the timed runs: on a machine that other work keeps busy
    // the wall-clock figures swing with it, the time the engine itself spent much less.
    Table cpu;
    Table totals;  // whole default series, seconds
    auto one = [&](const std::string& e, bool durable, bool counting, Table& t) {
        // The durable set's count runs a quarter of its calls: a synced call costs the same
        // system calls each time, and each costs milliseconds.
        const long pw = counting ? std::max(100L, per_writer / 4) : per_writer;
        Run r = run_isolated(e, durable, counting ? count_n : n, mib, procs, pw, writers, counting);
        if (!r.ok) {
            std::fprintf(stderr, "%s: failed%s%s\n", e.c_str(), durable ? " (durable)" : "",
                         counting ? " (counting system calls)" : "");
            rc = 1;
        }
        for (size_t i = 0; i < r.phases.size(); ++i) {
            const wl::Phase& ph = r.phases[i];
            if (!counting) t.put(e, ph.name, ph.ops_per_s);
            if (!counting && !durable) cpu.put(e, ph.name, ph.cpu_us);
            else if (i < r.syscalls.size() && r.syscalls[i] >= 0 && ph.calls > 0)
                t.put(e, ph.name, static_cast<double>(r.syscalls[i]) / static_cast<double>(ph.calls));
            else t.put(e, ph.name, -1);
        }
        if (!counting && !durable) totals.put(e, "series", r.seconds);
        std::fprintf(stderr, "%s%s%s done in %.1f s\n", e.c_str(), durable ? ", durable" : "",
                     counting ? ", system calls counted" : "", r.seconds);
    };

    if (repeat > 1) std::printf("each figure the median of %d runs (system call counts: one run)\n", repeat);
    if (defaults) {
        std::printf("%ld records of %d bytes, keys of %d, %d and %d bytes; cache %ld MiB; %d processes in the mixes%s\n",
                    n, kRecLen, kKey0, kKey1, kKey2, mib, procs,
                    pin_readers ? "; reader processes one per processor" : "");
        std::fflush(stdout);
        // Rounds of every engine one after the other, so that a change of the machine's load
        // falls on all of them alike.
        for (int round = 0; round < repeat; ++round)
            for (auto& e : engines) one(e, false, false, ops);
        if (count)
            for (auto& e : engines) one(e, false, true, sys);
    }
    double flush_before = -1, flush_after = -1;
    if (per_writer > 0) {
        flush_before = flush_us();
        for (int round = 0; round < repeat; ++round)
            for (auto& e : engines) one(e, true, false, dops);
        flush_after = flush_us();
        if (count)
            for (auto& e : engines) one(e, true, true, dsys);
    }

    if (defaults) {
        std::printf("\n");
        ops.print("operations per second", " %10.0f");
        std::printf("%-48s", "whole series, seconds");
        for (auto& e : ops.engines) std::printf(" %10.1f", totals.get(e, "series"));
        std::printf("\n\n");
        cpu.print("processor microseconds per call", " %10.2f");
        if (count) {
            std::printf("\n");
            sys.print(("system calls per call (" + std::to_string(count_n) + " records, strace)").c_str(), " %10.2f");
        }
    }
    if (per_writer > 0) {
        std::printf("\ndurable: every changing call on the disk when it returns; %ld calls per writer\n", per_writer);
        std::printf("one 1 KiB pwrite + fdatasync on this disk (median of 200): %.0f us before the set, %.0f us after\n",
                    flush_before, flush_after);
        dops.print("calls per second, all writers together", " %10.0f");
        if (count) {
            std::printf("\n");
            dsys.print(("system calls per call (" + std::to_string(std::max(100L, per_writer / 4)) +
                        " calls per writer, strace)").c_str(), " %10.2f");
        }
        std::printf("\n");
        durable_summary(dops, writers);
    }
    std::fflush(stdout);

    bool wrote = true;
    if (!tsv.empty() && defaults) wrote = ops.write_tsv(tsv, "%.0f") && wrote;
    if (!outdir.empty()) {
        if (defaults) wrote = ops.write_tsv(outdir + "/default.tsv", "%.0f") && wrote;
        if (defaults && count) wrote = sys.write_tsv(outdir + "/default-syscalls.tsv", "%.2f") && wrote;
        if (per_writer > 0) wrote = dops.write_tsv(outdir + "/durable.tsv", "%.0f") && wrote;
        if (per_writer > 0 && count) wrote = dsys.write_tsv(outdir + "/durable-syscalls.tsv", "%.2f") && wrote;
    }
    return wrote ? rc : 1;
}
