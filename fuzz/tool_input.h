// Input files of kisam tool commands (load; import and salvage join the same way): the
// command runs in this process, as the tool runs it, on a fresh ISAM file of the
// sandbox installation.
//
// Promises checked: no crash, hang or out-of-bounds access; the command ends with one
// of the tool's exit codes and detaches; and whatever it wrote through the engine is a
// sound file by the structural checker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace kfz {

// Writes the input to a file, runs cmd(isam_file, input_file) with the tool's messages
// discarded, then checks the outcome.
void tool_input(const uint8_t* data, size_t size,
                const std::function<int(const std::string& file, const std::string& input)>& cmd);

}  // namespace kfz
