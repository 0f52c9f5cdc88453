#include "sim_env.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "sim/fabric.h"
#include "sim/host/redirect.h"
#include "sim/host/sysfs_gen.h"
#include "sim/tusksim.h"

namespace testenv {

void SimTest::SetUp() {
    char tmpl[] = "/tmp/mirvak-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    setenv(sim::kRootEnv, root_.c_str(), 1);
    tusksim_clear_faults();
    ResetCalls();
    mirvak_simsg_reset();  // SG_IO requests recorded by the simulated device nodes
}

void SimTest::TearDown() {
    unsetenv(sim::kRootEnv);
    tusksim_clear_faults();
    tusksim_load_default();
    if (!root_.empty()) RemoveTree(root_);
}

void SimTest::UseFabric(const std::string& json) {
    char err[512] = {};
    ASSERT_EQ(tusksim_load_text(json.c_str(), "test-fabric", err, sizeof err), 0) << err;
    WriteHost(json, "test-fabric");
    ResetCalls();
}

void SimTest::UseDefaultFabric() {
    ASSERT_EQ(tusksim_load_default(), 0);
    WriteHost(sim::default_fabric_text(), "<default>");
    ResetCalls();
}

void SimTest::WriteHost(const std::string& json, const std::string& source) {
    try {
        sim::HostOptions options;
        options.plugin_path = plugin_path_;
        sim::generate_host(sim::parse_fabric_text(json, source), root_, options);
    } catch (const std::exception& e) {
        FAIL() << e.what();
    }
}

namespace {
std::string Capture(bool out, const std::function<void()>& fn) {
    std::fflush(nullptr);
    if (out) ::testing::internal::CaptureStdout(); else ::testing::internal::CaptureStderr();
    fn();
    std::fflush(nullptr);
    return out ? ::testing::internal::GetCapturedStdout() : ::testing::internal::GetCapturedStderr();
}
}  // namespace

std::string CaptureOut(const std::function<void()>& fn) { return Capture(true, fn); }
std::string CaptureErr(const std::function<void()>& fn) { return Capture(false, fn); }

void Fill(void* p, std::size_t n, uint8_t pattern) { std::memset(p, pattern, n); }

bool Untouched(const void* p, std::size_t n, uint8_t pattern) {
    const auto* b = static_cast<const uint8_t*>(p);
    for (std::size_t i = 0; i < n; ++i) {
        if (b[i] != pattern) return false;
    }
    return true;
}

uint64_t Calls(const char* op) { return tusksim_call_count(op); }
void ResetCalls() { tusksim_reset_counts(); }

void RemoveTree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

}  // namespace testenv
