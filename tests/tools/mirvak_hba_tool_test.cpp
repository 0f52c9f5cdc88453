// mirvak-hba as its users run it: the built program, started on the
// simulated host by the built mirvak-simhost, with its standard output,
// standard error and exit status looked at. Plus the program's own helpers
// (WWN arguments, SCSI answer decoding, result-code texts) on their own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "codes.h"
#include "scsi_decode.h"
#include "wwn_arg.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A folder of its own for each test, removed afterwards.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = (fs::temp_directory_path() / "mirvak-hba-tool-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ec;
        if (!path_.empty()) fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// The environment of a started program: this one's, without the variables
// the simulated host sets itself, and with the sanitizer told that the
// preloaded redirector (built without it) may come first.
std::vector<std::string> child_environment() {
    std::vector<std::string> env;
    std::string asan = "ASAN_OPTIONS=verify_asan_link_order=0";
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string var = *e;
        if (var.rfind("MIRVAK_SIM_", 0) == 0 || var.rfind("LD_PRELOAD=", 0) == 0) continue;
        if (var.rfind("ASAN_OPTIONS=", 0) == 0) {
            asan = var + ":verify_asan_link_order=0";
            continue;
        }
        env.push_back(var);
    }
    env.push_back(asan);
    return env;
}

// Runs argv with standard output and standard error caught in files (or
// standard error on the descriptor given).
Result run_argv(const std::vector<std::string>& argv, const fs::path& scratch, int stderr_fd = -1,
                const std::vector<std::string>& env_override = {}) {
    Result r;
    const fs::path out = scratch / "stdout", err = scratch / "stderr";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (stderr_fd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stderr_fd, STDERR_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> env_text;
    for (const std::string& e : child_environment()) {
        bool replaced = false;
        for (const std::string& o : env_override)
            replaced = replaced || e.compare(0, o.find('=') + 1, o, 0, o.find('=') + 1) == 0;
        if (!replaced) env_text.push_back(e);
    }
    env_text.insert(env_text.end(), env_override.begin(), env_override.end());
    std::vector<char*> env;
    for (std::string& e : env_text) env.push_back(e.data());
    env.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), env.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        r.err = std::string("cannot start ") + args[0] + ": " + std::strerror(rc);
        return r;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = slurp(out);
    if (stderr_fd < 0) r.err = slurp(err);
    return r;
}

class HbaTool : public ::testing::Test {
protected:
    // mirvak-hba ARGS on the simulated host of `fabric` (the built-in
    // default when empty).
    Result Run(const std::vector<std::string>& args, const std::string& fabric = "",
               const std::vector<std::string>& env = {}) {
        std::vector<std::string> argv{MIRVAK_SIMHOST_PROGRAM, "run"};
        if (!fabric.empty()) {
            argv.push_back("--fabric");
            argv.push_back(fabric);
        }
        argv.push_back("--");
        argv.push_back(MIRVAK_HBA_PROGRAM);
        argv.insert(argv.end(), args.begin(), args.end());
        return run_argv(argv, dir_.path(), -1, env);
    }

    // The same, with --json, and the answer parsed.
    json RunJson(const std::vector<std::string>& args, const std::string& fabric = "") {
        std::vector<std::string> all{"--json"};
        all.insert(all.end(), args.begin(), args.end());
        const Result r = Run(all, fabric);
        EXPECT_EQ(r.status, 0) << r.err;
        try {
            return json::parse(r.out);
        } catch (const json::exception& e) {
            ADD_FAILURE() << "not JSON: " << e.what() << "\n" << r.out;
            return json();
        }
    }

    // The default fabric as a file of the test's own (the simulated driver
    // writes NPIV changes back into it).
    std::string FabricCopy() {
        const fs::path p = dir_.path() / "fabric.json";
        fs::copy_file(MIRVAK_DEFAULT_FABRIC, p, fs::copy_options::overwrite_existing);
        return p.string();
    }

    static json DefaultFabric() {
        return json::parse(slurp(MIRVAK_DEFAULT_FABRIC), nullptr, true, /*ignore_comments=*/true);
    }

    const fs::path& Dir() const { return dir_.path(); }

private:
    TempFolder dir_;
};

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// "2100001b9ea10000" -> "21:00:00:1b:9e:a1:00:00"
std::string colons(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i < hex.size(); i += 2) out += (i ? ":" : "") + hex.substr(i, 2);
    return out;
}

// The physical ports of a fabric adapter, by WWPN, in order (a stale entry
// beside a live one has the same WWPN).
std::vector<std::string> physical_wwpns(const json& adapter) {
    std::vector<std::string> out;
    for (const json& l : adapter["lnodes"]) {
        if (l.contains("parent")) continue;
        const std::string w = colons(lower(l["port_wwn"]));
        if (std::find(out.begin(), out.end(), w) == out.end()) out.push_back(w);
    }
    return out;
}

// ---- Listing, through the standard face and the facade ----

TEST_F(HbaTool, AdaptersJsonMatchesTheDefaultFabric) {
    const json fabric = DefaultFabric();
    const json answer = RunJson({"adapters"});
    ASSERT_TRUE(answer.contains("adapters"));
    const json& adapters = answer["adapters"];
    ASSERT_EQ(adapters.size(), fabric["adapters"].size());
    for (std::size_t i = 0; i < adapters.size(); ++i) {
        const json& f = fabric["adapters"][i];
        const json& a = adapters[i];
        EXPECT_EQ(a["name"], "/dev/tuskstor" + std::to_string(f["instance"].get<int>()));
        EXPECT_EQ(a["model"], f["hw"]["model"]);
        EXPECT_EQ(a["serial_number"], f["hw"]["serial_num"]);
        EXPECT_EQ(a["manufacturer"], f["hw"]["manufacturer"]);
        const std::vector<std::string> wwpns = physical_wwpns(f);
        ASSERT_EQ(a["number_of_ports"], f["hw"]["ports"].size());
        ASSERT_EQ(a["ports"].size(), wwpns.size());
        for (std::size_t p = 0; p < wwpns.size(); ++p) EXPECT_EQ(a["ports"][p]["port_wwn"], wwpns[p]) << p;
    }
}

TEST_F(HbaTool, AdapterInfoAndStatsJsonMatchTheDefaultFabric) {
    const json fabric = DefaultFabric();
    const json info = RunJson({"adapter-info"});
    ASSERT_EQ(info["adapters"].size(), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        const json& f = fabric["adapters"][i]["hw"];
        const json& a = info["adapters"][i];
        EXPECT_EQ(a["index"], i);
        EXPECT_EQ(a["model"], f["model"]);
        EXPECT_EQ(a["serial_number"], f["serial_num"]);
        EXPECT_EQ(a["hardware"]["text_246"], f["text_246"]);
        EXPECT_EQ(a["hardware"]["word_192"], f["word_192"]);
        EXPECT_EQ(a["number_of_ports"], f["ports"].size());
    }
    // By index and by name, the same adapter.
    const json by_index = RunJson({"adapter-stats", "1"});
    const json by_name = RunJson({"adapter-stats", "/dev/tuskstor4"});
    EXPECT_EQ(by_index, by_name);
    EXPECT_EQ(by_index["adapter"]["name"], "/dev/tuskstor4");
    EXPECT_EQ(by_index["adapter"]["model"], "MVF-4420");
}

