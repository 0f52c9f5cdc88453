// The redirector on the calls that tools walking the kernel's views make:
// readlink, realpath, scandir and chdir on the simulated /sys. The tree's
// links are relative, so they resolve inside the root; realpath answers
// without the root in front.
#include <gtest/gtest.h>

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>

#include "sim_env.h"

namespace {

constexpr const char* kFabric = R"({"adapters":[{"instance":2,"lnodes":[{"port_wwn":"2100000000000a01",
  "rnodes":[{"port_wwn":"5000000000000e01","luns":[{"lun":0,"block":"sdb"},{"lun":1,"block":"sdc"}]}]}]}]})";

class HostRedirectLinks : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        UseFabric(kFabric);
    }
};

TEST_F(HostRedirectLinks, ReadlinkGivesTheRelativeLinkText) {
    char buf[PATH_MAX] = {};
    const ssize_t n = readlink("/sys/block/sdb", buf, sizeof buf - 1);
    ASSERT_GT(n, 0) << std::strerror(errno);
    EXPECT_EQ(std::string(buf, static_cast<std::size_t>(n)),
              "../class/fc_host/host0/device/rport-0:0-0/target0:0:0/0:0:0:0/block/sdb");
}

// The text is followed by a NUL where the buffer has room; the byte count
// stays the text's. A buffer just as long as the text gets no NUL.
TEST_F(HostRedirectLinks, ReadlinkEndsARedirectedLinksTextWhereThereIsRoom) {
    const std::string text = "../../../0000:12:00.0";
    char buf[64];
    std::memset(buf, 'x', sizeof buf);
    const ssize_t n = readlink("/sys/class/net/enp18s0f0/device", buf, sizeof buf);
    ASSERT_EQ(n, static_cast<ssize_t>(text.size())) << std::strerror(errno);
    EXPECT_EQ(std::string(buf), text);
    EXPECT_EQ(buf[n + 1], 'x');

    std::memset(buf, 'x', sizeof buf);
    ASSERT_EQ(readlink("/sys/class/net/enp18s0f0/device", buf, text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(std::string(buf, text.size()), text);
    EXPECT_EQ(buf[text.size()], 'x');
}

TEST_F(HostRedirectLinks, RealpathResolvesInsideTheRootAndAnswersASystemPath) {
    char buf[PATH_MAX] = {};
    ASSERT_NE(realpath("/sys/bus/scsi/devices/0:0:0:1", buf), nullptr) << std::strerror(errno);
    EXPECT_STREQ(buf, "/sys/class/fc_host/host0/device/rport-0:0-0/target0:0:0/0:0:0:1");
    char* own = realpath("/sys/devices/pci0000:00/0000:12:00.0/host0/fc_host/host0", nullptr);
    ASSERT_NE(own, nullptr);
    EXPECT_STREQ(own, "/sys/class/fc_host/host0");
    free(own);
    char* canon = canonicalize_file_name("/sys/class/scsi_host/host0");
    ASSERT_NE(canon, nullptr);
    EXPECT_STREQ(canon, "/sys/class/fc_host/host0/device/scsi_host/host0");
    free(canon);
}

TEST_F(HostRedirectLinks, ScandirAndChdirSeeTheGeneratedViews) {
    dirent** list = nullptr;
    const int n = scandir("/sys/class/block", &list, nullptr, alphasort);
    ASSERT_EQ(n, 4) << std::strerror(errno);  // ".", "..", sdb, sdc
    std::set<std::string> names;
    for (int i = 0; i < n; ++i) {
        names.insert(list[i]->d_name);
        free(list[i]);
    }
    free(list);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "sdb", "sdc"}));

    char before[PATH_MAX] = {};
    ASSERT_NE(getcwd(before, sizeof before), nullptr);
    ASSERT_EQ(chdir("/sys/bus/scsi/devices/0:0:0:0"), 0) << std::strerror(errno);
    EXPECT_EQ(access("vendor", F_OK), 0);
    ASSERT_EQ(chdir(before), 0);
}

}  // namespace
