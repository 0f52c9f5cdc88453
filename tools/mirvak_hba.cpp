// mirvak-hba: shows the adapters and ports the plug-in sees.
//
// The plug-in prints its own fixed diagnostics on standard output; this
// program keeps its answer clean by sending those lines to standard error
// (or nowhere, with --quiet) and writing its own output to the original
// standard output.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include "output.h"
#include "plugin_loader.h"

namespace {

// Returns a stream on the original standard output and points descriptor 1
// (where the library prints) at standard error or /dev/null.
std::FILE* separate_library_output(bool quiet) {
    std::fflush(stdout);
    const int own = dup(STDOUT_FILENO);
    const int sink = quiet ? open("/dev/null", O_WRONLY) : dup(STDERR_FILENO);
    dup2(sink, STDOUT_FILENO);
    close(sink);
    return fdopen(own, "w");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Show the FCoE adapters and ports that the mirvak HBA plug-in sees."};
    bool as_json = false;
    bool quiet = false;
    app.add_flag("--json", as_json, "Print JSON instead of text");
    app.add_flag("-q,--quiet", quiet, "Drop the library's own diagnostic lines");
    app.require_subcommand(0, 1);
    app.add_subcommand("adapters", "Every adapter with its attributes and ports (the default)");
    CLI11_PARSE(app, argc, argv);

    std::FILE* out = separate_library_output(quiet);
    try {
        PluginLoader plugin;
        plugin.load();
        const nlohmann::json adapters = gather_adapters(plugin);
        plugin.free();
        if (as_json) {
            std::fprintf(out, "%s\n", nlohmann::json{{"adapters", adapters}}.dump(2).c_str());
        } else {
            print_adapters_text(out, adapters);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        return 1;
    }
    std::fclose(out);
    return 0;
}
