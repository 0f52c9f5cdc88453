// mirvak-simhost, run as a separate program from beside this test program:
// "gen" writes the same tree as sim::generate_host, "run" preloads the
// redirector into a command and passes its exit status on.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "fabric.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

struct Result {
    int status = -1;
    std::string output;  // standard output and standard error
};

// The program built beside this test program; empty when it is not there.
std::string program() {
    const fs::path p = fs::read_symlink("/proc/self/exe").parent_path() / "mirvak-simhost";
    return fs::exists(p) ? p.string() : std::string();
}

std::string quoted(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

Result run(const std::string& args) {
    Result r;
    const std::string cmd = quoted(program()) + " " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return r;
    char buf[512];
    std::size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
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
    const Result r = run("gen --root " + quoted(root.string()) + " --plugin /opt/x/libplug.so");
    ASSERT_EQ(r.status, 0) << r.output;

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

    const Result r = run("gen --root " + quoted(root.string()) + " --fabric " + quoted(file.string()));
    ASSERT_EQ(r.status, 0) << r.output;
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

    Result r = run("gen --root " + quoted(root.string()) + " --fabric " + quoted(missing));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find(message), std::string::npos) << r.output;

    r = run("run --fabric " + quoted(missing) + " -- /bin/true");
    EXPECT_EQ(r.status, 125);
    EXPECT_NE(r.output.find(message), std::string::npos) << r.output;
}

TEST_F(HostProgram, BadUsageFails) {
    EXPECT_NE(run("").status, 0);
    EXPECT_NE(run("gen").status, 0);
    EXPECT_NE(run("run --root " + quoted(root.string())).status, 0);
    EXPECT_NE(run("frobnicate").status, 0);
}

TEST_F(HostProgram, RunRedirectsTheCommand) {
    const auto hosts = sim::assign_hosts(default_fabric());
    ASSERT_FALSE(hosts.empty());
    const std::string port_name = "/sys/class/fc_host/host" + std::to_string(hosts.front().host) + "/port_name";

    const Result r = run("run --root " + quoted(root.string()) + " --plugin /opt/x/libplug.so -- /bin/cat " +
                         port_name + " /etc/hba.conf");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output, slurp(root.string() + port_name) + slurp(root / "etc/hba.conf"));
}

TEST_F(HostProgram, RunSetsTheEnvironment) {
    const fs::path file = fs::path(dir.path()) / "fabric.json";
    std::ofstream(file) << sim::fabric_to_json(default_fabric()).dump(2);

    const Result r = run("run --root " + quoted(root.string()) + " --fabric " + quoted(file.string()) +
                         " -- /bin/sh -c 'echo \"$MIRVAK_SIM_ROOT|$MIRVAK_SIM_FABRIC|$LD_PRELOAD\"'");
    ASSERT_EQ(r.status, 0) << r.output;
    const fs::path bin = fs::path(program()).parent_path();
    fs::path preload = bin.parent_path() / "lib" / "libmirvaksimhost.so";
    if (!fs::exists(preload)) preload = bin / "libmirvaksimhost.so";
    EXPECT_EQ(r.output, root.lexically_normal().string() + "|" + file.lexically_normal().string() + "|" +
                            preload.lexically_normal().string() + "\n");
}

TEST_F(HostProgram, RunPassesTheExitStatusOn) {
    EXPECT_EQ(run("run -- /bin/sh -c 'exit 7'").status, 7);
    EXPECT_EQ(run("run -- /bin/true").status, 0);
    EXPECT_EQ(run("run -- /nonexistent/command").status, 127);
}

TEST_F(HostProgram, RunWithoutRootRemovesItsFolder) {
    const Result r = run("run -- /bin/sh -c 'echo \"$MIRVAK_SIM_ROOT\"; test -d \"$MIRVAK_SIM_ROOT/sys/class/fc_host\"'");
    ASSERT_EQ(r.status, 0) << r.output;
    ASSERT_GT(r.output.size(), 1u);
    const std::string used = r.output.substr(0, r.output.find('\n'));
    EXPECT_FALSE(used.empty());
    EXPECT_FALSE(fs::exists(used)) << used;
}

}  // namespace
