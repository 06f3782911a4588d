// Data-page check of the structural checker.
//
// Owned by the data-record layer's developer (DR), who extends it: walk the data pages
// and overflow chains, mark each in the page map (PageUse::data), count data_pages and
// records, report the first violation with report.fail, and set report.data_accounted
// once every data page is marked, so that check_file can report pages nobody claims.
//
// This first form checks nothing and claims nothing.
#include "kcheck.h"

namespace kisam::check {

bool check_data(const FileImage& img, PageMap& map, Report& report) {
    (void)img;
    (void)map;
    return report.ok;
}

}  // namespace kisam::check
