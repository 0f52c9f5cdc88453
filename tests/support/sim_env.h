// Test fixtures: install a fabric in the simulated driver library and write
// its host view (sysfs tree, hba.conf) into a private folder that the path
// redirector, linked into every test program, maps the system paths onto.
#ifndef MIRVAK_TESTS_SIM_ENV_H
#define MIRVAK_TESTS_SIM_ENV_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testenv {

class SimTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Replace the fabric with this description (JSON text); fails the test
    // when the description is refused.
    void UseFabric(const std::string& json);
    void UseDefaultFabric();

    // Have the simulated host's /etc/hba.conf register this plug-in (takes
    // effect with the next UseFabric).
    void RegisterPlugin(const std::string& path) { plugin_path_ = path; }

    // Where the simulated host lives for this test.
    const std::string& root() const { return root_; }

private:
    void WriteHost(const std::string& json, const std::string& source);
    std::string root_;
    std::string plugin_path_;
};

// Run fn and return what it printed on standard output.
std::string CaptureOut(const std::function<void()>& fn);
// Run fn and return what it printed on standard error.
std::string CaptureErr(const std::function<void()>& fn);

// Fill n bytes at p with a pattern byte, so that tests can see which bytes a
// function wrote and which it left alone.
void Fill(void* p, std::size_t n, uint8_t pattern = 0xA5);
// True when every byte in [p, p + n) still holds the pattern.
bool Untouched(const void* p, std::size_t n, uint8_t pattern = 0xA5);

// Driver calls since the last reset, by operation name.
uint64_t Calls(const char* op);
void ResetCalls();

// Remove a folder tree.
void RemoveTree(const std::string& path);

}  // namespace testenv

#endif
