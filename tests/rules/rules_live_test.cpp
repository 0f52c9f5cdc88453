// The shipped rules in a real Prometheus that scrapes the built exporter on
// the simulated host's default fabric: the alerts that the fabric's offline
// and link-down ports and remote ports call for are pending in ALERTS,
// nothing else is, and the per-host counts are the fabric's. Both servers
// listen on 127.0.0.1 at ports chosen free at run time, every wait is
// bounded, and both are stopped by their process ids.
#include <gtest/gtest.h>

#include <sys/types.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "fabric.h"
#include "run_command.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr int kWaitSeconds = 90;  // bound on waiting for Prometheus's answers

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}


class RulesInPrometheus : public ::testing::Test {
protected:
    void TearDown() override {
        testenv::StopProcess(prometheus_);
        testenv::StopProcess(exporter_);
    }

    // The result of an instant query; empty when there is none (yet).
    nlohmann::json Query(const std::string& promql) {
        std::string q;
        for (const unsigned char c : promql) {
            char esc[4];
            std::snprintf(esc, sizeof esc, "%%%02X", c);
            q += std::isalnum(c) ? std::string(1, static_cast<char>(c)) : std::string(esc);
        }
        const testenv::HttpAnswer a = testenv::HttpGet(prom_port_, "/api/v1/query?query=" + q, "", 5);
        const nlohmann::json j = nlohmann::json::parse(a.body, nullptr, false);
        return j.is_object() && j.value("status", "") == "success" ? j["data"]["result"] : nlohmann::json::array();
    }

    sim::TempDir dir_{"mirvak-rules-live"};
    pid_t exporter_ = -1, prometheus_ = -1;
    int prom_port_ = -1;
};

// "alertname alertstate object" for every series of ALERTS.
std::set<std::string> Alerts(const nlohmann::json& result) {
    std::set<std::string> out;
    for (const nlohmann::json& s : result) {
        const nlohmann::json& m = s["metric"];
        std::string object = m.value("adapter", "");
        for (const char* key : {"wwpn", "vport_wwpn", "rport_wwpn"})
            if (m.contains(key)) object += " " + m[key].get<std::string>();
        out.insert(m.value("alertname", "") + " " + m.value("alertstate", "") + " " + object);
    }
    return out;
}

TEST_F(RulesInPrometheus, DefaultFabricsDownPortsArePendingAndCountsAreItsOwn) {
    const std::string root = dir_.path() + "/host";
    sim::generate_host(sim::parse_fabric_text(sim::default_fabric_text(), "<default>"), root);
    const int exporter_port = testenv::FreePort();
    ASSERT_GT(exporter_port, 0);
    // As mirvak-simhost runs a command; in a sanitizer build the sanitizer
    // is told that the preloaded redirector (built without it) comes first.
    const char* asan = std::getenv("ASAN_OPTIONS");
    exporter_ = testenv::StartProcess(
        {MIRVAK_EXPORTER_PROGRAM, "--web.listen-address=127.0.0.1:" + std::to_string(exporter_port)},
        dir_.path() + "/exporter.log",
        {"MIRVAK_SIM_ROOT=" + root, std::string("LD_PRELOAD=") + MIRVAK_SIM_PRELOAD,
         "LD_LIBRARY_PATH=" + fs::path(MIRVAK_SIM_DRIVER).parent_path().string(),
         "ASAN_OPTIONS=" + std::string(asan != nullptr && asan[0] != '\0' ? std::string(asan) + ":" : "") +
             "verify_asan_link_order=0"});
    ASSERT_GT(exporter_, 0);

    prom_port_ = testenv::FreePort();
    ASSERT_GT(prom_port_, 0);
    std::ofstream(dir_.path() + "/prometheus.yml")
        << "global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\n  evaluation_interval: 1s\n"
           "rule_files:\n  - " MIRVAK_ALERT_RULES "\n  - " MIRVAK_RECORDING_RULES "\n"
           "scrape_configs:\n  - job_name: mirvak-hba\n    static_configs:\n      - targets: ['127.0.0.1:"
        << exporter_port << "']\n";
    prometheus_ = testenv::StartProcess({"prometheus", "--config.file=" + dir_.path() + "/prometheus.yml",
                                        "--storage.tsdb.path=" + dir_.path() + "/data",
                                        "--web.listen-address=127.0.0.1:" + std::to_string(prom_port_),
                                        "--log.level=warn"},
                                       dir_.path() + "/prometheus.log");
    ASSERT_GT(prometheus_, 0);

    // The fabric's own: ports 1 (offline) and 2 (link down) of instance 4,
    // its offline virtual port, and the remote ports not online (offline,
    // link down, and the one listed without WWNs).
    const std::set<std::string> expected = {
        "MirvakHbaPortDown pending /dev/tuskstor4 0x2100001b9eb40001",
        "MirvakHbaPortDown pending /dev/tuskstor4 0x2100001b9eb40002",
        "MirvakHbaVirtualPortDown pending /dev/tuskstor4 0x2100001b9eb40000 0x2802001b9eb40000",
        "MirvakHbaRemotePortLost pending /dev/tuskstor1 0x2100001b9ea10000 0x500a098000a10002",
        "MirvakHbaRemotePortLost pending /dev/tuskstor1 0x2100001b9ea10000 0x0000000000000000",
        "MirvakHbaRemotePortLost pending /dev/tuskstor1 0x2100001b9ea10001 0x5006016000a10102",
        "MirvakHbaRemotePortLost pending /dev/tuskstor4 0x2100001b9eb40001 0x500b340000b40101",
    };
    std::set<std::string> got;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kWaitSeconds);
    while (got != expected && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        got = Alerts(Query("ALERTS"));
    }
    EXPECT_EQ(got, expected) << slurp(dir_.path() + "/exporter.log") << slurp(dir_.path() + "/prometheus.log");

    // The counts of the host: 2 adapters, 3 of 5 ports, 3 of 4 virtual
    // ports and 8 of 12 remote ports online.
    const std::string instance = "127.0.0.1:" + std::to_string(exporter_port);
    for (const auto& [record, value] : std::vector<std::pair<std::string, std::string>>{
             {"instance:mirvak_adapters_up:count", "2"},
             {"instance:mirvak_ports:count", "5"},
             {"instance:mirvak_ports_online:count", "3"},
             {"instance:mirvak_vports:count", "4"},
             {"instance:mirvak_vports_online:count", "3"},
             {"instance:mirvak_rports:count", "12"},
             {"instance:mirvak_rports_online:count", "8"}}) {
        // Recording rules are a group of their own, evaluated on their own
        // schedule: until this one has been.
        nlohmann::json r = Query(record);
        while (r.empty() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            r = Query(record);
        }
        ASSERT_EQ(r.size(), 1u) << record;
        EXPECT_EQ(r[0]["metric"].value("instance", ""), instance) << record;
        EXPECT_EQ(r[0]["value"][1].get<std::string>(), value) << record;
    }
}

}  // namespace
