// What the simulated host counts and caches for benchmarks: the calls whose
// path the redirector mapped (files, directories, other look-ups), and the
// device index that is read again only when its stamp changes.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "redirect.h"
#include "sim_env.h"

namespace {

namespace fs = std::filesystem;

const char* kFabric = R"({"adapters":[{"instance":0,"lnodes":[{"port_wwn":"2100000000000a01",
  "rnodes":[{"port_wwn":"5000000000000001","luns":[{"lun":0,"block":"mvsimq0"}]}]}]}]})";

struct Counts {
    std::size_t files, dirs, lookups;
    bool operator==(const Counts& o) const { return files == o.files && dirs == o.dirs && lookups == o.lookups; }
};

std::ostream& operator<<(std::ostream& os, const Counts& c) {
    return os << "{files " << c.files << ", dirs " << c.dirs << ", lookups " << c.lookups << "}";
}

Counts Now() {
    return {mirvak_sim_redirected_files(), mirvak_sim_redirected_dirs(), mirvak_sim_redirected_lookups()};
}

std::string Read(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class RedirectCountsTest : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        UseFabric(kFabric);
        mirvak_sim_reset_redirected();
    }
    // Opens the device node; true when the simulated host answered it.
    bool OpensDevice() {
        const std::size_t before = mirvak_simsg_opens();
        const int fd = open("/dev/mvsimq0", O_RDONLY);
        if (fd >= 0) close(fd);
        return mirvak_simsg_opens() == before + 1;
    }
};

// ---- Counting

TEST_F(RedirectCountsTest, StartsFromZeroAfterAReset) {
    const int fd = open("/sys/class/fc_host/host0/port_name", O_RDONLY);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(Now(), (Counts{1, 0, 0}));
    mirvak_sim_reset_redirected();
    EXPECT_EQ(Now(), (Counts{0, 0, 0}));
}

TEST_F(RedirectCountsTest, EveryOpenFormCountsAsAFile) {
    const char* p = "/sys/class/fc_host/host0/port_name";
    for (int fd : {open(p, O_RDONLY), open64(p, O_RDONLY), openat(AT_FDCWD, p, O_RDONLY),
                   openat64(AT_FDCWD, p, O_RDONLY)}) {
        EXPECT_GE(fd, 0);
        close(fd);
    }
    std::FILE* f = std::fopen(p, "r");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    f = fopen64(p, "r");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    EXPECT_EQ(Now(), (Counts{6, 0, 0}));
}

TEST_F(RedirectCountsTest, FilesThatAreNotThereCountToo) {
    EXPECT_LT(open("/sys/class/fc_host/host9/port_name", O_RDONLY), 0);
    EXPECT_EQ(std::fopen("/sys/class/fc_host/nothing", "r"), nullptr);
    EXPECT_EQ(opendir("/sys/class/fc_host/host9"), nullptr);
    EXPECT_EQ(Now(), (Counts{2, 1, 0}));
}

TEST_F(RedirectCountsTest, DirectoriesAndLookupsAreCountedApart) {
    DIR* d = opendir("/sys/class/fc_host");
    ASSERT_NE(d, nullptr);
    closedir(d);
    struct stat st {};
    EXPECT_EQ(stat("/sys/class/fc_host/host0", &st), 0);
    EXPECT_EQ(lstat("/sys/class/fc_host/host0", &st), 0);
    EXPECT_EQ(access("/sys/class/fc_host/host0/port_name", F_OK), 0);
    EXPECT_EQ(Now(), (Counts{0, 1, 3}));
}

TEST_F(RedirectCountsTest, PathsThatAreNotRedirectedAreNotCounted) {
    const int fd = open((root() + "/sys/class/fc_host/host0/port_name").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    close(fd);
    DIR* d = opendir(root().c_str());
    ASSERT_NE(d, nullptr);
    closedir(d);
    EXPECT_TRUE(OpensDevice());  // a simulated device node is counted by the device side only
    EXPECT_EQ(Now(), (Counts{0, 0, 0}));
}

TEST_F(RedirectCountsTest, WithoutARootNothingIsCounted) {
    unsetenv("MIRVAK_SIM_ROOT");
    const int fd = open("/sys/class/fc_host/host0/port_name", O_RDONLY);
    if (fd >= 0) close(fd);
    EXPECT_EQ(Now(), (Counts{0, 0, 0}));
}

// ---- The device index and its stamp

TEST_F(RedirectCountsTest, IndexIsWrittenOnOneLineWithAStampOfItsContents) {
    const std::string index = Read(root() + "/sim/sg.json");
    ASSERT_FALSE(index.empty());
    EXPECT_EQ(index.find('\n'), index.size() - 1);
    const std::string stamp = Read(root() + "/sim/sg.stamp");
    EXPECT_EQ(stamp.rfind(std::to_string(index.size()) + "-", 0), 0u) << stamp;
    EXPECT_EQ(stamp.size(), std::to_string(index.size()).size() + 35);
    UseFabric(kFabric);
    EXPECT_EQ(Read(root() + "/sim/sg.stamp"), stamp);  // the same contents, the same stamp
    UseFabric(R"({"adapters":[]})");
    EXPECT_NE(Read(root() + "/sim/sg.stamp"), stamp);
}

TEST_F(RedirectCountsTest, IndexIsNotReadAgainWhileItsStampStays) {
    ASSERT_TRUE(OpensDevice());
    std::ofstream(root() + "/sim/sg.json", std::ios::trunc) << R"({"format":1,"devices":[]})";
    EXPECT_TRUE(OpensDevice());  // parsed under this stamp already
    std::ofstream(root() + "/sim/sg.stamp", std::ios::trunc) << "another\n";
    EXPECT_FALSE(OpensDevice());
}

TEST_F(RedirectCountsTest, IndexWithoutAStampIsReadAtEveryOpen) {
    ASSERT_TRUE(OpensDevice());
    fs::remove(root() + "/sim/sg.stamp");
    EXPECT_TRUE(OpensDevice());
    std::ofstream(root() + "/sim/sg.json", std::ios::trunc) << R"({"format":1,"devices":[]})";
    EXPECT_FALSE(OpensDevice());
}

TEST_F(RedirectCountsTest, RegeneratedHostUnderTheSameRootIsSeenAtOnce) {
    ASSERT_TRUE(OpensDevice());
    UseFabric(R"({"adapters":[]})");
    EXPECT_FALSE(OpensDevice());
    UseFabric(kFabric);
    EXPECT_TRUE(OpensDevice());
}

}  // namespace
