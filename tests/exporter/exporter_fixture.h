// What the exporter's tests share: files in and out, a bcrypt hash, and a
// fixture on the simulated host's default fabric whose servers listen on
// 127.0.0.1 on a port chosen free at run time.
#ifndef MIRVAK_TESTS_EXPORTER_FIXTURE_H
#define MIRVAK_TESTS_EXPORTER_FIXTURE_H

#include <gtest/gtest.h>

#include <crypt.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "run_command.h"
#include "server.h"
#include "sim_env.h"
#include "tusksim.h"

namespace exporter_test {

inline std::string slurp(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void write_file(const std::string& p, const std::string& text) {
    std::ofstream out(p, std::ios::binary);
    out << text;
}

// A bcrypt hash of the password at the lowest cost (4).
inline std::string bcrypt_hash(const char* password) {
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    EXPECT_NE(crypt_gensalt_rn("$2b$", 4, nullptr, 0, salt, sizeof salt), nullptr);
    crypt_data data{};
    const char* h = crypt_r(password, salt, &data);
    return h != nullptr ? h : "";
}

class ExporterFixture : public testenv::SimTest {
protected:
    void SetUp() override {
        testenv::SimTest::SetUp();
        UseDefaultFabric();
        tusksim_clear_faults();
        tusksim_reset_counts();
    }
    void TearDown() override {
        tusksim_clear_faults();
        testenv::SimTest::TearDown();
    }

    // A folder of the test's own under the simulated host's root.
    std::string folder() {
        std::string p = root() + "/exporter-test";
        mkdir(p.c_str(), 0700);
        return p;
    }

    // Options for a server on 127.0.0.1 and a free port, every scrape a
    // fresh reading.
    static mv::exporter::ServerOptions Options() {
        mv::exporter::ServerOptions o;
        o.listen_address = "127.0.0.1:" + std::to_string(testenv::FreePort());
        o.min_interval = std::chrono::milliseconds(0);
        return o;
    }

    static int PortOf(const mv::exporter::ServerOptions& o) {
        return std::atoi(o.listen_address.c_str() + o.listen_address.rfind(':') + 1);
    }
};

}  // namespace exporter_test

#endif
