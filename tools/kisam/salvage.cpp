// kisam dump --salvage: see salvage.h; the passes are in salvage_scan.cpp and
// salvage_records.cpp (salvage_internal.h describes them).
#include "salvage_internal.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kisam_tool::salvage {

bool Salvager::run(std::vector<std::string>* out, std::string* error) {
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
        *error = std::strerror(errno);
        return false;
    }
    fsize_ = st.st_size;
    if (!setup(error)) return false;
    if (have_cp_) walk_free_list();
    scan_pages();
    for (auto& [p, sp] : shared_) tile(p, sp);
    if (g_interrupted) return stopped(error);
    read_tree();
    collect_overflow();
    collect_heads();
    if (g_interrupted) return stopped(error);
    decide(out);
    return true;
}

bool Salvager::stopped(std::string* error) {
    *error = "interrupted";
    return false;
}

}  // namespace kisam_tool::salvage

namespace kisam_tool {

using salvage::Salvager;

bool salvage_file(int fd, const SalvageOptions& opt, std::vector<std::string>* records, SalvageReport* report,
                  std::string* error) {
    *report = SalvageReport();
    records->clear();
    Salvager s(fd, opt, *report);
    return s.run(records, error);
}

int salvage_dump(const std::string& file, const std::string& output, const SalvageOptions& opt) {
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0) return fail("dump", file + ": " + std::strerror(errno));
    std::vector<std::string> recs;
    SalvageReport rep;
    std::string err;
    const bool ok = salvage_file(fd, opt, &recs, &rep, &err);
    ::close(fd);
    if (!ok && g_interrupted) return interrupted("dump", "; nothing was written");
    if (!ok) return fail("dump", file + ": " + err);

    std::string keys;
    for (size_t i = 0; i < rep.keylens.size(); ++i) keys += (i ? "," : "") + std::to_string(rep.keylens[i]);
    DumpWriter out;
    if (!out.open(output, rep.keylens, rep.key_in_index)) return EXIT_FAIL;
    for (const std::string& r : recs)
        if (!out.record(r)) break;
    if (const int wrc = out.finish(true); wrc != EXIT_OK) return wrc;

    // The report: what was read, what is in doubt, what was left out and why.
    progress_clear();
    const char* f = file.c_str();
    if (!rep.control_error.empty())
        std::fprintf(stderr, "kisam dump: %s: the control page is damaged (%s); keys %s%s from --keys\n", f,
                     rep.control_error.c_str(), keys.c_str(), rep.key_in_index ? " key-in-index" : "");
    else if (rep.keys_given)
        std::fprintf(stderr, "kisam dump: %s: keys %s taken from --keys, not from the control page\n", f, keys.c_str());
    if (rep.truncated) std::fprintf(stderr, "kisam dump: %s: the file is cut short of its last page\n", f);
    if (rep.partial_page) std::fprintf(stderr, "kisam dump: %s: the file ends inside a page; that page is not read\n", f);
    if (rep.beyond_last)
        std::fprintf(stderr, "kisam dump: %s: %ld pages past the file's last page are not read\n", f, rep.beyond_last);
    if (!rep.free_list_error.empty())
        std::fprintf(stderr, "kisam dump: %s: the free page list is damaged: %s\n", f, rep.free_list_error.c_str());
    std::fprintf(stderr,
                 "kisam dump: %s: %ld pages read: %ld data, %ld overflow, %ld key-0 index, %ld free, %ld damaged, "
                 "%ld other\n",
                 f, rep.pages_read, rep.data_pages, rep.overflow_pages, rep.index_pages, rep.free_pages,
                 rep.damaged_pages, rep.other_pages);
    if (!rep.index_whole && rep.unconfirmed)
        std::fprintf(stderr,
                     "kisam dump: %s: the key-0 index cannot be read whole; %ld records were taken from the data "
                     "pages alone\n",
                     f, rep.unconfirmed);
    else if (!rep.index_whole)
        std::fprintf(stderr, "kisam dump: %s: the key-0 index cannot be read whole; its pages that can be read "
                             "vouch for every record written\n", f);
    std::fprintf(stderr, "kisam dump: %s: %ld records written, %zu skipped\n", f, rep.records, rep.skipped.size());
    size_t shown = 0;
    for (const SalvageSkip& s : rep.skipped) {
        if (++shown > 200) {
            std::fprintf(stderr, "kisam dump: %s: ... and %zu more\n", f, rep.skipped.size() - 200);
            break;
        }
        if (s.page) std::fprintf(stderr, "kisam dump: %s: page %u: %s\n", f, s.page, s.reason.c_str());
        else std::fprintf(stderr, "kisam dump: %s: %s\n", f, s.reason.c_str());
    }
    return rep.skipped.empty() ? EXIT_OK : EXIT_FAIL;
}

}  // namespace kisam_tool