TEST_F(HbaTool, PortsAndPortByWwpn) {
    const json fabric = DefaultFabric();
    const json ports = RunJson({"ports", "0"});
    ASSERT_EQ(ports["ports"].size(), 2u);
    std::set<std::string> seen;
    for (const json& p : ports["ports"]) seen.insert(p["port_wwn"].get<std::string>());
    const std::vector<std::string> wwpns = physical_wwpns(fabric["adapters"][0]);
    EXPECT_EQ(seen, std::set<std::string>(wwpns.begin(), wwpns.end()));

    const json one = RunJson({"port", "/dev/tuskstor1", "--wwpn", "2100001B9EA10001"});
    ASSERT_EQ(one["ports"].size(), 1u);
    EXPECT_EQ(one["ports"][0]["port_wwn"], "21:00:00:1b:9e:a1:00:01");
    EXPECT_EQ(one["ports"][0]["port_num"], 1);

    const json by_number = RunJson({"port", "0", "--port", "1"});
    ASSERT_EQ(by_number["ports"].size(), 1u);
    EXPECT_EQ(by_number["ports"][0]["port_wwn"], "21:00:00:1b:9e:a1:00:01");
}

TEST_F(HbaTool, PortStatisticsText) {
    const Result r = Run({"port-stats", "0", "--port", "0"});
    ASSERT_EQ(r.status, 0) << r.err;
    // The local node's words at 1417, 1421, 1429, 1433, 1409, 1413, 1425,
    // 1437 (adapter 1, node 1: 101000000 + 1000000 + offset).
    EXPECT_EQ(r.out,
              "/dev/tuskstor1 port 0 statistics\n"
              "  Tx frames / words:   1001000001641 / 1001000001633\n"
              "  Rx frames / words:   1001000001657 / 1001000001649\n"
              "  Counters 0-7:        101001417 101001421 101001429 101001433 101001409 101001413 101001425 "
              "101001437\n");
}

