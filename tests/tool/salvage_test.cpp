// kisam dump --salvage, run as a process on files built by the tool and then cut short
// or damaged.  The oracle is the dump of the intact file and a reading of the intact
// file's key-0 tree (which pages each record needs: its overflow pages, its tail page and
// the tree page of its item): every record whose pages survive comes back exactly, and
// nothing appears that was not a live record -- no deleted record, no old version.
#include "tool_fixture.h"

#include <map>
#include <random>
#include <set>

namespace {

int16_t s16(const std::string& b, size_t off) {
    int16_t v = 0;
    if (off + 2 <= b.size()) std::memcpy(&v, b.data() + off, 2);
    return v;
}

// The record lines of a dump.
std::set<std::string> lines_of(const std::string& dump) {
    const std::vector<std::string> v = records_of(dump);
    return {v.begin(), v.end()};
}

// Where each live record of an intact file lies: key 0 value -> pages it needs.
struct Layout {
    size_t header = 0;                                  // 0 or 512: file offset = page - header
    std::map<std::string, std::vector<uint32_t>> pages;
    std::set<uint32_t> shared, overflow, tree;
    uint32_t root = 0;
};

Layout layout_of(const std::string& img) {
    Layout l;
    l.header = uint16_t(s16(img, 0)) == 0xAB54 ? 512 : 0;
    const int l0 = s16(img, 106), itemlen = s16(img, 110);
    const int even = l0 + (l0 & 1);
    l.root = u32(img, 100);
    auto page = [&](uint32_t p) { return img.substr(p - l.header, 1024); };
    std::vector<uint32_t> todo{l.root};
    while (!todo.empty()) {
        uint32_t p = todo.back();
        todo.pop_back();
        if (p == 0xFFFFFFFFu) continue;
        l.tree.insert(p);
        std::string b = page(p);
        const int n = s16(b, 2);
        if (u32(b, 4) != 0xFFFFFFFFu) todo.push_back(u32(b, 4));
        for (int i = 0; i < n; ++i) {
            const size_t at = 8 + size_t(i) * size_t(itemlen + 4);
            std::vector<uint32_t> pages{p};
            uint32_t a = u32(b, at + size_t(even));
            for (int guard = 0; a != 0xFFFFFFFFu && (a & 0x3FF) == 1 && guard < 100; ++guard) {
                pages.push_back(a - 1);
                l.overflow.insert(a - 1);
                a = u32(page(a - 1), 4);
            }
            if (a != 0xFFFFFFFFu) {
                pages.push_back(a & ~0x3FFu);
                l.shared.insert(a & ~0x3FFu);
            }
            l.pages[b.substr(at, size_t(l0))] = pages;
            if (u32(b, at + size_t(itemlen)) != 0xFFFFFFFFu) todo.push_back(u32(b, at + size_t(itemlen)));
        }
    }
    return l;
}

class Salvage : public ToolInstallation {
protected:
    unsigned seed = 20261125;

    void SetUp() override {
        ToolInstallation::SetUp();
        quiet = true;
        if (const char* s = std::getenv("KISAM_SALVAGE_SEED")) seed = unsigned(std::strtoul(s, nullptr, 10));
        init_config();
    }

    // A file of the seeded mix: short records, long ones with overflow chains (some
    // with a tail of a full 1016 bytes), some deleted, some replaced by other lengths.
    // Keys: 8 bytes of digits, then 4 bytes; the rest is any byte.
    std::string build(const std::string& name, bool key_in_index) {
        const std::string f = path(name);
        std::vector<std::string> create{"create", f, "8,4"};
        // The key-in-index file also has the 512-byte control page: pages lie 512 bytes
        // earlier in the file.
        if (key_in_index) create.insert(create.end(), {"--key-in-index", "--small-header"});
        std::mt19937 rng(seed);
        const int lengths[] = {12, 13, 40, 101, 300, 700, 1016, 1018, 1020, 1021, 1500, 2032, 3000, 4064, 7000};
        auto record = [&](int i) {
            char key[16];
            std::snprintf(key, sizeof key, "%08d", i * 7);
            std::string r = key;
            int len = lengths[rng() % (sizeof lengths / sizeof *lengths)];
            while (int(r.size()) < len) r += char(rng() % 256);
            return r;
        };
        std::string in, more;
        const int n = 110;
        for (int i = 0; i < n; ++i) in += escape(record(i)) + "\n";
        std::vector<std::string> del{"del", f};
        std::string repl;
        for (int i = 0; i < n; ++i) {
            const unsigned roll = rng() % 10;
            char key[16];
            std::snprintf(key, sizeof key, "%08d", i * 7);
            if (roll < 2) del.push_back(key);
            else if (roll < 4) repl += escape(record(i)) + "\n";
        }
        // A few more after the holes, so that they land in reused space.
        for (int i = n; i < n + 15; ++i) more += escape(record(i)) + "\n";
        table({{create, 0}, {{"put", f, "-"}, 0, {}, {}, in}, {del, 0}, {{"put", f, "-", "--replace"}, 0, {}, {}, repl},
               {{"put", f, "-"}, 0, {}, {}, more}, {{"check", f}, 0}});
        return f;
    }

