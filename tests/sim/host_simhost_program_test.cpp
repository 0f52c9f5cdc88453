// mirvak-simhost, run as a separate program from beside this test program:
// "gen" writes the same tree as sim::generate_host, "run" preloads the
// redirector into a command and passes its exit status on.
#include <gtest/gtest.h>


#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "fabric.h"
#include "run_command.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

// The program built beside this test program; empty when it is not there.
std::string program() {
    const fs::path p = fs::read_symlink("/proc/self/exe").parent_path() / "mirvak-simhost";
    return fs::exists(p) ? p.string() : std::string();
}

using testenv::ShellQuoted;

// The program with these arguments; its standard output and standard
// error together.
testenv::CommandResult run(const std::string& args) {
    return testenv::RunShell(ShellQuoted(program()) + " " + args + " 2>&1");
}

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Relative path -> contents ("/" for directories) of everything below dir.
std::map<std::string, std::string> snapshot(const fs::path& dir) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(dir))
        out[fs::relative(e.path(), dir).string()] = e.is_directory() ? "/" : slurp(e.path());
    return out;
}

sim::Fabric default_fabric() { return sim::parse_fabric_text(sim::default_fabric_text(), "<default>"); }

class HostProgram : public ::testing::Test {
protected:
    void SetUp() override {
        if (program().empty()) GTEST_SKIP() << "mirvak-simhost is not built";
    }
    sim::TempDir dir{"mirvak-host-program"};
    fs::path root = fs::path(dir.path()) / "root";
};

TEST_F(HostProgram, GenWritesTheDefaultFabricsTree) {
    const testenv::CommandResult r = run("gen --root " + ShellQuoted(root.string()) + " --plugin /opt/x/libplug.so");
    ASSERT_EQ(r.status, 0) << r.out;

    const fs::path expected = fs::path(dir.path()) / "expected";
    sim::HostOptions opt;
    opt.plugin_path = "/opt/x/libplug.so";
    sim::generate_host(default_fabric(), expected.string(), opt);
    EXPECT_EQ(snapshot(root), snapshot(expected));
    EXPECT_NE(slurp(root / "etc/hba.conf").find("com.mirvak.fcoe\t/opt/x/libplug.so\n"), std::string::npos);
}

TEST_F(HostProgram, GenReadsAFabricFile) {
    sim::Fabric f;
    f.adapters.emplace_back();
    sim::LocalNode ln;
    ln.port_wwn = {0x20, 0, 0, 0x07, 0x43, 0, 0x1a, 0x2b};
    ln.scsi_host = 7;
    f.adapters.back().lnodes.push_back(ln);
    const fs::path file = fs::path(dir.path()) / "fabric.json";
    std::ofstream(file) << sim::fabric_to_json(f).dump(2);

    const testenv::CommandResult r = run("gen --root " + ShellQuoted(root.string()) + " --fabric " + ShellQuoted(file.string()));
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(slurp(root / "sys/class/fc_host/host7/port_name"), "0x2000000743001a2b\n");
}

TEST_F(HostProgram, UnreadableFabricIsReported) {
    const std::string missing = (fs::path(dir.path()) / "missing.json").string();
    std::string message;
    try {
        sim::load_fabric_file(missing);
    } catch (const sim::FabricError& e) {
        message = e.what();
    }
    ASSERT_FALSE(message.empty());

    testenv::CommandResult r = run("gen --root " + ShellQuoted(root.string()) + " --fabric " + ShellQuoted(missing));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(message), std::string::npos) << r.out;

    r = run("run --fabric " + ShellQuoted(missing) + " -- /bin/true");
    EXPECT_EQ(r.status, 125);
    EXPECT_NE(r.out.find(message), std::string::npos) << r.out;
}

TEST_F(HostProgram, BadUsageFails) {
    EXPECT_NE(run("").status, 0);
    EXPECT_NE(run("gen").status, 0);
    EXPECT_NE(run("run --root " + ShellQuoted(root.string())).status, 0);
    EXPECT_NE(run("frobnicate").status, 0);
}

TEST_F(HostProgram, RunRedirectsTheCommand) {
    const auto hosts = sim::assign_hosts(default_fabric());
    ASSERT_FALSE(hosts.empty());
    const std::string port_name = "/sys/class/fc_host/host" + std::to_string(hosts.front().host) + "/port_name";

    const testenv::CommandResult r = run("run --root " + ShellQuoted(root.string()) + " --plugin /opt/x/libplug.so -- /bin/cat " +
                         port_name + " /etc/hba.conf");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, slurp(root.string() + port_name) + slurp(root / "etc/hba.conf"));
}

TEST_F(HostProgram, RunSetsTheEnvironment) {
    const fs::path file = fs::path(dir.path()) / "fabric.json";
    std::ofstream(file) << sim::fabric_to_json(default_fabric()).dump(2);

    const testenv::CommandResult r = run("run --root " + ShellQuoted(root.string()) + " --fabric " + ShellQuoted(file.string()) +
                         " -- /bin/sh -c 'echo \"$MIRVAK_SIM_ROOT|$MIRVAK_SIM_FABRIC|$LD_PRELOAD\"'");
    ASSERT_EQ(r.status, 0) << r.out;
    const fs::path bin = fs::path(program()).parent_path();
    fs::path preload = bin.parent_path() / "lib" / "libmirvaksimhost.so";
    if (!fs::exists(preload)) preload = bin / "libmirvaksimhost.so";
    EXPECT_EQ(r.out, root.lexically_normal().string() + "|" + file.lexically_normal().string() + "|" +
                            preload.lexically_normal().string() + "\n");
}

TEST_F(HostProgram, RunPassesTheExitStatusOn) {
    EXPECT_EQ(run("run -- /bin/sh -c 'exit 7'").status, 7);
    EXPECT_EQ(run("run -- /bin/true").status, 0);
    EXPECT_EQ(run("run -- /nonexistent/command").status, 127);
}

TEST_F(HostProgram, RunWithoutRootRemovesItsFolder) {
    const testenv::CommandResult r = run("run -- /bin/sh -c 'echo \"$MIRVAK_SIM_ROOT\"; test -d \"$MIRVAK_SIM_ROOT/sys/class/fc_host\"'");
    ASSERT_EQ(r.status, 0) << r.out;
    ASSERT_GT(r.out.size(), 1u);
    const std::string used = r.out.substr(0, r.out.find('\n'));
    EXPECT_FALSE(used.empty());
    EXPECT_FALSE(fs::exists(used)) << used;
}

}  // namespace