TEST_F(HbaTool, RemotePortsAreTheTargetsOfThePort) {
    const json fabric = DefaultFabric();
    std::set<std::string> targets;
    for (const json& rn : fabric["adapters"][0]["lnodes"][0]["rnodes"])
        if (lower(rn["role"]) == "target") targets.insert(colons(lower(rn["port_wwn"])));
    const json answer = RunJson({"rports", "0", "--port", "0"});
    std::set<std::string> seen;
    for (const json& p : answer["remote_ports"]) seen.insert(p["port_wwn"].get<std::string>());
    EXPECT_EQ(seen, targets);

    const Result text = Run({"rports", "0", "--wwpn", "21:00:00:1b:9e:a1:00:00"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("/dev/tuskstor1 port 21:00:00:1b:9e:a1:00:00, remote port 0\n"), std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("  Port WWN:            50:0a:09:80:00:a1:00:01\n"), std::string::npos) << text.out;
}

TEST_F(HbaTool, LunsText) {
    const Result r = Run({"luns", "0", "--wwpn", "2100001b9ea10000", "--rport-wwpn", "500a098000a10001"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* want : {"  Device:              /dev/sdb\n", "  H:C:T:L:             0:0:0:0\n",
                             "  Vendor:              KESTREL\n",
                             "  Size:                1073741824 bytes (2097152 sectors of 512 bytes)\n",
                             "/dev/tuskstor1 port 21:00:00:1b:9e:a1:00:00, remote port 50:0a:09:80:00:a1:00:01: "
                             "/dev/sdc\n"})
        EXPECT_NE(r.out.find(want), std::string::npos) << want << "\n" << r.out;
}

TEST_F(HbaTool, VirtualPortsAndTheirRemotePorts) {
    const json vports = RunJson({"vports", "0", "--port", "1"});
    ASSERT_EQ(vports["virtual_ports"].size(), 2u);
    EXPECT_EQ(vports["virtual_ports"][0]["port_wwn"], "28:01:00:1b:9e:a1:00:01");
    EXPECT_EQ(vports["virtual_ports"][1]["port_wwn"], "28:02:00:1b:9e:a1:00:01");

    const json rports = RunJson({"vport-rports", "0", "--vport-wwpn", "2802001b9ea10001"});
    std::set<std::string> seen;
    for (const json& p : rports["remote_ports"]) seen.insert(p["port_wwn"].get<std::string>());
    EXPECT_EQ(seen, (std::set<std::string>{"50:06:01:60:00:a1:03:01", "50:06:01:60:00:a1:03:02"}));

    const json luns = RunJson({"vport-luns", "0", "--vport-wwpn", "2802001b9ea10001", "--rport-wwpn",
                               "5006016000a10301"});
    EXPECT_EQ(luns["luns"].size(), 3u);
}

// ---- Failures ----

TEST_F(HbaTool, AFailedRequestNamesTheResultCode) {
    const Result r = Run({"ports", "/dev/tuskstor9"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("mirvak-hba: GetAllPortsInfo failed: 286 FCOE_ERR_ADAPTER_OPEN (cannot open adapter)\n"),
              std::string::npos)
        << r.err;

    const Result none = Run({"vports", "0", "--port", "0"});
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("GetVirPortForPort failed: 289 FCOE_ERR_NO_PORTS"), std::string::npos) << none.err;

    const Result missing = Run({"port", "0", "--wwpn", "2100001b9ea1ffff"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("GetPortInfo failed: 292 FCOE_ERR_PORT_NOT_FOUND (no port of the adapter has the "
                               "requested WWPN)"),
              std::string::npos)
        << missing.err;
}

TEST_F(HbaTool, NoAdaptersAtAll) {
    const fs::path empty = Dir() / "empty.json";
    std::ofstream(empty) << R"({"adapters": []})";
    const Result info = Run({"adapter-info"}, empty.string());
    EXPECT_EQ(info.status, 1);
    EXPECT_NE(info.err.find("mirvak-hba: GetFCoEAdapters failed: 285 FCOE_ERR_NO_ADAPTERS (no adapters)\n"),
              std::string::npos)
        << info.err;
    const Result snap = Run({"snapshot"}, empty.string());
    EXPECT_EQ(snap.status, 1);
    EXPECT_NE(snap.err.find("GetFCoEAll failed: no snapshot"), std::string::npos) << snap.err;
    const Result listed = Run({"--json", "adapters"}, empty.string());
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(json::parse(listed.out), json::parse(R"({"adapters": []})"));
    const Result text = Run({"adapters"}, empty.string());
    EXPECT_EQ(text.out, "No adapters found.\n");
}

TEST_F(HbaTool, APortNumberBeyondThePorts) {
    const Result r = Run({"port", "0", "--port", "5"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("mirvak-hba: /dev/tuskstor1 has 2 ports; there is no port 5\n"), std::string::npos) << r.err;
}

TEST_F(HbaTool, AnUnknownAdapterIndexIsRefused) {
    const Result r = Run({"ports", "7"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("there is no adapter 7 (adapters: 0 /dev/tuskstor1, 1 /dev/tuskstor4)"), std::string::npos)
        << r.err;
}

// The driver library reads its fabric at its first call. A fabric it
// cannot use makes it say so on standard error; a request stopped before
// any driver call leaves no such line.
TEST_F(HbaTool, AMalformedWwnIsRejectedBeforeAnyDriverCall) {
    const fs::path bad = Dir() / "bad.json";
    std::ofstream(bad) << R"({"adapters": [{"instance": 99}]})";
    auto run_with_bad_driver_fabric = [&](std::vector<std::string> args) {
        std::vector<std::string> argv{MIRVAK_SIMHOST_PROGRAM, "run", "--", "/usr/bin/env",
                                      "MIRVAK_SIM_FABRIC=" + bad.string(), MIRVAK_HBA_PROGRAM};
        argv.insert(argv.end(), args.begin(), args.end());
        return run_argv(argv, Dir());
    };
    const std::string kDriverComplains = "libtuskstor (simulated)";

    // The control: a well-formed request reaches the driver.
    const Result control = run_with_bad_driver_fabric({"port", "0", "--wwpn", "2100001b9ea10000"});
    EXPECT_NE(control.err.find(kDriverComplains), std::string::npos) << control.err;

    const std::vector<std::vector<std::string>> malformed = {
        {"port", "0", "--wwpn", "21:00:00:1b:9e:a1:00"},
        {"port", "0", "--wwpn", "2100001b9ea1000g"},
        {"port", "0", "--wwpn", "21-00-00-1b-9e-a1-00-00"},
        {"port", "0", "--wwpn", "0000001b9ea10000"},
        {"port", "0", "--wwpn", "2100:001b:9ea1:0000"},
        {"npiv", "create", "0", "--wwpn", "2803001b9ea1000", "--wwnn", "2903001b9ea10000"},
        {"luns", "0", "--wwpn", "2100001b9ea10000", "--rport-wwpn", "500a098000a1000100"},
        {"scsi", "inquiry", "0", "--target", "50:0a:09:80:00:a1:00:1", "--lun", "0"},
    };
    for (const auto& args : malformed) {
        const Result r = run_with_bad_driver_fabric(args);
        EXPECT_EQ(r.status, 2) << args.back() << "\n" << r.err;
        EXPECT_NE(r.err.find("is not a WWN"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find(kDriverComplains), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
    const Result first_byte = run_with_bad_driver_fabric({"port", "0", "--wwpn", "00:00:00:1b:9e:a1:00:00"});
    EXPECT_NE(first_byte.err.find("'00:00:00:1b:9e:a1:00:00' is not a WWN: a WWN whose first byte is 00 reads as no "
                                  "WWN at all to the library"),
              std::string::npos)
        << first_byte.err;
}

TEST_F(HbaTool, IncompleteSelectionsAreRefusedBeforeAnyDriverCall) {
    const Result r = Run({"luns", "0", "--port", "0"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("mirvak-hba: give either --port N --rport N, or --wwpn WWPN --rport-wwpn WWPN\n"),
              std::string::npos)
        << r.err;
    const Result mixed = Run({"port-stats", "0", "--port", "0", "--wwpn", "2100001b9ea10000"});
    EXPECT_EQ(mixed.status, 2) << mixed.err;
    const Result lun = Run({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "65536"});
    EXPECT_EQ(lun.status, 2) << lun.err;
    const Result page = Run({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "0", "--page", "0x100"});
    EXPECT_EQ(page.status, 2) << page.err;
}

// ---- NPIV, across processes ----

TEST_F(HbaTool, NpivCreateListDeleteAcrossProcesses) {
    const std::string fabric = FabricCopy();
    const std::string before = slurp(fabric);

    const Result created =
        Run({"npiv", "create", "0", "--port", "0", "--wwpn", "28:03:00:1b:9e:a1:00:00", "--wwnn", "2903001b9ea10000"},
            fabric);
    ASSERT_EQ(created.status, 0) << created.err;
    EXPECT_EQ(created.out,
              "Created virtual port 28:03:00:1b:9e:a1:00:00 (node 29:03:00:1b:9e:a1:00:00) on port 0 "
              "(21:00:00:1b:9e:a1:00:00) of /dev/tuskstor1.\n");
    EXPECT_NE(slurp(fabric).find("2803001b9ea10000"), std::string::npos);

    const json listed = RunJson({"vports", "0", "--port", "0"}, fabric);
    ASSERT_EQ(listed["virtual_ports"].size(), 1u);
    EXPECT_EQ(listed["virtual_ports"][0]["port_wwn"], "28:03:00:1b:9e:a1:00:00");
    EXPECT_EQ(listed["virtual_ports"][0]["node_wwn"], "29:03:00:1b:9e:a1:00:00");

    // The same WWPN again: the driver refuses, the facade says so.
    const Result again =
        Run({"npiv", "create", "0", "--wwpn", "2803001b9ea10000", "--wwnn", "2903001b9ea10000"}, fabric);
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("CreateNPIV failed: 299 FCOE_ERR_NPIV_FAILED"), std::string::npos) << again.err;

    const Result deleted = Run({"npiv", "delete", "/dev/tuskstor1", "--wwpn", "2803001b9ea10000"}, fabric);
    ASSERT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_EQ(deleted.out, "Deleted virtual port 28:03:00:1b:9e:a1:00:00 from /dev/tuskstor1.\n");
    EXPECT_EQ(slurp(fabric).find("2803001b9ea10000"), std::string::npos);

    const Result gone = Run({"vports", "0", "--port", "0"}, fabric);
    EXPECT_EQ(gone.status, 1);
    EXPECT_NE(gone.err.find("289 FCOE_ERR_NO_PORTS"), std::string::npos) << gone.err;
    (void)before;
}

TEST_F(HbaTool, RefusedNpivCreateOnAnAdapterThatMarksRefusals) {
    const std::string fabric = FabricCopy();
    // A WWPN that is already a local port: refused, and this adapter marks
    // its refusals.
    const Result r = Run({"npiv", "create", "1", "--wwpn", "2100001b9ea10000", "--wwnn", "2903001b9ea10000"}, fabric);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("CreateNPIV failed: 300 FCOE_ERR_NPIV_REFUSED (creating the virtual port was refused)"),
              std::string::npos)
        << r.err;
}

TEST_F(HbaTool, AMalformedNpivRequestLeavesTheFabricAlone) {
    const std::string fabric = FabricCopy();
    const std::string before = slurp(fabric);
    const Result r = Run({"npiv", "create", "0", "--wwpn", "28:03:00:1b:9e:a1:00:0", "--wwnn", "2903001b9ea10000"},
                         fabric);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(slurp(fabric), before);
}

// ---- The library's own lines ----

TEST_F(HbaTool, LibraryLinesGoToStandardErrorOrNowhere) {
    const std::vector<std::string> args{"--json", "luns", "0", "--port", "0", "--rport", "0"};
    const Result loud = Run(args);
    ASSERT_EQ(loud.status, 0) << loud.err;
    // The LUN walk prints a line per LUN; they are not in the answer.
    EXPECT_NE(loud.err.find("BTL info"), std::string::npos) << loud.err;
    EXPECT_EQ(loud.out.find("BTL info"), std::string::npos);
    EXPECT_TRUE(json::accept(loud.out)) << loud.out;

    std::vector<std::string> quiet_args{"--quiet"};
    quiet_args.insert(quiet_args.end(), args.begin(), args.end());
    const Result quiet = Run(quiet_args);
    ASSERT_EQ(quiet.status, 0) << quiet.err;
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, loud.out);

    // Options after the subcommand work the same.
    const Result after = Run({"luns", "0", "--port", "0", "--rport", "0", "--json", "-q"});
    EXPECT_EQ(after.out, loud.out);
    EXPECT_EQ(after.err, "");
}

// ---- FCP target mapping ----

TEST_F(HbaTool, MappingEntriesDescribeTheTargetsLuns) {
    const json answer = RunJson({"mapping", "0", "--port", "0"});
    ASSERT_EQ(answer["adapters"].size(), 1u);
    const json& port = answer["adapters"][0]["ports"].at(0);
    EXPECT_EQ(port["port_wwn"], "21:00:00:1b:9e:a1:00:00");
    ASSERT_EQ(port["status"], 0) << port.dump(2);
    const std::set<std::string> targets{"50:0a:09:80:00:a1:00:01", "50:0a:09:80:00:a1:00:02",
                                        "50:0a:09:80:00:a1:00:03"};
    ASSERT_FALSE(port["entries"].empty());
    EXPECT_GE(port["number_of_entries"].get<std::size_t>(), port["entries"].size());
    for (const json& e : port["entries"]) {
        EXPECT_EQ(e["device"].get<std::string>().rfind("/dev/sd", 0), 0u) << e;
        EXPECT_TRUE(targets.count(e["target_port_wwn"].get<std::string>())) << e;
        EXPECT_EQ(e["target_node_wwn"], "50:0a:09:80:00:a1:00:00");
        // H:C:T:L as the host has it, and the FCP LUN its L shifted by 48.
        unsigned h = 0, c = 0, t = 0, l = 0;
        ASSERT_EQ(std::sscanf(e["hctl"].get<std::string>().c_str(), "%u:%u:%u:%u", &h, &c, &t, &l), 4) << e;
        EXPECT_EQ(h, e["scsi_bus"].get<unsigned>());
        EXPECT_EQ(t, e["scsi_target"].get<unsigned>());
        EXPECT_EQ(l, e["scsi_lun"].get<unsigned>());
        char fcp[24];
        std::snprintf(fcp, sizeof fcp, "0x%016llx", static_cast<unsigned long long>(l) << 48);
        EXPECT_EQ(e["fcp_lun"], fcp);
    }

    const Result text = Run({"mapping", "/dev/tuskstor1", "--wwpn", "2100001b9ea10000"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out.rfind("/dev/tuskstor1 port 0 (21:00:00:1b:9e:a1:00:00)\n", 0), 0u) << text.out;
    EXPECT_NE(text.out.find("    H:C:T:L:             "), std::string::npos);
    EXPECT_NE(text.out.find("    LUID:                "), std::string::npos);
}

TEST_F(HbaTool, MappingOfEveryAdapter) {
    const json answer = RunJson({"mapping"});
    ASSERT_EQ(answer["adapters"].size(), 2u);
    EXPECT_EQ(answer["adapters"][0]["ports"].size(), 2u);
    EXPECT_EQ(answer["adapters"][1]["ports"].size(), 3u);
}

// ---- SCSI commands ----

TEST_F(HbaTool, InquiryDecodesTheStandardData) {
    const json answer = RunJson({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2"});
    EXPECT_EQ(answer["status"], 0);
    EXPECT_EQ(answer["device"], "/dev/sdd");
    EXPECT_EQ(answer["port_wwn"], "21:00:00:1b:9e:a1:00:00");
    EXPECT_EQ(answer["inquiry"]["vendor"], "KESTREL");
    EXPECT_EQ(answer["inquiry"]["product"], "KX-2000");
    EXPECT_EQ(answer["inquiry"]["revision"], "0001");
    EXPECT_EQ(answer["inquiry"]["device_type"], 0);

    const Result text = Run({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2"});
    EXPECT_NE(text.out.find("  Vendor:              KESTREL\n  Product:             KX-2000\n"
                            "  Revision:            0001\n"),
              std::string::npos)
        << text.out;
}

TEST_F(HbaTool, InquiryVitalProductDataPages) {
    const json pages = RunJson({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2", "--page", "0"});
    EXPECT_EQ(pages["vpd"]["page"], 0);
    EXPECT_EQ(pages["vpd"]["supported_pages"], json::array({0x00, 0x80, 0x83}));

    const json serial =
        RunJson({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2", "--page", "0x80"});
    EXPECT_EQ(serial["vpd"]["page"], 0x80);
    EXPECT_FALSE(serial["vpd"]["serial_number"].get<std::string>().empty());

    const json ident =
        RunJson({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2", "--page", "131"});
    EXPECT_EQ(ident["vpd"]["page"], 0x83);
    ASSERT_FALSE(ident["vpd"]["designators"].empty());
    EXPECT_EQ(ident["vpd"]["designators"][0]["type_name"], "NAA");
}

TEST_F(HbaTool, AnUnsupportedPageShowsTheSenseData) {
    const Result r = Run({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "2", "--page", "0x99"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("INQUIRY to /dev/sdd ended in CHECK CONDITION; sense key 0x05 ILLEGAL REQUEST, ASC/ASCQ "
                         "0x24/0x00 INVALID FIELD IN CDB (sense data 70 00 05"),
              std::string::npos)
        << r.err;
}

TEST_F(HbaTool, ACommandTheLibraryWouldSendElsewhereIsNotSent) {
    // LUN 0 of the first target: the library looks a LUN up by port and
    // number alone, and a later target of the port also has a LUN 0.
    const Result r = Run({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "0"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("INQUIRY not sent: the library addresses a LUN by its local port and LUN number alone"),
              std::string::npos)
        << r.err;
    const Result no_lun = Run({"scsi", "inquiry", "0", "--target", "500a098000a10001", "--lun", "9"});
    EXPECT_EQ(no_lun.status, 1);
    EXPECT_NE(no_lun.err.find("target 50:0a:09:80:00:a1:00:01 has no LUN 9 (its LUNs: "), std::string::npos)
        << no_lun.err;
    const Result stranger = Run({"scsi", "report-luns", "0", "--target", "5006016000a1ffff"});
    EXPECT_EQ(stranger.status, 1);
    EXPECT_NE(stranger.err.find("target 50:06:01:60:00:a1:ff:ff is not among the remote ports"), std::string::npos)
        << stranger.err;
}

TEST_F(HbaTool, ReportLunsAndReadCapacityOfThePortsFirstLun) {
    const json report = RunJson({"scsi", "report-luns", "0", "--target", "500a098000a10001"});
    EXPECT_EQ(report["report_luns"]["lun_count"], 3);
    std::set<unsigned> luns;
    for (const json& l : report["report_luns"]["luns"]) luns.insert(l["lun"].get<unsigned>());
    EXPECT_EQ(luns, (std::set<unsigned>{0, 1, 2}));

    // READ CAPACITY goes to the first LUN the host lists behind the port.
    const json listed = RunJson({"luns", "0", "--port", "0", "--rport", "0"});
    ASSERT_FALSE(listed["luns"].empty());
    const json& first = listed["luns"][0];
    unsigned h = 0, c = 0, t = 0, l = 0;
    ASSERT_EQ(std::sscanf(first["hctl"].get<std::string>().c_str(), "%u:%u:%u:%u", &h, &c, &t, &l), 4);
    const json cap =
        RunJson({"scsi", "read-capacity", "0", "--target", "500a098000a10001", "--lun", std::to_string(l)});
    EXPECT_EQ(cap["status"], 0);
    EXPECT_EQ(cap["device"], first["device"]);
    // The library keeps the answer to itself; the host's size is shown.
    EXPECT_EQ(cap["data_returned"], false);
    EXPECT_EQ(cap["host_size_sectors"], first["size"]);
}

// ---- The overview and the picture ----

// Without a subcommand: the whole system as a tree, one line a thing.
TEST_F(HbaTool, TheDefaultIsTheOverviewTree) {
    const std::string overview =
        "2 adapters, 5 ports, 4 virtual ports, 9 remote ports, 20 LUNs\n"
        "Adapter 0  /dev/tuskstor1  Mirvak MVF-2210  serial MVA1K4C00117  firmware 2.3.10.17  node 01:02:03:04:05:06:07:08  2 ports\n"
        "  Port 0  21:00:00:1b:9e:a1:00:00  online     speed unknown  VLAN 101  FCF 33  host0\n"
        "    Remote port 0  50:0a:09:80:00:a1:00:01  online     target  3 LUNs\n"
        "      LUN 0:0:0:2    /dev/sdd  KESTREL   4.0 GiB\n"
        "      LUN 0:0:0:0    /dev/sdb  KESTREL   1.0 GiB\n"
        "      LUN 0:0:0:1    /dev/sdc  KESTREL   2.0 GiB\n"
        "    Remote port 1  50:0a:09:80:00:a1:00:02  offline    2 LUNs\n"
        "      LUN 0:0:1:1    /dev/sdf  KESTREL   8.0 GiB\n"
        "      LUN 0:0:1:0    /dev/sde  KESTREL   512.0 MiB\n"
        "    Remote port 2  (vanished: listed without WWN)  2 LUNs\n"
        "      LUN 0:0:2:0    /dev/sdg  KESTREL   1.5 GiB\n"
        "      LUN 0:0:2:3    /dev/sdh  KESTREL   3.0 GiB\n"
        "  Port 1  21:00:00:1b:9e:a1:00:01  online     10 Gbit/s  VLAN 102  FCF 34  host1\n"
        "    Virtual port 0  28:01:00:1b:9e:a1:00:01  online     10 Gbit/s  VLAN 102  FCF 34  host1\n"
        "      Remote port 0  50:06:01:60:00:a1:02:01  online     target  2 LUNs\n"
        "        LUN 2:0:0:0    /dev/sdk  NORDVIK   10.0 EiB\n"
        "        LUN 2:0:0:1    /dev/sdl  NORDVIK   10.0 EiB\n"
        "    Virtual port 1  28:02:00:1b:9e:a1:00:01  online     10 Gbit/s  VLAN 102  FCF 34  host1\n"
        "      Remote port 0  50:06:01:60:00:a1:03:01  online     target  3 LUNs\n"
        "        LUN 3:0:0:2    /dev/sdo  NORDVIK   10.0 EiB\n"
        "        LUN 3:0:0:0    /dev/sdm  NORDVIK   10.0 EiB\n"
        "        LUN 3:0:0:1    /dev/sdn  NORDVIK   10.0 EiB\n"
        "      Remote port 1  50:06:01:60:00:a1:03:02  online     target  2 LUNs\n"
        "        LUN 3:0:1:0    /dev/sdp  NORDVIK   10.0 EiB\n"
        "        LUN 3:0:1:1    /dev/sdq  NORDVIK   10.0 EiB\n"
        "Adapter 1  /dev/tuskstor4  Mirvak MVF-4420  serial MVB2M7D00342  firmware 1.4.2.12  node 01:02:03:04:05:06:07:08  3 ports\n"
        "  Port 0  21:00:00:1b:9e:b4:00:00  online     1, 2, 8 Gbit/s  VLAN 201  FCF 7  host4\n"
        "    Remote port 0  50:0b:34:00:00:b4:00:01  online     target  2 LUNs\n"
        "      LUN 4:0:0:0    /dev/sdr  TALLOWAY  15.0 GiB\n"
        "      LUN 4:0:0:1    /dev/sds  TALLOWAY  768.0 MiB\n"
        "    Remote port 1  50:0b:34:00:00:b4:00:02  online     target  2 LUNs\n"
        "      LUN 4:0:1:0    /dev/sdt  TALLOWAY  20.0 GiB\n"
        "      LUN 4:0:1:1    /dev/sdu  TALLOWAY  1.8 GiB\n"
        "    Virtual port 0  28:01:00:1b:9e:b4:00:00  online     1, 2, 8 Gbit/s  VLAN 201  FCF 7  host4\n"
        "      Remote port 0  50:0b:34:00:00:b4:02:01  online     target  2 LUNs\n"
        "        LUN 6:0:0:0    /dev/sdw  TALLOWAY  10.0 EiB\n"
        "        LUN 6:0:0:1    /dev/sdx  TALLOWAY  10.0 EiB\n"
        "    Virtual port 1  28:02:00:1b:9e:b4:00:00  offline    1, 2, 8 Gbit/s  VLAN 201  FCF 7  host4\n"
        "  Port 1  21:00:00:1b:9e:b4:00:01  offline    speed unknown  VLAN 0  FCF 9  port error  host5\n"
        "  Port 2  21:00:00:1b:9e:b4:00:02  link down  speed unknown  VLAN 0  FCF 0\n";
    const Result r = Run({});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Snapshot: 57056 bytes\n" + overview);
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 42);
    EXPECT_EQ(Run({"snapshot"}).out, r.out);

    // A saved snapshot decodes to the same tree.
    const fs::path raw = Dir() / "snapshot.bin";
    ASSERT_EQ(Run({"snapshot", "--raw", raw.string()}).status, 0);
    const Result decoded = run_argv({MIRVAK_HBA_PROGRAM, "decode", raw.string()}, Dir());
    ASSERT_EQ(decoded.status, 0) << decoded.err;
    EXPECT_EQ(decoded.out, "Snapshot: 57056 bytes, read from " + raw.string() + "\n" + overview);
}

// Every field of every record, the coded ones with their words beside them.
TEST_F(HbaTool, FieldsShowEveryFieldOfEveryRecord) {
    const Result r = Run({"snapshot", "--fields"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1011);
    for (const char* want : {"Snapshot: 57056 bytes\nadapter_count: 2\nadapter_records: 2\nsize: 57056\nAdapter 0:\n",
                             "\n    speed: 19\n    speed_name: 1, 2, 8 Gbit/s\n    state: 2\n    state_name: online\n"
                             "    supported_speed: 4\n    supported_speed_name: 10 Gbit/s\n",
                             "\n    classes_of_service: 3\n    classes_of_service_name: class F, class 1\n",
                             "\n    type: 0\n    type_name: not given\n",
                             "\n  hardware:\n    block_336: ",
                             // Words without a meaning are apart from the named ones, by offset.
                             "\n    raw:\n      word_148: 101000148\n      word_5: 101000005\n    statistics:\n",
                             "\n      raw:\n        byte_12: 17\n        word_4: 101010004\n      statistics:\n",
                             "\n        size: 2097152\n        size_name: 1.0 GiB\n        vendor: KESTREL\n"})
        EXPECT_NE(r.out.find(want), std::string::npos) << want;
    EXPECT_EQ(Run({"snapshot", "--verbose"}).out, r.out);
}

TEST_F(HbaTool, TopologyDrawsEveryPortAndDevice) {
    const json tree = RunJson({"snapshot"})["snapshot"];
    std::set<std::string> wwns, devices;
    std::function<void(const json&)> walk = [&](const json& j) {
        if (j.is_object()) {
            if (j.contains("port_wwn") && j["port_wwn"] != "00:00:00:00:00:00:00:00") wwns.insert(j["port_wwn"]);
            if (j.contains("hctl")) devices.insert(j["device"]);
        }
        if (j.is_structured())
            for (const json& c : j) walk(c);
    };
    walk(tree);
    ASSERT_EQ(wwns.size(), 17u);  // 5 ports, 4 virtual ports, 8 remote ports (a ninth vanished)
    ASSERT_EQ(devices.size(), 20u);

    const Result svg = Run({"topology", "--format", "svg"});
    ASSERT_EQ(svg.status, 0) << svg.err;
    EXPECT_EQ(svg.out.rfind("<?xml", 0), 0u) << svg.out.substr(0, 200);
    EXPECT_NE(svg.out.find("</svg>"), std::string::npos);
    for (const std::string& w : wwns) EXPECT_NE(svg.out.find(w), std::string::npos) << w;
    for (const std::string& d : devices) EXPECT_NE(svg.out.find(d + "<"), std::string::npos) << d;
    // The vanished remote port and the offline ports are marked.
    EXPECT_NE(svg.out.find("vanished (no WWN)"), std::string::npos);
    EXPECT_NE(svg.out.find("stroke-dasharray"), std::string::npos);

    const Result dot = Run({"topology"});
    ASSERT_EQ(dot.status, 0) << dot.err;
    EXPECT_EQ(dot.out.rfind("digraph mirvak_hba {\n", 0), 0u) << dot.out.substr(0, 200);

    // Without Graphviz's dot, SVG is refused with the way to get it.
    const Result none = Run({"topology", "--format", "svg"}, "", {"PATH=" + (Dir() / "empty").string()});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_NE(none.err.find("mirvak-hba: drawing SVG needs Graphviz's dot, which is not on PATH (Debian package "
                            "graphviz: apt install graphviz)"),
              std::string::npos)
        << none.err;
    EXPECT_EQ(Run({"topology", "--format", "png"}).status, 2);
}

// Progress goes to standard error only when that is a terminal.
TEST_F(HbaTool, NoProgressWhenStandardErrorIsNoTerminal) {
    const Result mapping = Run({"--quiet", "mapping"});
    EXPECT_EQ(mapping.status, 0);
    EXPECT_EQ(mapping.err, "");
    const Result snapshot = Run({"--quiet", "snapshot"});
    EXPECT_EQ(snapshot.status, 0);
    EXPECT_EQ(snapshot.err, "");
}

// ---- Snapshots ----

TEST_F(HbaTool, SnapshotSavedAndDecodedAgain) {
    const fs::path raw = Dir() / "snapshot.bin";
    const json taken = RunJson({"snapshot", "--raw", raw.string()});
    ASSERT_TRUE(taken.contains("snapshot"));
    EXPECT_EQ(taken["snapshot"]["adapter_count"], 2);
    EXPECT_EQ(taken["raw_file"], raw.string());
    EXPECT_EQ(fs::file_size(raw), taken["bytes"].get<std::size_t>());

    // Decoding needs no simulated host and no library.
    const Result decoded = run_argv({MIRVAK_HBA_PROGRAM, "--json", "decode", raw.string()}, Dir());
    ASSERT_EQ(decoded.status, 0) << decoded.err;
    const json again = json::parse(decoded.out);
    EXPECT_EQ(again["snapshot"], taken["snapshot"]);
    EXPECT_EQ(again["file"], raw.string());

    const Result text = run_argv({MIRVAK_HBA_PROGRAM, "decode", raw.string()}, Dir());
    EXPECT_EQ(text.out.rfind("Snapshot: " + std::to_string(fs::file_size(raw)) + " bytes, read from " + raw.string() +
                                 "\n",
                             0),
              0u)
        << text.out;
    // No terminal, no progress line.
    const Result plain = Run({"snapshot"});
    EXPECT_EQ(plain.err.find("gathering the snapshot"), std::string::npos);
}

// A port with more than 35 targets and a virtual port makes the library
// pause 5 seconds while it gathers the snapshot.
TEST_F(HbaTool, ALongSnapshotShowsProgressOnATerminal) {
    json rnodes = json::array();
    for (int i = 0; i < 36; ++i) {
        char wwpn[17];
        std::snprintf(wwpn, sizeof wwpn, "50000000000001%02x", i);
        rnodes.push_back(json{{"port_wwn", wwpn}, {"node_wwn", "5000000000000100"}});
    }
    const json fabric{
        {"adapters",
         {{{"instance", 0},
           {"hw", {{"ports", {{{"speed", 8}}}}}},
           {"lnodes",
            {{{"port_num", 0}, {"port_wwn", "2100000000000001"}, {"lnode_id", 1}, {"rnodes", rnodes}},
             {{"port_num", 0}, {"port_wwn", "2801000000000001"}, {"lnode_id", 2}, {"parent", "2100000000000001"}}}}}}}};
    const fs::path file = Dir() / "slow.json";
    std::ofstream(file) << fabric.dump();

    int master = -1, terminal = -1;
    ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0) << std::strerror(errno);
    const Result r = run_argv({MIRVAK_SIMHOST_PROGRAM, "run", "--fabric", file.string(), "--", MIRVAK_HBA_PROGRAM,
                               "--quiet", "snapshot"},
                              Dir(), terminal);
    close(terminal);
    std::string shown;
    char buf[256];
    ssize_t n = 0;
    while ((n = read(master, buf, sizeof buf)) > 0) shown.append(buf, static_cast<std::size_t>(n));
    close(master);

    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Snapshot: ", 0), 0u) << r.out;
    EXPECT_EQ(shown.rfind("\rmirvak-hba: gathering the snapshot... 1 s\rmirvak-hba: gathering the snapshot... 2 s", 0),
              0u)
        << shown;
    // The line is cleared when the snapshot is there.
    ASSERT_GE(shown.size(), 4u);
    EXPECT_EQ(shown.substr(shown.size() - 4), "\r\033[K");
}

TEST_F(HbaTool, ATruncatedSnapshotIsReportedWithItsOffset) {
    const fs::path raw = Dir() / "snapshot.bin";
    ASSERT_EQ(Run({"snapshot", "--raw", raw.string()}).status, 0);
    fs::resize_file(raw, 1000);
    const Result r = run_argv({MIRVAK_HBA_PROGRAM, "decode", raw.string()}, Dir());
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("mirvak-hba: cannot decode the snapshot (1000 bytes) at byte 4: "), std::string::npos)
        << r.err;
    const Result missing = run_argv({MIRVAK_HBA_PROGRAM, "decode", (Dir() / "none.bin").string()}, Dir());
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("cannot read "), std::string::npos) << missing.err;
}

// ---- The program's helpers ----

using mv::tool::parse_wwn;

TEST(WwnArgument, AcceptsSixteenDigitsWithOrWithoutColons) {
    const mv::tool::Wwn want{0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x0f};
    EXPECT_EQ(parse_wwn("2100001b9ea1000f"), want);
    EXPECT_EQ(parse_wwn("2100001B9EA1000F"), want);
    EXPECT_EQ(parse_wwn("21:00:00:1b:9e:a1:00:0f"), want);
    EXPECT_EQ(mv::tool::wwn_text(want), "21:00:00:1b:9e:a1:00:0f");
}

TEST(WwnArgument, RefusesEverythingElse) {
    for (const char* bad : {"", "2100001b9ea100", "2100001b9ea1000f0", "21:00:00:1b:9e:a1:00", "21:00:00:1b:9e:a1:00:0",
                            "21:00:00:1b:9e:a1:00:0f:", "21-00-00-1b-9e-a1-00-0f", "2100:001b:9ea1:000f",
                            "0x2100001b9ea100", "2100001b9ea1000g", " 2100001b9ea100f", "21:00:00:1b:9e:a1:00:0g"}) {
        std::string why;
        EXPECT_FALSE(parse_wwn(bad, &why)) << bad;
        EXPECT_NE(why.find("expected 16 hex digits"), std::string::npos) << bad;
    }
    std::string why;
    EXPECT_FALSE(parse_wwn("0000001b9ea1000f", &why));
    EXPECT_NE(why.find("first byte is 00"), std::string::npos);
}

TEST(ResultCodes, EveryFacadeCodeHasANameAndAMeaning) {
    EXPECT_EQ(mv::tool::describe_facade_code(285), "285 FCOE_ERR_NO_ADAPTERS (no adapters)");
    EXPECT_EQ(mv::tool::describe_facade_code(286), "286 FCOE_ERR_ADAPTER_OPEN (cannot open adapter)");
    for (int code : {0, 1, 2, 6, 285, 286, 287, 289, 290, 291, 292, 293, 294, 295, 296, 297, 298, 299, 300}) {
        EXPECT_FALSE(mv::tool::facade_code_name(code).empty()) << code;
        EXPECT_NE(mv::tool::facade_code_meaning(code), "unknown result code") << code;
    }
    EXPECT_EQ(mv::tool::describe_facade_code(-1), "-1 (the library could not allocate its list of virtual ports)");
    EXPECT_EQ(mv::tool::describe_facade_code(288), "288 (unknown result code)");
    EXPECT_EQ(mv::tool::describe_hba_status(14),
              "14 HBA_STATUS_ERROR_INVALID_LUN (the LUN's device cannot be opened)");
    EXPECT_EQ(mv::tool::describe_hba_status(0xFFFFFFFFu).rfind("-1 (", 0), 0u);
}

TEST(ScsiDecode, StandardInquiry) {
    uint8_t d[96] = {};
    d[0] = 0x00;
    d[2] = 0x06;
    d[3] = 0x02;
    d[4] = 91;
    std::memcpy(d + 8, "VENDOR  ", 8);
    std::memcpy(d + 16, "PRODUCT NAME    ", 16);
    std::memcpy(d + 32, "1.2 ", 4);
    const json j = mv::tool::decode_inquiry(d, sizeof d);
    EXPECT_EQ(j["vendor"], "VENDOR");
    EXPECT_EQ(j["product"], "PRODUCT NAME");
    EXPECT_EQ(j["revision"], "1.2");
    EXPECT_EQ(j["version"], 6);
    EXPECT_FALSE(j.contains("truncated"));
    const json short_one = mv::tool::decode_inquiry(d, 20);
    EXPECT_EQ(short_one["vendor"], "VENDOR");
    EXPECT_EQ(short_one["product"], "PROD");
    EXPECT_EQ(short_one["revision"], "");
    EXPECT_EQ(short_one["truncated"], true);
}

// Found by fuzzing (fuzz/README.md): an INQUIRY that answered no bytes at
// all decodes to a truncated answer without texts, which printed by reading
// keys that were not there.
TEST(ScsiDecode, EmptyInquiryAnswerPrintsEmptyTexts) {
    const json j = mv::tool::decode_inquiry(nullptr, 0);
    EXPECT_EQ(j, (json{{"length", 0}, {"truncated", true}}));
    char* text = nullptr;
    std::size_t len = 0;
    std::FILE* out = open_memstream(&text, &len);
    ASSERT_NE(out, nullptr);
    mv::tool::print_inquiry(out, j, 2);
    std::fclose(out);
    EXPECT_EQ(std::string(text, len),
              "  Vendor:              \n"
              "  Product:             \n"
              "  Revision:            \n"
              "  Note:                answer truncated\n");
    std::free(text);
}

TEST(ScsiDecode, VitalProductDataPages) {
    const uint8_t pages[] = {0x00, 0x00, 0x00, 0x03, 0x00, 0x80, 0x83};
    EXPECT_EQ(mv::tool::decode_vpd(pages, sizeof pages)["supported_pages"], json::array({0, 0x80, 0x83}));
    const uint8_t serial[] = {0x00, 0x80, 0x00, 0x06, 'S', 'N', '4', '2', ' ', ' '};
    EXPECT_EQ(mv::tool::decode_vpd(serial, sizeof serial)["serial_number"], "SN42");
    // Two designators: NAA (binary) and a T10 vendor id (ASCII), then one
    // that claims more bytes than there are.
    const uint8_t ident[] = {0x00, 0x83, 0x00, 0x1c,                                       //
                             0x01, 0x03, 0x00, 0x08, 0x60, 1, 2, 3, 4, 5, 6, 7,            //
                             0x02, 0x01, 0x00, 0x04, 'M', 'I', 'R', 'V',                    //
                             0x01, 0x13, 0x00, 0x08, 0xaa, 0xbb};
    const json j = mv::tool::decode_vpd(ident, sizeof ident);
    ASSERT_EQ(j["designators"].size(), 3u);
    EXPECT_EQ(j["designators"][0]["type_name"], "NAA");
    EXPECT_EQ(j["designators"][0]["association_name"], "logical unit");
    EXPECT_EQ(j["designators"][0]["id_hex"], "60 01 02 03 04 05 06 07");
    EXPECT_EQ(j["designators"][1]["id_text"], "MIRV");
    EXPECT_EQ(j["designators"][2]["association_name"], "target port");
    EXPECT_EQ(j["designators"][2]["id_hex"], "aa bb");
    EXPECT_EQ(j["designators"][2]["truncated"], true);
    EXPECT_EQ(j["truncated"], true);  // the page claims 28 bytes, 26 are there
}

TEST(ScsiDecode, ReportLuns) {
    uint8_t d[8 + 3 * 8] = {};
    d[3] = 32;  // four LUNs listed, three transferred
    d[8 + 8 + 1] = 1;
    d[8 + 16] = 0x40;  // flat space addressing: 0x4000 | 0x0105
    d[8 + 16 + 1] = 0x05;
    const json j = mv::tool::decode_report_luns(d, sizeof d);
    EXPECT_EQ(j["list_length"], 32);
    EXPECT_EQ(j["lun_count"], 4);
    ASSERT_EQ(j["luns"].size(), 3u);
    EXPECT_EQ(j["luns"][0]["lun"], 0);
    EXPECT_EQ(j["luns"][1]["lun"], 1);
    EXPECT_EQ(j["luns"][2]["lun"], 0x4005);
    EXPECT_EQ(j["luns"][1]["hex"], "00 01 00 00 00 00 00 00");
    EXPECT_EQ(j["truncated"], true);
}

TEST(ScsiDecode, ReadCapacity16IsBigEndian) {
    uint8_t d[32] = {};
    d[4] = 0x00;
    d[5] = 0x1f;
    d[6] = 0xff;
    d[7] = 0xff;  // last LBA 0x1fffff
    d[10] = 0x10;  // 4096-byte blocks
    const json j = mv::tool::decode_read_capacity16(d, sizeof d);
    EXPECT_EQ(j["last_lba"], 0x1fffffu);
    EXPECT_EQ(j["block_length"], 4096u);
    EXPECT_EQ(j["blocks"], 0x200000u);
    EXPECT_EQ(j["capacity_bytes"], 0x200000ull * 4096);
    EXPECT_EQ(mv::tool::decode_read_capacity16(d, 11)["truncated"], true);
}

TEST(ScsiDecode, Sense) {
    uint8_t fixed[32] = {0x70, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x20, 0x00};
    const auto f = mv::tool::decode_sense(fixed, sizeof fixed);
    ASSERT_TRUE(f);
    EXPECT_EQ((*f)["sense_key_name"], "ILLEGAL REQUEST");
    EXPECT_EQ((*f)["asc"], 0x20);
    EXPECT_EQ((*f)["asc_name"], "INVALID COMMAND OPERATION CODE");
    EXPECT_EQ((*f)["hex"], "70 00 05 00 00 00 00 0a 00 00 00 00 20 00 00 00 00 00");  // 8 + additional length
    const uint8_t desc[8] = {0x72, 0x06, 0x29, 0x00, 0, 0, 0, 0};
    const auto d = mv::tool::decode_sense(desc, sizeof desc);
    ASSERT_TRUE(d);
    EXPECT_EQ((*d)["format"], "descriptor");
    EXPECT_EQ((*d)["sense_key_name"], "UNIT ATTENTION");
    EXPECT_EQ((*d)["asc"], 0x29);
    const uint8_t none[32] = {};
    EXPECT_FALSE(mv::tool::decode_sense(none, sizeof none));
    uint8_t pattern[32];
    std::memset(pattern, 0xa5, sizeof pattern);
    EXPECT_FALSE(mv::tool::decode_sense(pattern, sizeof pattern));
}

}  // namespace

// ---- Metrics, for the node exporter's textfile collector ----

namespace {

TEST_F(HbaTool, MetricsPrintsTheExpositionAndOutputReplacesTheFile) {
    const Result printed = Run({"-q", "metrics"});
    EXPECT_EQ(printed.status, 0) << printed.err;
    EXPECT_NE(printed.out.find("\nmirvak_exporter_adapters 2\n"), std::string::npos) << printed.out;
    EXPECT_NE(printed.out.find("mirvak_port_info{adapter=\"/dev/tuskstor1\",port=\"0\",wwpn=\"0x2100001b9ea10000\","
                               "fc_host=\"host0\""),
              std::string::npos);
    // The library's own lines stay out of the exposition.
    EXPECT_EQ(printed.out.find("BTL info"), std::string::npos);

    const fs::path file = Dir() / "textfile" / "mirvak.prom";
    fs::create_directories(file.parent_path());
    {
        std::ofstream old(file);
        old << "# an older exposition\n";
    }
    const Result written = Run({"-q", "metrics", "--output", file.string(), "--no-collector.luns"});
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out, "");
    const std::string text = slurp(file);
    EXPECT_NE(text.find("\nmirvak_exporter_adapters 2\n"), std::string::npos);
    EXPECT_EQ(text.find("mirvak_lun_"), std::string::npos);
    // Only the file itself is left in the folder.
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), fs::directory_iterator()), 1);

    // A folder that cannot be written leaves the file as it was.
    const Result refused = Run({"-q", "metrics", "--output", (Dir() / "missing" / "mirvak.prom").string()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("cannot create a temporary file beside"), std::string::npos) << refused.err;
}

}  // namespace