    // Salvages `file` (a copy of the intact image, changed) and checks the promises:
    // every output record is a live record of the intact file, and every record in
    // `must` (key 0 values) is in the output.  Returns the output records.
    std::set<std::string> salvage_and_check(const std::string& file, const std::set<std::string>& intact,
                                            const std::map<std::string, std::string>& by_key,
                                            const std::set<std::string>& must, const std::string& what,
                                            const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args{"dump", "--salvage", file};
        args.insert(args.end(), extra.begin(), extra.end());
        Result r = run(args);
        EXPECT_TRUE(r.rc == 0 || r.rc == 1) << what << ": status " << r.rc << "\n" << r.err;
        EXPECT_TRUE(has(r.out, "# kisam dump 1\n") && has(r.out, "# end ")) << what;
        std::set<std::string> got = lines_of(r.out);
        for (const std::string& line : got)
            EXPECT_TRUE(intact.count(line)) << what << ": invented or stale record " << line.substr(0, 60);
        for (const std::string& k : must) {
            EXPECT_TRUE(got.count(by_key.at(k))) << what << ": record " << k.substr(0, 8) << " lost\n" << r.err;
        }
        if (r.rc == 0) {
            EXPECT_TRUE(has(r.err, "0 skipped")) << what << "\n" << r.err;
        }
        return got;
    }

    void exercise(bool key_in_index) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " (KISAM_SALVAGE_SEED to repeat)");
        const std::string f = build(key_in_index ? "kii" : "plain", key_in_index);
        const std::string img = slurp(f);
        Result d = run({"dump", f});
        ASSERT_EQ(d.rc, 0) << d.err;
        const std::set<std::string> intact = lines_of(d.out);
        ASSERT_GT(intact.size(), 80u);
        const Layout lay = layout_of(img);
        std::map<std::string, std::string> by_key;   // key 0 value -> dump line
        for (const std::string& line : intact) {
            const std::string rec = line.substr(line.find(' ') + 1);
            by_key[rec.substr(0, 8)] = line;   // keys are digits: escaped as themselves
        }
        ASSERT_EQ(by_key.size(), lay.pages.size());
        std::set<std::string> all;
        for (auto& [k, l] : by_key) all.insert(k);

        // (a) the intact file: the same records, exit 0, and (d) a load of them is sound.
        table({{{"dump", "--salvage", f, path("rescued.dump")}, 0},
               {{"load", path("new"), path("rescued.dump")}, 0},
               {{"check", path("new")}, 0}});
        EXPECT_EQ(lines_of(slurp(path("rescued.dump"))), intact);
        EXPECT_EQ(lines_of(run({"dump", path("new")}).out), intact);

        // (b) cut at every page boundary and at odd bytes.
        const std::string cut = path("cut");
        std::vector<size_t> cuts;
        for (size_t at = 1024; at <= img.size(); at += 1024) cuts.push_back(at);
        std::mt19937 rng(seed ^ 0x5a5a);
        for (int i = 0; i < 12; ++i) cuts.push_back(1024 + rng() % (img.size() - 1024));
        for (size_t at : cuts) {
            spit(cut, img.substr(0, at));
            std::set<std::string> must;
            for (auto& [k, pages] : lay.pages) {
                bool whole = true;
                for (uint32_t p : pages) whole = whole && p - lay.header + 1024 <= at;
                if (whole) must.insert(k);
            }
            salvage_and_check(cut, intact, by_key, must, "cut at " + std::to_string(at));
            if (at == cuts[cuts.size() / 3]) {   // (d) a load of what came back is sound
                run({"dump", "--salvage", cut, path("part.dump")});
                table({{{"load", path("part"), path("part.dump")}, 0}, {{"check", path("part")}, 0}});
            }
        }

