// kisam dump --salvage: any bytes as an ISAM file, read by the salvage reader in this
// process -- once with the key lengths from the control page, once with lengths given
// (the path taken when the control page is damaged).
//
// Promises checked: no crash, hang or out-of-bounds access; what comes back are records
// a load would take: lengths within the file's bounds, key 0 values rising strictly.
#include "harness.h"
#include "salvage.h"

#include <kisam/isamdb.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace {

void salvage_once(const std::string& file, const kisam_tool::SalvageOptions& opt) {
    const int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) kfz::finding("cannot open the input file");
    std::vector<std::string> recs;
    kisam_tool::SalvageReport rep;
    std::string err;
    const bool ok = kisam_tool::salvage_file(fd, opt, &recs, &rep, &err);
    ::close(fd);
    if (!ok) {
        if (err.empty()) kfz::finding("salvage failed without a message");
        return;
    }
    if (rep.keylens.empty()) kfz::finding("salvage succeeded without key lengths");
    size_t minrec = 0;
    for (int l : rep.keylens) minrec += size_t(l);
    const size_t l0 = size_t(rep.keylens[0]);
    for (size_t i = 0; i < recs.size(); ++i) {
        if (recs[i].size() < minrec || recs[i].size() > KISAM_MAXREC)
            kfz::finding("record %zu is %zu bytes (keys %zu)", i, recs[i].size(), minrec);
        if (i > 0 && std::memcmp(recs[i - 1].data(), recs[i].data(), l0) >= 0)
            kfz::finding("records %zu and %zu are not in rising key 0 order", i - 1, i);
    }
    if (long(recs.size()) != rep.records) kfz::finding("the report counts %ld records of %zu", rep.records, recs.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = kfz::in_sandbox("salvage.ism");
    kfz::write_file(file, data, size);
    salvage_once(file, {});
    kisam_tool::SalvageOptions given;
    given.keylens = {8, 4};
    given.key_in_index = size > 0 && (data[size - 1] & 1);
    salvage_once(file, given);
    ::unlink(file.c_str());
    return 0;
}
