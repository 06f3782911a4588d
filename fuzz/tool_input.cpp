// See tool_input.h.
#include "tool_input.h"

#include "harness.h"
#include "kcheck.h"

#include <kisam/kisam.h>

#include <unistd.h>

#include <cstdio>

namespace kfz {

void tool_input(const uint8_t* data, size_t size,
                const std::function<int(const std::string& file, const std::string& input)>& cmd) {
    const std::string input = in_sandbox("input.txt");
    const std::string file = in_sandbox("loaded.ism");
    write_file(input, data, size);
    ::unlink(file.c_str());

    // The tool's messages go to streams of its own; the descriptors stay, so that the
    // sanitizers' and the fuzzer's reports are still seen.
    static FILE* null_out = std::fopen("/dev/null", "w");
    FILE* saved_out = stdout;
    FILE* saved_err = stderr;
    stdout = null_out;
    stderr = null_out;
    const int rc = cmd(file, input);
    stdout = saved_out;
    stderr = saved_err;

    if (rc < 0 || rc > 2) finding("the command ended with status %d", rc);
    if (isam_com != nullptr) finding("the command left the shared area attached");
    if (::access(file.c_str(), F_OK) == 0) {
        kisam::check::Report rep = kisam::check::check_file(file);
        if (!rep.ok) finding("the command left a damaged file (status %d): %s", rc, rep.error.c_str());
        ::unlink(file.c_str());
    }
}

}  // namespace kfz
