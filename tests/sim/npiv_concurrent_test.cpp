// NPIV create and delete from several processes at once on one description
// file and one simulated host: no change is lost. Each process changes the
// file under its lock, from the file as it is then, so every surviving
// virtual port is in the description, in the driver's list and in the host.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fabric.h"
#include "mirvak/driver_records.h"
#include "mirvak/tuskstor.h"
#include "sim_env.h"
#include "tusksim.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kFabric = R"({"adapters":[{"instance":2,"hw":{"ports":[{}]},
  "lnodes":[{"port_wwn":"2100000000000a01","node_wwn":"2000000000000a01","lnode_id":1,"fcid":"0x010a01"}],
  "npiv_template":[{"port_wwn":"5000000000000e01","luns":[{"lun":0,"block":"sdb"}]}]}]})";

constexpr int kWriters = 4;        // processes changing the file at once
constexpr int kPortsEach = 3;      // each creates this many and deletes its second
constexpr int kDeadlineSeconds = 60;

sim::Wwn W(uint64_t v) {
    sim::Wwn w;
    for (int i = 7; i >= 0; --i, v >>= 8) w[static_cast<std::size_t>(i)] = static_cast<uint8_t>(v & 0xFF);
    return w;
}

npiv_req Request(uint64_t vport, uint64_t physical) {
    npiv_req r{};
    std::memcpy(r.wwn_0, W(vport).data(), 8);
    std::memcpy(r.wwn_8, W(vport ^ 0x0100000000000000ull).data(), 8);
    std::memcpy(r.wwn_16, W(physical).data(), 8);
    return r;
}

uint64_t Vport(int writer, int k) { return 0x2800000000000000ull | (static_cast<uint64_t>(writer) << 8) | k; }

// What one writer process does; its exit status counts the failed calls.
int Writer(int writer) {
    const uint32_t h = open_adapter(2);
    if (h == TUSK_INVALID_HANDLE) return 100;
    int failed = 0;
    for (int k = 0; k < kPortsEach; ++k) {
        npiv_req r = Request(Vport(writer, k), 0x2100000000000a01ull);
        if (tusk_create_npiv_port(h, &r) != 0) ++failed;
    }
    npiv_req d = Request(Vport(writer, 1), 0);
    if (tusk_delete_npiv_port(h, &d) != 0) ++failed;
    close_adapter(h);
    return failed;
}

class NpivConcurrentTest : public testenv::SimTest {};

TEST_F(NpivConcurrentTest, ConcurrentCreatorsAndDeletersLoseNoChange) {
    UseFabric(kFabric);
    const std::string path = root() + "/fabric.json";
    std::ofstream(path) << kFabric;
    char err[256] = {};
    ASSERT_EQ(tusksim_load_file(path.c_str(), err, sizeof err), 0) << err;

    std::vector<pid_t> pids;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(Writer(w));
        pids.push_back(pid);
    }
    // Bounded: a writer still running at the deadline is stopped.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kDeadlineSeconds);
    std::vector<int> status(pids.size(), -1);
    for (std::size_t i = 0; i < pids.size(); ++i) {
        int st = 0;
        while (waitpid(pids[i], &st, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > until) {
                kill(pids[i], SIGKILL);
                waitpid(pids[i], &st, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        status[i] = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    for (std::size_t i = 0; i < status.size(); ++i) EXPECT_EQ(status[i], 0) << "writer " << i;

    std::set<std::string> expected = {"2100000000000a01"};
    for (int w = 0; w < kWriters; ++w) {
        expected.insert(sim::wwn_to_hex(W(Vport(w, 0))));
        expected.insert(sim::wwn_to_hex(W(Vport(w, 2))));
    }

    // The description.
    std::set<std::string> described;
    const sim::Fabric written = sim::load_fabric_file(path);
    for (const sim::LocalNode& ln : written.adapters.at(0).lnodes)
        described.insert(sim::wwn_to_hex(ln.port_wwn));
    EXPECT_EQ(described, expected);

    // The driver, loading the file afresh.
    ASSERT_EQ(tusksim_load_file(path.c_str(), err, sizeof err), 0) << err;
    const uint32_t h = open_adapter(2);
    ASSERT_NE(h, TUSK_INVALID_HANDLE);
    std::set<std::string> chain;
    lnode_info node;
    uint64_t cursor = 0;
    for (int guard = 0; guard < 64; ++guard) {
        std::memset(&node, 0, sizeof node);
        ASSERT_EQ(tusk_get_lnode_info(h, &node, cursor), 0);
        if (node.lnode_handle == 0) break;
        sim::Wwn w;
        std::memcpy(w.data(), node.port_wwn, 8);
        chain.insert(sim::wwn_to_hex(w));
        cursor = node.lnode_handle;
    }
    close_adapter(h);
    EXPECT_EQ(chain, expected);

    // The host: one fc_host per port, each with its own port name.
    std::set<std::string> hosts;
    for (const auto& e : fs::directory_iterator(root() + "/sys/class/fc_host")) {
        std::ifstream in(e.path() / "port_name");
        std::string name;
        in >> name;
        hosts.insert(name.substr(2));
    }
    EXPECT_EQ(hosts, expected);
}

}  // namespace
