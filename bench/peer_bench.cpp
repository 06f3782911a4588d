// The workload of workload.h on this library and on three other embedded stores, in one
// run, printed as one table (operations per second per phase and engine).
//
//   peer_bench [records [cache_mib [processes]]] [--only NAME,...] [--tsv FILE]
//              (defaults: 100000 records, 32 MiB of cache, 2 processes for the mix)
//
// Every engine runs in the mode where a completed call survives the kill of its process
// (nothing is synced to the disk at commit; the data is in the operating system's hands):
//   kisam   pages written as they change; a pool of cache_mib MiB (1024-byte buffers,
//           at most 32,767);
//   bdb     Berkeley DB, transactional B-trees, DB_TXN_WRITE_NOSYNC, one transaction per
//           call, secondaries associated with the primary, a cache of cache_mib MiB;
//   lmdb    LMDB with MDB_NOSYNC, one transaction per call, secondaries as sorted
//           duplicates (LMDB has no cache of its own: it reads through the page cache);
//   sqlite  SQLite in WAL mode with synchronous=OFF, a WITHOUT ROWID table with two
//           indexes, cache_size of cache_mib MiB, one statement per call.
// Each store lives in a fresh temporary directory, removed at the end.
#include "kisam_engine.h"

#include <db.h>
#include <lmdb.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
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
        env_->set_flags(env_, DB_TXN_WRITE_NOSYNC | DB_AUTO_COMMIT, 1);
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
    const char* name() const override { return "lmdb"; }
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
        int rc = mdb_cursor_get(c, &k, &d, MDB_FIRST);
        for (; rc == 0; rc = mdb_cursor_get(c, &k, &d, MDB_NEXT)) {
            if (mdb_get(rt_, prim_, &d, &r) != 0) break;
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
        if (mdb_env_open(env_, dir_.c_str(), MDB_NOSYNC, 0644) != 0) return false;
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
    std::string dir_;
    MDB_env* env_ = nullptr;
    MDB_txn* rt_ = nullptr;
    MDB_dbi prim_ = 0, k1_ = 0, k2_ = 0;
};

// ---- SQLite -----------------------------------------------------------------------------

class SqliteEngine : public wl::Engine {
public:
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
        const std::string pragmas = "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF; PRAGMA cache_size=-" +
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
    std::string path_;
    long cache_kib_ = 0;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *ins_ = nullptr, *get_ = nullptr, *scan_ = nullptr, *upd_ = nullptr, *del_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> pos;
    std::string only = "kisam,bdb,lmdb,sqlite", tsv;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--only" && i + 1 < argc) only = argv[++i];
        else if (a == "--tsv" && i + 1 < argc) tsv = argv[++i];
        else pos.push_back(a);
    }
    const long n = pos.size() > 0 ? std::atol(pos[0].c_str()) : 100000;
    const long mib = pos.size() > 1 ? std::atol(pos[1].c_str()) : 32;
    const int procs = pos.size() > 2 ? std::atoi(pos[2].c_str()) : 2;
    if (n < 1 || n > 4000000 || mib < 1 || mib > 1024 || procs < 1 || procs > 8) {
        std::fprintf(stderr, "usage: peer_bench [records [cache_mib [processes]]] [--only NAME,...] [--tsv FILE]\n");
        return 2;
    }
    std::vector<std::unique_ptr<wl::Engine>> engines;
    auto want = [&](const char* e) { return ("," + only + ",").find("," + std::string(e) + ",") != std::string::npos; };
    if (want("kisam")) engines.push_back(std::make_unique<wl::KisamEngine>());
    if (want("bdb")) engines.push_back(std::make_unique<BdbEngine>());
    if (want("lmdb")) engines.push_back(std::make_unique<LmdbEngine>());
    if (want("sqlite")) engines.push_back(std::make_unique<SqliteEngine>());

    std::printf("%ld records of %d bytes, keys of %d, %d and %d bytes; cache %ld MiB; %d processes in the mix\n",
                n, kRecLen, kKey0, kKey1, kKey2, mib, procs);
    std::fflush(stdout);
    std::vector<std::string> phases;
    std::map<std::string, std::vector<double>> cols;   // engine -> ops/s per phase
    std::map<std::string, double> totals;
    int rc = 0;
    for (auto& e : engines) {
        char tmpl[] = "/tmp/kisam-peer-XXXXXX";
        if (!::mkdtemp(tmpl)) return 1;
        const std::string dir = tmpl;
        std::vector<wl::Phase> out;
        auto t0 = wl::Clock::now();
        bool ok = e->open(dir, mib << 20) && wl::run_all(*e, n, procs, out);
        totals[e->name()] = std::chrono::duration<double>(wl::Clock::now() - t0).count();
        e->close();
        std::string cmd = "rm -rf '" + dir + "'";
        if (std::system(cmd.c_str()) != 0) rc = 1;
        if (!ok) {
            std::fprintf(stderr, "%s: failed\n", e->name());
            rc = 1;
            continue;
        }
        for (size_t i = 0; i < out.size(); ++i) {
            if (phases.size() <= i) phases.push_back(out[i].name);
            cols[e->name()].push_back(out[i].ops_per_s);
        }
        std::fprintf(stderr, "%s done in %.1f s\n", e->name(), totals[e->name()]);
    }

    std::printf("%-36s", "operations per second");
    for (auto& e : engines) std::printf(" %10s", e->name());
    std::printf("\n");
    for (size_t i = 0; i < phases.size(); ++i) {
        std::printf("%-36s", phases[i].c_str());
        for (auto& e : engines) {
            const auto& c = cols[e->name()];
            if (i < c.size()) std::printf(" %10.0f", c[i]);
            else std::printf(" %10s", "-");
        }
        std::printf("\n");
    }
    std::printf("%-36s", "whole series, seconds");
    for (auto& e : engines) std::printf(" %10.1f", totals[e->name()]);
    std::printf("\n");
    if (!tsv.empty()) {
        FILE* f = std::fopen(tsv.c_str(), "w");
        if (!f) return 1;
        std::fprintf(f, "phase");
        for (auto& e : engines) std::fprintf(f, "\t%s", e->name());
        std::fprintf(f, "\n");
        for (size_t i = 0; i < phases.size(); ++i) {
            std::fprintf(f, "\"%s\"", phases[i].c_str());
            for (auto& e : engines) {
                const auto& c = cols[e->name()];
                std::fprintf(f, "\t%.0f", i < c.size() ? c[i] : 0.0);
            }
            std::fprintf(f, "\n");
        }
        std::fclose(f);
    }
    return rc;
}
