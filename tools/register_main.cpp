// mirvak-hba-register: the plug-in's line in the front library's hba.conf.
//
//   mirvak-hba-register add    [--conf FILE] [--plugin PATH]
//   mirvak-hba-register remove [--conf FILE]
//   mirvak-hba-register status [--conf FILE] [--plugin PATH]
//
// add and remove change nothing when there is nothing to do, and write the
// file in one step (a new file renamed over the old one) while holding the
// lock beside it (hba_conf.h). A file that is not in the front library's
// format is left alone.
#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "tools/hba_conf.h"
#include "tools/replace_file.h"

namespace {

constexpr const char* kProgram = "mirvak-hba-register";
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNotRegistered = 3;

namespace conf = mv::hbaconf;

struct Options {
    std::string file = "/etc/hba.conf";
    std::string plugin = MIRVAK_INSTALLED_PLUGIN;
};

const CLI::Validator kPluginPath(
    [](std::string& text) {
        if (text.empty() || text[0] != '/') return std::string("the plug-in's path must be absolute");
        if (text.find_first_of(" \t\r\n#") != std::string::npos)
            return std::string("the front library cannot read a path with blanks or '#'");
        return std::string();
    },
    "PATH", "PATH");

// Applies change to the file's lines and writes them back when it changed
// anything; false when there was nothing to do. The change is worked out on
// the file as it is first; only when there is something to write is the
// lock beside the file taken, and the file read, parsed and changed again
// under it, so that a run never writes over another's lines. `before` gets
// the paths the plug-in was registered with before the change.
template <class Change>
bool edit(const std::string& file, Change change, std::vector<std::string>& before) {
    bool exists = false;
    conf::Conf c = conf::parse(conf::read_file(file, &exists));
    before = c.registered();
    if (!change(c)) return false;
    const conf::FileLock lock(file);
    c = conf::parse(conf::read_file(file, &exists));
    before = c.registered();
    if (!change(c)) return false;
    mv::tool::replace_file(file, c.text());
    return true;
}

int add(const Options& o) {
    std::vector<std::string> before;
    if (!edit(o.file, [&](conf::Conf& c) { return conf::add(c, o.plugin); }, before)) {
        std::cout << conf::kPluginName << " is already registered in " << o.file << ": " << o.plugin << "\n";
        return 0;
    }
    std::cout << "registered " << conf::kPluginName << " in " << o.file << ": " << o.plugin;
    if (!before.empty() && before[0] != o.plugin) std::cout << " (was " << before[0] << ")";
    std::cout << "\n";
    return 0;
}

int remove(const Options& o) {
    std::vector<std::string> before;
    if (!edit(o.file, [](conf::Conf& c) { return conf::remove(c); }, before)) {
        std::cout << conf::kPluginName << " is not registered in " << o.file << "; nothing to do\n";
        return 0;
    }
    std::cout << "removed " << conf::kPluginName << " from " << o.file << "\n";
    return 0;
}

int status(const Options& o) {
    bool exists = false;
    const conf::Conf c = conf::parse(conf::read_file(o.file, &exists));
    const std::vector<std::string> paths = c.registered();
    if (paths.empty()) {
        std::cout << conf::kPluginName << " is not registered in " << o.file << (exists ? "" : " (no such file)")
                  << "\n";
        return kNotRegistered;
    }
    std::cout << conf::kPluginName << " is registered in " << o.file << ": " << paths[0] << "\n";
    if (paths[0] != o.plugin) {
        std::cout << "this is not " << o.plugin << "; 'add' registers that one\n";
        return kNotRegistered;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Register the mirvak FCoE HBA plug-in with the HBA API front library: add, remove or show\n"
                 "its line (name " + std::string(conf::kPluginName) + ", then the plug-in's path) in hba.conf."};
    app.name(kProgram);
    app.set_version_flag("--version", std::string(kProgram) + " " + MIRVAK_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.footer("Every other line, comment and blank line of the file is kept byte for byte. A file that is\n"
               "not in the front library's format (blank lines, '#' comments, a name and a path per line)\n"
               "is refused and left as it is. add and remove hold a lock file beside the file\n"
               "(.NAME.lock, flock) while they change it, so that runs at once lose no line.\n"
               "Exit status: 0 done (or nothing to do; for status: registered with PATH); 1 the file\n"
               "could not be read, parsed or written (nothing was written); 2 bad arguments;\n"
               "3 (status) not registered, or registered with another path.");
    Options o;
    const std::string conf_help = "The front library's configuration file (default: " + o.file + ")";
    const std::string plugin_help = "The plug-in to register (default: " + o.plugin + ")";

    CLI::App* c_add = app.add_subcommand("add", "Register the plug-in (rewrites its line when it names another path)");
    CLI::App* c_remove = app.add_subcommand("remove", "Drop the plug-in's line");
    CLI::App* c_status = app.add_subcommand("status", "Tell whether the plug-in is registered, and with which path");
    for (CLI::App* c : {c_add, c_remove, c_status}) c->add_option("--conf", o.file, conf_help);
    for (CLI::App* c : {c_add, c_status}) c->add_option("--plugin", o.plugin, plugin_help)->check(kPluginPath);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kUsage;
    }
    try {
        if (c_add->parsed()) return add(o);
        if (c_remove->parsed()) return remove(o);
        return status(o);
    } catch (const conf::ParseError& e) {
        std::cerr << kProgram << ": " << o.file << " " << e.what()
                  << "; it is not in the front library's format, nothing was written\n";
    } catch (const std::exception& e) {
        std::cerr << kProgram << ": " << e.what() << "; nothing was written\n";
    }
    return kFailed;
}
