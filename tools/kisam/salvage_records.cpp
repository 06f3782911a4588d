// kisam dump --salvage: pass 3 (the records, from their overflow chains and the heads of
// the shared pages), the key-0 tree, and the decision of what is written.  See
// salvage_internal.h.
#include "salvage_internal.h"

#include <iterator>

namespace kisam_tool::salvage {

bool Salvager::vouched_by_other_key(const std::string& rec) const {
    size_t pos = size_t(l0_);
    bool any = false;
    for (size_t k = 1; k < rep_.keylens.size(); ++k) {
        const size_t lk = size_t(rep_.keylens[k]);
        std::string item(1, char(k));
        item.append(rec, pos, lk);
        item.append(rec, 0, size_t(l0_));
        if (!other_items_.count(item)) return false;
        any = true;
        pos += lk;
    }
    return any;
}

bool Salvager::follow(uint32_t p, int off, const unsigned char* b, std::string* out, std::string* why) {
    const SharedPage& sp = shared_.at(p);
    int prev = 0;
    for (int n = 0;; ++n) {
        const Seg* s = sp.at(off);
        if (!s) {
            *why = "no segment at offset " + std::to_string(off);
            return false;
        }
        if (off <= prev || n > kPage / 4) {
            *why = "its pieces run backwards at offset " + std::to_string(off);
            return false;
        }
        if (in_refs(p, off) > 1) {
            *why = "two pieces lead to the segment at offset " + std::to_string(off);
            return false;
        }
        out->append(reinterpret_cast<const char*>(b + off + s->hdr), size_t(s->len));
        if (!s->next) return true;
        prev = off;
        off = s->next;
    }
}

void Salvager::collect_overflow() {
    // Every link counts as a reference, whether or not its chain is whole: the tail
    // of a chain that lost its first pages is no record of its own.
    for (auto& [p, sp] : shared_)
        for (const Seg& s : sp.segs)
            if (s.next) ++refs_[p][s.next];
    for (auto& [p, ov] : ovf_) {
        if ((ov.link & kLow) != 1) ++tail_refs_[ov.link & ~kLow][int(ov.link & kLow)];
        else ++ovf_in_[ov.link - 1];
    }

    unsigned char b[kPage];
    std::set<uint32_t> reached;
    for (auto& [first, ov0] : ovf_) {
        if (ov0.segx != 1) continue;
        std::string data, why;
        uint32_t cur = first;
        int segx = 1;
        std::set<uint32_t> seen;
        while (why.empty()) {
            seen.insert(cur);
            reached.insert(cur);
            if (!read_page(cur, b)) {
                why = "overflow page " + std::to_string(cur) + " cannot be read";
                break;
            }
            data.append(reinterpret_cast<const char*>(b + 8), kOverflowData);
            const uint32_t link = ovf_[cur].link;
            if ((link & kLow) == 1) {
                const uint32_t nx = link - 1;
                auto it = ovf_.find(nx);
                if (!present(nx))
                    why = "overflow page " + std::to_string(cur) + " leads to page " + std::to_string(nx) +
                          ", past the end of the file";
                else if (it == ovf_.end())
                    why = "overflow page " + std::to_string(cur) + " leads to page " + std::to_string(nx) +
                          ", which is no overflow page";
                else if (it->second.segx != segx + 1 || seen.count(nx))
                    why = "overflow page " + std::to_string(cur) + " (part " + std::to_string(segx) +
                          ") leads to page " + std::to_string(nx) + " (part " +
                          std::to_string(it->second.segx) + ")";
                else if (ovf_in_[nx] > 1)
                    why = "two overflow pages lead to page " + std::to_string(nx);
                else {
                    cur = nx;
                    ++segx;
                }
                continue;
            }
            const uint32_t tp = link & ~kLow;
            const int off = int(link & kLow);
            unsigned char tb[kPage];
            std::string tail;
            if (!shared_.count(tp) || !read_page(tp, tb)) {
                why = "its tail page " + std::to_string(tp) +
                      (present(tp) ? " is no readable data page" : " lies past the end of the file");
            } else if (in_refs(tp, off) || item_addrs_.count(link)) {
                // A piece that another segment continues into, or the start of a
                // record the index knows, is no tail: the link is damaged.
                why = "its tail link " + hexaddr(link) + " leads into another record";
            } else if (tail_refs_[tp][off] > 1) {
                why = "two overflow chains end at " + hexaddr(link);
            } else if (!follow(tp, off, tb, &tail, &why)) {
                why = "its tail in page " + std::to_string(tp) + ": " + why;
            } else if (tail.empty() || tail.size() > size_t(kOverflowData) ||
                       data.size() + tail.size() <= size_t(kShortest) ||
                       data.size() + tail.size() > size_t(KISAM_MAXREC)) {
                why = std::to_string(segx) + " overflow pages and a tail of " + std::to_string(tail.size()) +
                      " bytes make no record";
            } else {
                cands_.push_back({first + 1, data + tail});
                break;
            }
        }
        if (!why.empty()) lost(first, first + 1, "record from overflow page " + std::to_string(first) + ": " + why);
    }
    // Overflow pages no first page leads to: what is left of records whose front is lost.
    std::set<uint32_t> targets;
    for (auto& [p, ov] : ovf_)
        if ((ov.link & kLow) == 1 && !reached.count(p)) targets.insert(ov.link - 1);
    for (auto& [p, ov] : ovf_) {
        if (reached.count(p) || targets.count(p)) continue;
        lost(p, KISAM_NOPAGE, "overflow page " + std::to_string(p) + " is part " + std::to_string(ov.segx) +
                                  " of a record whose first pages are lost");
        for (uint32_t q = p; ovf_.count(q) && reached.insert(q).second && (ovf_[q].link & kLow) == 1;)
            q = ovf_[q].link - 1;
    }
}

void Salvager::collect_heads() {
    unsigned char b[kPage];
    for (auto& [p, sp] : shared_) {
        if (!read_page(p, b)) continue;
        for (const Seg& s : sp.segs) {
            // A later piece, or an overflow chain's tail -- unless the index says a
            // record starts here, when the link that leads to it is the damaged one.
            if (in_refs(p, s.off)) continue;
            if (tail_refs_[p].count(s.off) && !item_addrs_.count(p + uint32_t(s.off))) continue;
            std::string data, why;
            if (!follow(p, s.off, b, &data, &why)) {
                lost(p, p + uint32_t(s.off), "record at offset " + std::to_string(s.off) + ": " + why);
            } else if (data.size() > size_t(kShortest)) {
                lost(p, p + uint32_t(s.off), "record at offset " + std::to_string(s.off) + " is " +
                                                 std::to_string(data.size()) + " bytes, too long for one page");
            } else {
                cands_.push_back({p + uint32_t(s.off), std::move(data)});
            }
        }
    }
}

int Salvager::in_refs(uint32_t p, int off) {
    auto it = refs_.find(p);
    if (it == refs_.end()) return 0;
    auto jt = it->second.find(off);
    return jt == it->second.end() ? 0 : jt->second;
}

void Salvager::lost(uint32_t page, uint32_t addr, const std::string& why) {
    rep_.skipped.push_back({page & ~kLow, why});
    if (addr != KISAM_NOPAGE) lost_addrs_.insert(addr);
}

void Salvager::read_tree() {
    if (!have_cp_ || rep_.keys_given) {
        uncertain_.push_back({});
    } else if (cp_.keys[0].root != KISAM_NOPAGE) {
        std::set<uint32_t> seen;
        walk(cp_.keys[0].root, {}, 0, seen);
    }
    // Pages of key 0 that the walk did not reach still tell live records.
    for (auto& [p, t] : tree_)
        for (size_t i = 0; i < t.keys.size(); ++i) known_.emplace(t.keys[i], t.addrs[i]);
    rep_.index_whole = uncertain_.empty();
    // The ranges are disjoint (each is a subtree's, or the whole key space alone), so
    // in rising order of their lower bounds one binary search finds a key's range.
    std::sort(uncertain_.begin(), uncertain_.end(), [](const Range& a, const Range& b) {
        return !b.lo ? false : !a.lo || *a.lo < *b.lo;
    });
    for (auto& [k, a] : known_) item_addrs_.insert(a);
}

void Salvager::walk(uint32_t p, Range r, int depth, std::set<uint32_t>& seen) {
    auto it = tree_.find(p);
    if (depth > 32 || it == tree_.end() || !seen.insert(p).second) {
        uncertain_.push_back(r);
        return;
    }
    const TreePage& t = it->second;
    for (size_t i = 0; i < t.keys.size(); ++i) {
        if (!r.holds(t.keys[i])) {   // out of order with its parent: trust none of it
            uncertain_.push_back(r);
            return;
        }
    }
    for (size_t i = 0; i < t.keys.size(); ++i) known_.emplace(t.keys[i], t.addrs[i]);
    if (t.leaf) return;
    for (size_t i = 0; i < t.child.size(); ++i) {
        Range c;
        c.lo = i == 0 ? r.lo : std::optional<std::string>(t.keys[i - 1]);
        c.hi = i == t.keys.size() ? r.hi : std::optional<std::string>(t.keys[i]);
        walk(t.child[i], c, depth + 1, seen);
    }
}

bool Salvager::in_doubt(const std::string& key) const {
    // The last range whose lower bound lies below the key is the only one that can hold it.
    auto it = std::partition_point(uncertain_.begin(), uncertain_.end(),
                                   [&](const Range& r) { return !r.lo || *r.lo < key; });
    return it != uncertain_.begin() && std::prev(it)->holds(key);
}

void Salvager::decide(std::vector<std::string>* out) {
    std::map<uint32_t, std::string> by_addr;   // index items, by record address
    for (auto& [k, a] : known_) by_addr.emplace(a, k);
    std::vector<Out> recs;
    std::set<uint32_t> found;
    for (Candidate& c : cands_) {
        const uint32_t page = c.addr & ~kLow;
        const std::string at = (c.addr & kLow) == 1 ? "record from overflow page " + std::to_string(page)
                                                    : "record at offset " + std::to_string(c.addr & kLow);
        auto item = by_addr.find(c.addr);
        found.insert(c.addr);
        if (keyopt_) {
            if (item == by_addr.end()) {
                rep_.skipped.push_back({page, at + ": no key-0 index item leads to it, so its key is lost"});
                continue;
            }
            std::string rec = item->second + c.data;
            if (rec.size() < size_t(minrec_) || rec.size() > size_t(KISAM_MAXREC)) {
                rep_.skipped.push_back({page, at + ": " + std::to_string(rec.size()) +
                                                  " bytes with its key, outside the record lengths of the file"});
                continue;
            }
            recs.push_back({std::move(rec), true, c.addr});
            continue;
        }
        if (c.data.size() < size_t(minrec_)) {
            rep_.skipped.push_back({page, at + ": " + std::to_string(c.data.size()) +
                                              " bytes, shorter than the keys (" + std::to_string(minrec_) + ")"});
            continue;
        }
        const std::string key = c.data.substr(0, size_t(l0_));
        if (item != by_addr.end()) {
            if (item->second != key) {
                rep_.skipped.push_back({page, at + ": the key-0 index gives it another key 0 value"});
                continue;
            }
            recs.push_back({std::move(c.data), true, c.addr});
            continue;
        }
        auto same = known_.find(key);
        if (same != known_.end()) {
            rep_.skipped.push_back({page, at + ": its key 0 value belongs to the record at " +
                                              hexaddr(same->second) + " (an old piece)"});
        } else if (in_doubt(key) && rep_.truncated && (c.addr & kLow) != 1 && vouched_by_other_key(c.data)) {
            recs.push_back({std::move(c.data), true, c.addr});
        } else if (in_doubt(key) && rep_.truncated && (c.addr & kLow) != 1) {
            // The pages past the cut may have held the front of a longer record
            // whose tail this is: nothing tells the two apart, so it is not written.
            // A record that begins with the first of its overflow pages is whole, and
            // one that every other key's tree holds is live.
            rep_.skipped.push_back({page, at + ": not confirmed by the key-0 index, and the file is cut short "
                                              "(it may be the tail of a record whose front is lost)"});
        } else if (in_doubt(key)) {
            recs.push_back({std::move(c.data), false, c.addr});
        } else {
            rep_.skipped.push_back({page, at + ": not in the key-0 index (a released or orphaned piece)"});
        }
    }
    // Index items whose record was not found at all.
    for (auto& [k, a] : known_) {
        if (a == KISAM_NOPAGE && keyopt_) {
            if (int(k.size()) >= minrec_) recs.push_back({k, true, a});
            else rep_.skipped.push_back({0, "the key-0 index holds a record without data that is too short"});
            continue;
        }
        if (found.count(a) || lost_addrs_.count(a)) continue;
        rep_.skipped.push_back({valid_address(a) ? a & ~kLow : 0,
                                "the key-0 index leads to " + hexaddr(a) + ", where no record was found"});
    }
    // One record per key 0 value: a piece the index vouches for wins; two that nobody
    // vouches for are both left out.
    std::stable_sort(recs.begin(), recs.end(), [&](const Out& a, const Out& b) {
        return std::memcmp(a.rec.data(), b.rec.data(), size_t(l0_)) < 0;
    });
    for (size_t i = 0; i < recs.size();) {
        size_t j = i + 1;
        while (j < recs.size() && std::memcmp(recs[i].rec.data(), recs[j].rec.data(), size_t(l0_)) == 0) ++j;
        int sure = 0;
        for (size_t k = i; k < j; ++k) sure += recs[k].confirmed;
        for (size_t k = i; k < j; ++k) {
            if (j - i == 1 || (sure == 1 && recs[k].confirmed)) {
                if (!recs[k].confirmed) ++rep_.unconfirmed;
                out->push_back(std::move(recs[k].rec));
            } else {
                rep_.skipped.push_back({recs[k].addr & ~kLow, "record at " + hexaddr(recs[k].addr) +
                                                                  ": another record has the same key 0 value"});
            }
        }
        i = j;
    }
    rep_.records = long(out->size());
}

}  // namespace kisam_tool::salvage
