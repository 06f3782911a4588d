// What every fuzz harness shares: a private installation for the whole process, input
// written to files, and the checks that turn a broken promise into a finding.
//
// Each harness defines LLVMFuzzerTestOneInput (and, if it needs one, a set-up run once
// before the first input).  The same source is linked with libFuzzer in the fuzz build
// and with the GoogleTest driver (regress_test.cpp) in the normal build, which feeds it
// the seed corpus and every input kept from a finding.
//
// The shared segment: a harness that attaches runs in one process and needs no second
// one, so every segment is marked for removal as soon as this process has attached it
// (see shmat in harness.cpp).  It then goes away when the process detaches or ends in
// any way -- a crash, a time-out kill -- and nothing is left for ipcs to show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kfz {

// Creates (once per process) a temporary directory under TMPDIR with HOME, HOME_Q9 and
// PROFILEQ9ENV pointing into it, and KISCONFIG naming a configuration file with its lock
// file there.  The directory is removed at exit.  Returns its path.
const std::string& sandbox();
// sandbox() + "/" + name.
std::string in_sandbox(const std::string& name);

// Writes the configuration record of the sandbox's installation to path: 16 files,
// 32 buffers (few enough that reads evict pages), 4 processes.
void write_default_config(const std::string& path);

// Replaces the file at path with the n bytes at data.
void write_file(const std::string& path, const uint8_t* data, size_t n);

// A finding: prints the message and aborts, so that the fuzzer keeps the input.
[[noreturn]] void finding(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Makes the error state blank before an engine call, so that expect_named can tell
// whether the call recorded its own failure.
void clear_error();
// After an engine call that returned r: a failure (-1) must carry an ISE_* code and a
// stack that this very call recorded.  `what` names the call in the finding.
void expect_named(int r, const char* what);

}  // namespace kfz
