// mirvak-simhost: the simulated host from the command line.
//
//   mirvak-simhost gen --root DIR [--fabric FILE] [--plugin PATH]
//       Write the sysfs tree and etc/hba.conf for the fabric under DIR.
//
//   mirvak-simhost run [--fabric FILE] [--root DIR] [--plugin PATH] -- COMMAND [ARGS...]
//       Write the tree into DIR (or a temporary folder removed afterwards),
//       then run COMMAND with MIRVAK_SIM_ROOT, MIRVAK_SIM_FABRIC (when
//       --fabric is given; unset otherwise, so the simulated driver takes the
//       same default fabric) and libmirvaksimhost.so prepended to LD_PRELOAD.
//       Exits with the command's status (128 + signal number when it was
//       killed by a signal), 127 when it cannot be found, 126 when it cannot
//       be run, 125 on an error of its own.
//
// Without --fabric the built-in default fabric is used. Without --plugin the
// plug-in built beside this program (../lib/libmirvakhbaapi.so or
// ./libmirvakhbaapi.so) or installed with it (the library folder above the
// simulator's own) is registered in hba.conf when it exists.
//
// The command runs with the folder of the simulated driver library
// (libtuskstor.so, found beside this program like the redirector) first on
// LD_LIBRARY_PATH: an installed plug-in has no run path and would otherwise
// look for the maker's library.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fabric.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kProgram = "mirvak-simhost";
constexpr const char* kFabricEnv = "MIRVAK_SIM_FABRIC";
constexpr const char* kPreloadLibrary = "libmirvaksimhost.so";
constexpr const char* kPluginLibrary = "libmirvakhbaapi.so";
constexpr const char* kDriverLibrary = "libtuskstor.so";
constexpr int kOwnFailure = 125;

struct Options {
    std::string root;
    std::string fabric;
    std::string plugin;
    std::vector<std::string> command;
};

sim::Fabric load_fabric(const std::string& file) {
    if (file.empty()) return sim::parse_fabric_text(sim::default_fabric_text(), "<default>");
    return sim::load_fabric_file(file);
}

// A library built beside this program: ../lib/NAME or ./NAME relative to
// the executable, or installed with it (the library folder, from the
// simulator's folder). Empty when there is none.
std::string beside_program(const char* name) {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    const fs::path dir = exe.parent_path();
    for (const fs::path& candidate : {dir / ".." / "lib" / name, dir / name, dir / MIRVAK_SIM_TO_LIBDIR / name})
        if (fs::is_regular_file(candidate, ec)) return candidate.lexically_normal().string();
    return {};
}

sim::HostOptions host_options(const Options& o) {
    sim::HostOptions h;
    h.plugin_path = o.plugin.empty() ? beside_program(kPluginLibrary) : fs::absolute(o.plugin).string();
    return h;
}

// Runs argv with the current environment; the exit status as a shell gives it.
int run_command(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (const std::string& a : command) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    // Like system(): a terminal's interrupt goes to the command, and this
    // program stays to clean up after it.
    struct sigaction ignore {}, old_int {}, old_quit {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGINT, &ignore, &old_int);
    sigaction(SIGQUIT, &ignore, &old_quit);

    std::cout.flush();
    std::cerr.flush();
    const pid_t pid = fork();
    if (pid == 0) {
        sigaction(SIGINT, &old_int, nullptr);
        sigaction(SIGQUIT, &old_quit, nullptr);
        execvp(argv[0], argv.data());
        const int err = errno;
        std::fprintf(stderr, "%s: cannot run %s: %s\n", kProgram, argv[0], std::strerror(err));
        _exit(err == ENOENT ? 127 : 126);
    }
    int status = 0;
    pid_t waited = -1;
    const int fork_err = errno;
    if (pid > 0) {
        do waited = waitpid(pid, &status, 0);
        while (waited < 0 && errno == EINTR);
    }
    const int wait_err = errno;
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGQUIT, &old_quit, nullptr);

    if (pid < 0) throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(fork_err));
    if (waited < 0) throw std::runtime_error(std::string("cannot wait for the command: ") + std::strerror(wait_err));
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return kOwnFailure;
}

void set_env(const char* name, const std::string& value) {
    if (setenv(name, value.c_str(), 1) != 0)
        throw std::runtime_error(std::string("cannot set ") + name + ": " + std::strerror(errno));
}

// Puts value first in a colon-separated list variable.
void prepend_env(const char* name, const std::string& value) {
    const char* old = std::getenv(name);
    set_env(name, old != nullptr && old[0] != '\0' ? value + ":" + old : value);
}

int gen(const Options& o) {
    const sim::Fabric fabric = load_fabric(o.fabric);
    sim::generate_host(fabric, o.root, host_options(o));
    return 0;
}

int run(const Options& o) {
    const std::string preload = beside_program(kPreloadLibrary);
    if (preload.empty())
        throw std::runtime_error(std::string("cannot find ") + kPreloadLibrary +
                                 " beside this program (in ../lib or in its own folder)");
    const sim::Fabric fabric = load_fabric(o.fabric);

    std::optional<sim::TempDir> temp;
    std::string root;
    if (o.root.empty()) {
        temp.emplace(kProgram);
        root = temp->path();
    } else {
        root = fs::absolute(o.root).lexically_normal().string();
    }
    sim::generate_host(fabric, root, host_options(o));

    set_env(sim::kRootEnv, root);
    if (o.fabric.empty()) {
        unsetenv(kFabricEnv);
    } else {
        set_env(kFabricEnv, fs::absolute(o.fabric).lexically_normal().string());
    }
    const std::string driver = beside_program(kDriverLibrary);
    if (!driver.empty()) prepend_env("LD_LIBRARY_PATH", fs::path(driver).parent_path().string());
    prepend_env("LD_PRELOAD", preload);
    return run_command(o.command);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"The simulated host of the mirvak FCoE plug-in: writes the sysfs tree and\n"
                 "hba.conf that a fabric description implies, or runs a command on it."};
    app.name(kProgram);
    app.set_version_flag("--version", std::string(kProgram) + " " + MIRVAK_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    Options o;

    CLI::App* gen_cmd = app.add_subcommand("gen", "Write the host tree for a fabric into a folder");
    gen_cmd->add_option("--root", o.root, "Folder to write sys/class/fc_host and etc/hba.conf into")
        ->required();
    gen_cmd->add_option("--fabric", o.fabric, "Fabric description (JSON); default: the built-in one");
    gen_cmd->add_option("--plugin", o.plugin,
                        "Plug-in library to register in etc/hba.conf; default: the one built beside "
                        "this program, when present");

    CLI::App* run_cmd = app.add_subcommand(
        "run", "Run a command on the simulated host: mirvak-simhost run [options] -- COMMAND [ARGS...]");
    run_cmd->add_option("--fabric", o.fabric, "Fabric description (JSON); default: the built-in one");
    run_cmd->add_option("--root", o.root, "Folder for the host tree; default: a temporary one, removed afterwards");
    run_cmd->add_option("--plugin", o.plugin,
                        "Plug-in library to register in etc/hba.conf; default: the one built beside "
                        "this program, when present");
    run_cmd->add_option("command", o.command, "The command and its arguments (after --)")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }

    const bool running = run_cmd->parsed();
    try {
        return running ? run(o) : gen(o);
    } catch (const std::exception& e) {
        std::cerr << kProgram << ": " << e.what() << "\n";
        return running ? kOwnFailure : 1;
    }
}
