// Command line: the input's first byte chooses between the WWN and adapter
// argument parsers and a whole argument vector of mirvak-hba.
//  - parse_wwn of the text; a WWN it accepts, printed with wwn_text and
//    parsed again, must give the same bytes; is_adapter_index of the text.
//  - the rest split at NUL bytes into at most 24 arguments after
//    "mirvak-hba", run through the program's main function against the
//    fuzz driver (two adapters whose every list is empty) on an empty
//    simulated host, from a private working folder. Arguments with a '/'
//    other than adapter paths are left out, so that file arguments stay in
//    that folder.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli_main.h"
#include "fuzz_driver.h"
#include "fuzz_support.h"
#include "session.h"
#include "temp_dir.h"
#include "wwn_arg.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static sim::TempDir work("mirvak-fuzz-cwd");
    if (chdir(work.path().c_str()) != 0) std::abort();
    fuzz::empty_host();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 0) {
        std::string why;
        if (const auto w = mv::tool::parse_wwn(text, &why)) {
            const std::string printed = mv::tool::wwn_text(*w);
            const auto again = mv::tool::parse_wwn(printed);
            if (!again || *again != *w) std::abort();
            (void)mv::tool::hex_bytes(w->data(), w->size());
        } else if (why.empty()) {
            std::abort();  // a refusal always says why
        }
        (void)mv::tool::is_adapter_index(text);
        return 0;
    }
    std::vector<std::string> args{"mirvak-hba"};
    std::size_t start = 0;
    while (start <= text.size() && args.size() < 25) {
        std::size_t stop = text.find('\0', start);
        if (stop == std::string::npos) stop = text.size();
        std::string arg = text.substr(start, stop - start);
        if (arg.find('/') == std::string::npos || arg.rfind("/dev/tuskstor", 0) == 0) args.push_back(arg);
        start = stop + 1;
    }
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    static const uint8_t kTwoAdapters[] = {0, 0, 0, 0, 3};
    fuzzdrv::begin(kTwoAdapters, sizeof kTwoAdapters);
    (void)mirvak_hba_main(static_cast<int>(args.size()), argv.data());
    fuzzdrv::end();
    return 0;
}