        // (c) damage: one page at a time, the records that do not need it come back.
        const std::string bad = path("bad");
        auto damage = [&](uint32_t page, const std::string& bytes, size_t at, const std::string& what,
                          uint32_t also = 0) {
            std::string b = img;
            b.replace(page - lay.header + at, bytes.size(), bytes);
            spit(bad, b);
            std::set<std::string> must;
            for (auto& [k, pages] : lay.pages) {
                bool needs = false;
                for (uint32_t p : pages) needs = needs || p == page || p == also;
                // A plain file's records do not need the tree: they come back from the
                // data pages when the tree cannot vouch for them.
                if (!key_in_index && lay.tree.count(page)) needs = false;
                if (!needs) must.insert(k);
            }
            salvage_and_check(bad, intact, by_key, must, what);
        };
        std::string garbage(1024, '\0');
        for (char& c : garbage) c = char(rng() % 256);
        int n = 0;
        for (uint32_t p : lay.shared)
            if (n++ % 5 == 0) damage(p, garbage, 0, "garbage over data page " + std::to_string(p));
        n = 0;
        for (uint32_t p : lay.overflow) {
            if (n++ % 4 != 0) continue;
            damage(p, std::string(1024, '\0'), 0, "zeroed overflow page " + std::to_string(p));
            // The link now leads to another page: a record with a piece there may be
            // claimed by two chains, which nothing can settle, so it may be left out.
            std::string link = img.substr(p - lay.header + 4, 4);
            link[1] = char(link[1] ^ 0x24);
            damage(p, link, 4, "overflow link of page " + std::to_string(p), u32(link, 0) & ~0x3FFu);
        }
        for (uint32_t p : lay.tree) damage(p, garbage, 0, "garbage over key-0 index page " + std::to_string(p));

        // Cut short and a key-0 leaf lost: a record that begins in an overflow page is
        // whole wherever the index cannot vouch for it; a short one there may be the tail
        // of a record cut away, so it needs another key's tree to vouch for it.
        if (!key_in_index) {
            uint32_t leaf = 0;
            for (uint32_t p : lay.tree)
                if (p != lay.root) leaf = p;
            ASSERT_NE(leaf, 0u) << "the key-0 tree has one level";
            std::string b = img.substr(0, img.size() - 1024);
            b.replace(leaf - lay.header, 1024, std::string(1024, '\0'));
            spit(bad, b);
            std::set<std::string> must;
            for (auto& [k, pages] : lay.pages) {
                bool whole = true;
                for (uint32_t p : pages) whole = whole && p - lay.header + 1024 <= b.size();
                if (whole && (pages[0] != leaf || pages.size() > 2)) must.insert(k);
            }
            salvage_and_check(bad, intact, by_key, must, "cut short, key-0 leaf " + std::to_string(leaf) + " lost");
        }

        // The control page: without it the key lengths must be given.
        std::string b = img;
        b.replace(0, 512, garbage.substr(0, 512));
        spit(bad, b);
        table({{{"dump", "--salvage", bad}, 1, {"!# kisam dump 1"}, {"--keys"}}});
        std::vector<std::string> keys{"--keys", "8,4"};
        if (key_in_index) keys.push_back("--key-in-index");
        salvage_and_check(bad, intact, by_key, all, "damaged control page", keys);
    }
};

TEST_F(Salvage, PlainFile) { exercise(false); }
TEST_F(Salvage, KeyInIndexFile) { exercise(true); }

TEST_F(Salvage, UsageAndOddInputs) {
    const std::string f = path("f");
    // Not an ISAM file at all: the key lengths are asked for; with them, nothing is found.
    spit(path("text"), std::string(5000, 'x'));
    table({
        {{"create", f, "4"}, 0},
        {{"dump", "--salvage", f}, 0, {"=# kisam dump 1\n# keys 4\n# end 0 records\n"}},   // empty: an empty dump
        {{"dump", f, "--keys", "4"}, 2},   // --keys without --salvage
        {{"dump", "--salvage", f, "--keys", "0"}, 2},
        {{"dump", "--salvage", f, "--key-in-index"}, 2},
        {{"dump", "--salvage", path("none")}, 1},
        {{"dump", "--salvage", path("text")}, 1, {}, {"--keys"}},
        {{"dump", "--salvage", path("text"), "--keys", "4"}, 0, {"# end 0 records"}},
    });
}

}  // namespace
