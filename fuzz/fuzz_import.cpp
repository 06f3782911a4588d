// kisam import: CSV into a file with three keys.  The input's first byte chooses the
// options (a header line or none, --replace, a field layout of its own or the default);
// the rest is the CSV.
#include "tool_input.h"
#include "tool.h"

#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t opts = data[0];
    kfz::tool_input(data + 1, size - 1, [opts](const std::string& file, const std::string& input) {
        if (kisam_tool::cmd_create({file, "4,6,3"}) != 0) return 2;
        std::vector<std::string> args{file, input};
        if (opts & 1) args.push_back("--no-header");
        if (opts & 2) args.push_back("--replace");
        switch ((opts >> 2) & 3) {
            case 1: args.insert(args.end(), {"--fields", "id:4,name:6,code:3,rest:*"}); break;
            case 2: args.insert(args.end(), {"--fields", "id:4,name:6,code:3,a:5,b:2"}); break;
            case 3: args.insert(args.end(), {"--fields", "id:4,name:6,code:3"}); break;
            default: break;
        }
        return kisam_tool::cmd_import(std::move(args));
    });
    return 0;
}
