// kisam load: a dump read into a new file.
#include "tool_input.h"
#include "tool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kfz::tool_input(data, size, [](const std::string& file, const std::string& input) {
        return kisam_tool::cmd_load({file, input});
    });
    return 0;
}
