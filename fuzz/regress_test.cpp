// Runs one fuzz harness, built with the normal compiler, over its seed corpus
// (corpus/NAME/) and over every input kept from a finding (regress/NAME/), so that what
// the fuzzer once found stays fixed.  A harness that finds a broken promise aborts; the
// name of the input is printed before each run so that the failure names it.
#include <gtest/gtest.h>

#include <kisam/kisam.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace {

std::vector<std::string> inputs(const std::string& dir) {
    std::vector<std::string> out;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        ::closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

int run_all(const std::string& dir) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(nullptr, nullptr);
    int n = 0;
    for (const std::string& path : inputs(dir)) {
        std::ifstream in(path, std::ios::binary);
        std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        std::fprintf(stderr, "input %s\n", path.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++n;
    }
    EXPECT_EQ(isam_com, nullptr) << "a harness left the shared area attached";
    return n;
}

TEST(FuzzRegress, SeedCorpus) {
    EXPECT_GT(run_all(KISAM_FUZZ_DIR "/corpus/" KISAM_FUZZ_NAME), 0) << "the target has no seeds";
}

TEST(FuzzRegress, KeptFindings) { run_all(KISAM_FUZZ_DIR "/regress/" KISAM_FUZZ_NAME); }

}  // namespace
