// Settings lists: addvl, repvl and getvlp driven by the input, checked against a model,
// and the escape conversion of every line.
//
// Input: lines; the first byte of a line picks the operation, the rest is the key, a
// tab, and the value.  Promises checked: no crash, out-of-bounds access or leak; the
// list holds one record per key (compared as ICStrcmp compares), in the order keys were
// first added, each with its last value; the conversion never writes beyond the text it
// converts.
#include "harness.h"

#include <kisam/ztsupport.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Entry {
    std::string key, value;
    bool known;        // the value is known to the model (not a quoted, converted one)
    bool null = false; // repvl was given no value (ZTStrAlloc of an empty text is null)
};

// The value addvl stores for v, when the model can tell: v unless it is quoted.
bool plain(const std::string& v) {
    return !(v.size() >= 2 && (v[0] == '"' || v[0] == '\'') && v.back() == v[0]);
}

std::vector<Entry>::iterator find(std::vector<Entry>& m, const std::string& key) {
    for (auto it = m.begin(); it != m.end(); ++it)
        if (ICStrcmp(it->key.c_str(), key.c_str()) == 0) return it;
    return m.end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    ValList* head = nullptr;
    std::vector<Entry> model;

    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) eol = text.size();
        const std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        if (line.empty()) continue;
        const std::string body = line.substr(1);
        const size_t tab = body.find('\t');
        const std::string key = body.substr(0, tab).c_str();   // keys end at a NUL
        std::string value = tab == std::string::npos ? "" : std::string(body.substr(tab + 1).c_str());

        // The conversion, into a buffer exactly as long as its source.
        std::vector<char> out(line.size() + 1);
        const std::string src = line.c_str();
        if (convline(out.data(), src.c_str()) > static_cast<int>(src.size()))
            kfz::finding("convline made a text longer than its source");
        (void)convlineverify(out.data(), src.c_str());
        std::vector<char> inplace(src.begin(), src.end());
        inplace.push_back('\0');
        (void)convline(inplace.data(), inplace.data());

        switch (static_cast<unsigned char>(line[0]) % 3) {
        case 0: {   // add or replace
            std::vector<char> buf(value.begin(), value.end());
            buf.push_back('\0');
            if (addvl(&head, key.c_str(), buf.data()) != 0) kfz::finding("addvl ran out of memory");
            auto it = find(model, key);
            if (it == model.end()) model.push_back({key, value, plain(value)});
            else *it = {key, value, plain(value)};
            break;
        }
        case 1: {   // replace the value of an existing key
            char* owned = ZTStrAlloc(value.c_str());
            auto it = find(model, key);
            int r = repvl(&head, key.c_str(), owned, 7);
            if ((r == 0) != (it != model.end())) kfz::finding("repvl returned %d", r);
            if (r == 0) *it = {it->key, value, true, owned == nullptr};
            else ZTFree(owned);
            break;
        }
        default: {  // look up
            // A record given no value by repvl is found with a null value: getvlty tells
            // it from a key that is not there.
            const char* v = getvlp(head, key.c_str());
            const bool found = getvlty() != -1;
            auto it = find(model, key);
            if (found != (it != model.end())) kfz::finding("getvlp of a key %s", found ? "never added" : "that was added");
            if (found && (v == nullptr) != it->null) kfz::finding("getvlp gave %s value", v ? "a" : "no");
            if (v != nullptr && it->known && it->value != v) kfz::finding("getvlp gave another value");
            break;
        }
        }
    }

    // The whole list against the model, in order.
    size_t i = 0;
    for (const ValList* v = head; v != nullptr; v = v->next, ++i) {
        if (i >= model.size()) kfz::finding("the list has more records than keys");
        if ((v->valp == nullptr) != model[i].null) kfz::finding("record %zu: value %s", i, v->valp ? "set" : "missing");
        if (v->valp && model[i].known && model[i].value != v->valp) kfz::finding("record %zu holds another value", i);
    }
    if (i != model.size()) kfz::finding("the list has %zu records for %zu keys", i, model.size());
    emptyvl(&head);
    return 0;
}
