// The simulated host's path redirector, linked into this test program: with
// MIRVAK_SIM_ROOT set, the fixed system paths read the generated tree, from
// this program and from the shared libraries it uses; everything else is
// left alone. The redirection is process-wide, so every test restores the
// variable when it ends.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "redirect.h"
#include "sysfs_gen.h"
#include "temp_dir.h"

// The entry points of binaries built before glibc 2.33; no longer declared.
extern "C" {
int __xstat(int ver, const char* path, struct stat* buf);
int __lxstat(int ver, const char* path, struct stat* buf);
int __xstat64(int ver, const char* path, struct stat64* buf);
int __lxstat64(int ver, const char* path, struct stat64* buf);
int __fxstatat(int ver, int dirfd, const char* path, struct stat* buf, int flags);
}

namespace {

namespace fs = std::filesystem;

// Sets (or, for nullptr, unsets) MIRVAK_SIM_ROOT and puts the previous state
// back when it goes away.
class ScopedRoot {
public:
    explicit ScopedRoot(const char* value) {
        if (const char* old = std::getenv(sim::kRootEnv)) old_ = old;
        set(value);
    }
    ~ScopedRoot() { set(old_ ? old_->c_str() : nullptr); }
    ScopedRoot(const ScopedRoot&) = delete;
    ScopedRoot& operator=(const ScopedRoot&) = delete;

private:
    static void set(const char* value) {
        if (value != nullptr) {
            setenv(sim::kRootEnv, value, 1);
        } else {
            unsetenv(sim::kRootEnv);
        }
    }
    std::optional<std::string> old_;
};

// A host number no real machine is expected to have, so that a path below
// it exists only when it is redirected.
constexpr const char* kHost = "/sys/class/fc_host/host4242";
constexpr const char* kPortName = "/sys/class/fc_host/host4242/port_name";
constexpr const char* kLun = "/sys/class/fc_host/host4242/device/rport-4242:0-0/target4242:0:0/4242:0:0:0";
constexpr const char* kHbaConf =
    "# HBA API plug-in libraries of the simulated host: name, tab, path\n"
    "com.mirvak.fcoe\t/opt/sim/libmirvakhbaapi.so\n";

sim::Fabric one_host(uint8_t last_wwn_byte) {
    sim::LocalNode ln;
    ln.port_wwn = {0x20, 0x00, 0x00, 0x07, 0x43, 0x00, 0x1a, last_wwn_byte};
    ln.node_wwn = {0x10, 0x00, 0x00, 0x07, 0x43, 0x00, 0x1a, last_wwn_byte};
    ln.scsi_host = 4242;
    sim::RemoteNode rn;
    rn.port_wwn = {0x50, 0, 0, 0, 0, 0, 0, 1};
    sim::Lun l;
    l.block = "sdb";
    rn.luns.push_back(l);
    ln.rnodes.push_back(rn);
    sim::Fabric f;
    f.adapters.emplace_back();
    f.adapters.back().lnodes.push_back(ln);
    return f;
}

std::string read_fd(int fd) {
    std::string out;
    char buf[256];
    ssize_t n = 0;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
    return out;
}

std::optional<std::string> read_fopen(const char* path, FILE* (*open_fn)(const char*, const char*) = fopen) {
    FILE* f = open_fn(path, "r");
    if (f == nullptr) return std::nullopt;
    std::string out;
    char buf[256];
    std::size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    fclose(f);
    return out;
}

class HostRedirect : public ::testing::Test {
protected:
    void SetUp() override {
        sim::HostOptions opt;
        opt.plugin_path = "/opt/sim/libmirvakhbaapi.so";
        sim::generate_host(one_host(0x2b), dir.path(), opt);
        root.emplace(dir.path().c_str());
    }
    void TearDown() override { root.reset(); }

    sim::TempDir dir{"mirvak-host-redirect"};
    std::optional<ScopedRoot> root;
};

TEST_F(HostRedirect, FopenReadsTheGeneratedTree) {
    EXPECT_EQ(read_fopen(kPortName), "0x2000000743001a2b\n");
    EXPECT_EQ(read_fopen(kPortName, fopen64), "0x2000000743001a2b\n");
}

TEST_F(HostRedirect, OpenReadsTheGeneratedTree) {
    for (int fd : {open(kPortName, O_RDONLY), open64(kPortName, O_RDONLY),
                   openat(AT_FDCWD, kPortName, O_RDONLY), openat64(AT_FDCWD, kPortName, O_RDONLY)}) {
        ASSERT_GE(fd, 0) << std::strerror(errno);
        EXPECT_EQ(read_fd(fd), "0x2000000743001a2b\n");
        close(fd);
    }
}

TEST_F(HostRedirect, OpenatRelativeToARedirectedDirectory) {
    const int dfd = open(kHost, O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dfd, 0) << std::strerror(errno);
    const int fd = openat(dfd, "port_name", O_RDONLY);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    EXPECT_EQ(read_fd(fd), "0x2000000743001a2b\n");
    close(fd);
    close(dfd);
}

TEST_F(HostRedirect, OpenWithCreatePassesTheMode) {
    const mode_t mask = umask(0);
    umask(mask);
    const std::string path = std::string(kHost) + "/created";
    const int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0640);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    close(fd);
    const fs::path real = fs::path(dir.path()) / "sys/class/fc_host/host4242/created";
    struct stat st {};
    ASSERT_EQ(::stat(real.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u & ~mask);

    const int fd2 = openat(AT_FDCWD, (path + "2").c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
    ASSERT_GE(fd2, 0) << std::strerror(errno);
    close(fd2);
    ASSERT_EQ(::stat((real.string() + "2").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u & ~mask);
}

TEST_F(HostRedirect, OpendirListsTheGeneratedHosts) {
    DIR* d = opendir("/sys/class/fc_host");
    ASSERT_NE(d, nullptr) << std::strerror(errno);
    std::set<std::string> names;
    while (const dirent* e = readdir(d)) names.insert(e->d_name);
    closedir(d);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "host4242"}));

    DIR* lun_dir = opendir(kLun);
    ASSERT_NE(lun_dir, nullptr) << std::strerror(errno);
    closedir(lun_dir);
}

TEST_F(HostRedirect, AccessSeesTheGeneratedTree) {
    const std::string vendor = std::string(kLun) + "/vendor";
    EXPECT_EQ(access(vendor.c_str(), F_OK), 0);
    EXPECT_EQ(access(vendor.c_str(), R_OK), 0);
    EXPECT_EQ(faccessat(AT_FDCWD, vendor.c_str(), F_OK, 0), 0);
    errno = 0;
    EXPECT_EQ(access((std::string(kLun) + "/missing").c_str(), F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(HostRedirect, StatFamilySeesTheGeneratedTree) {
    struct stat st {};
    ASSERT_EQ(stat(kHost, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    ASSERT_EQ(lstat(kPortName, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 19);
    ASSERT_EQ(fstatat(AT_FDCWD, kPortName, &st, 0), 0);
    EXPECT_EQ(st.st_size, 19);

    struct stat64 st64 {};
    ASSERT_EQ(stat64(kPortName, &st64), 0);
    EXPECT_EQ(st64.st_size, 19);
    ASSERT_EQ(lstat64(kHost, &st64), 0);
    EXPECT_TRUE(S_ISDIR(st64.st_mode));
    ASSERT_EQ(fstatat64(AT_FDCWD, kHost, &st64, 0), 0);
    EXPECT_TRUE(S_ISDIR(st64.st_mode));

    struct statx stx {};
    ASSERT_EQ(statx(AT_FDCWD, kPortName, 0, STATX_SIZE, &stx), 0);
    EXPECT_EQ(stx.stx_size, 19u);
}

// The attribute queries of "ls -l": an existing file answers "no such
// attribute" (or "not supported"), never "no such file".
TEST_F(HostRedirect, ExtendedAttributeQueriesSeeTheGeneratedTree) {
    char value[64];
    errno = 0;
    EXPECT_EQ(getxattr(kPortName, "user.mirvak", value, sizeof value), -1);
    EXPECT_NE(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(lgetxattr(kPortName, "user.mirvak", value, sizeof value), -1);
    EXPECT_NE(errno, ENOENT);
    char list[256];
    errno = 0;
    if (listxattr(kPortName, list, sizeof list) < 0) {
        EXPECT_NE(errno, ENOENT);
    }
    errno = 0;
    if (llistxattr(kHost, list, sizeof list) < 0) {
        EXPECT_NE(errno, ENOENT);
    }

    const std::string missing = std::string(kHost) + "/missing";
    errno = 0;
    EXPECT_EQ(listxattr(missing.c_str(), list, sizeof list), -1);
    EXPECT_EQ(errno, ENOENT);
}

#if defined(__x86_64__)
TEST_F(HostRedirect, LegacyStatEntryPointsSeeTheGeneratedTree) {
    constexpr int kStatVersion = 1;  // _STAT_VER_LINUX on x86-64
    struct stat st {};
    ASSERT_EQ(__xstat(kStatVersion, kPortName, &st), 0) << std::strerror(errno);
    EXPECT_EQ(st.st_size, 19);
    ASSERT_EQ(__lxstat(kStatVersion, kHost, &st), 0) << std::strerror(errno);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    ASSERT_EQ(__fxstatat(kStatVersion, AT_FDCWD, kPortName, &st, 0), 0) << std::strerror(errno);
    EXPECT_EQ(st.st_size, 19);
    struct stat64 st64 {};
    ASSERT_EQ(__xstat64(kStatVersion, kPortName, &st64), 0) << std::strerror(errno);
    EXPECT_EQ(st64.st_size, 19);
    ASSERT_EQ(__lxstat64(kStatVersion, kHost, &st64), 0) << std::strerror(errno);
    EXPECT_TRUE(S_ISDIR(st64.st_mode));
}
#endif

TEST_F(HostRedirect, HbaConfIsRedirected) {
    EXPECT_EQ(read_fopen("/etc/hba.conf"), kHbaConf);
    const int fd = open("/etc/hba.conf", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_fd(fd), kHbaConf);
    close(fd);
}

// libstdc++ is a shared library: its file calls must reach the same tree.
TEST_F(HostRedirect, SharedLibraryCallsAreRedirectedToo) {
    std::ifstream in(kPortName);
    ASSERT_TRUE(in.good());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "0x2000000743001a2b\n");

    EXPECT_TRUE(fs::is_directory(kHost));
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator("/sys/class/fc_host")) names.insert(e.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"host4242"}));
}

TEST_F(HostRedirect, RedirectedPathsMapOntoTheRoot) {
    char buf[PATH_MAX];
    for (const char* p : {"/sys/class/fc_host", "/sys/class/fc_host/", "/sys/class/fc_host/host0/port_name",
                          "/etc/hba.conf"}) {
        const char* mapped = mirvak_sim_map_path(p, buf, sizeof buf);
        ASSERT_NE(mapped, nullptr) << p;
        EXPECT_EQ(std::string(mapped), dir.path() + p);
    }
}

TEST_F(HostRedirect, OtherPathsAreUntouched) {
    char buf[PATH_MAX];
    for (const char* p : {"/sys/class/fc_hostX", "/sys/class/fc_hostX/host0", "/sys/class/fc_host_x",
                          "/sys/class", "/sys/class/", "/sys", "/etc/hba.confX", "/etc/hba.conf/x",
                          "/etc/hba.con", "/etc/passwd", "/tmp", "sys/class/fc_host", "./etc/hba.conf",
                          "//sys/class/fc_host", ""}) {
        EXPECT_EQ(mirvak_sim_map_path(p, buf, sizeof buf), p) << p;
    }
    EXPECT_EQ(mirvak_sim_map_path(nullptr, buf, sizeof buf), nullptr);

    // Present only under the root: not found, because not redirected.
    fs::create_directories(fs::path(dir.path()) / "sys/class/fc_hostX");
    std::ofstream(fs::path(dir.path()) / "sys/class/fc_hostX/f") << "x";
    errno = 0;
    EXPECT_EQ(access("/sys/class/fc_hostX/f", F_OK), -1);
    EXPECT_EQ(errno, ENOENT);

    // Paths outside the table still work as usual.
    const fs::path own = fs::path(dir.path()) / "own";
    std::ofstream(own) << "own";
    EXPECT_EQ(read_fopen(own.c_str()), "own");
}

TEST_F(HostRedirect, UnsetOrEmptyVariableRedirectsNothing) {
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        ScopedRoot off(value);
        char buf[PATH_MAX];
        EXPECT_EQ(mirvak_sim_map_path(kPortName, buf, sizeof buf), kPortName);
        EXPECT_EQ(mirvak_sim_map_path("/etc/hba.conf", buf, sizeof buf), std::string("/etc/hba.conf"));
        errno = 0;
        EXPECT_EQ(access(kPortName, F_OK), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(fopen(kPortName, "r"), nullptr);
        EXPECT_EQ(opendir(kHost), nullptr);
    }
    // Back on.
    EXPECT_EQ(access(kPortName, F_OK), 0);
}

TEST_F(HostRedirect, VariableIsReadOnEveryCall) {
    sim::TempDir other("mirvak-host-redirect");
    sim::generate_host(one_host(0x2c), other.path());
    EXPECT_EQ(read_fopen(kPortName), "0x2000000743001a2b\n");
    {
        ScopedRoot switched(other.path().c_str());
        EXPECT_EQ(read_fopen(kPortName), "0x2000000743001a2c\n");
        EXPECT_EQ(read_fopen("/etc/hba.conf"),
                  "# HBA API plug-in libraries of the simulated host: name, tab, path\n");
    }
    EXPECT_EQ(read_fopen(kPortName), "0x2000000743001a2b\n");
}

TEST_F(HostRedirect, TooLongForTheRootFailsWithNameTooLong) {
    // Short enough on its own, too long once the root is put in front.
    std::string path = "/sys/class/fc_host/";
    path.append(PATH_MAX - 1 - path.size() - dir.path().size() / 2, 'a');
    ASSERT_LT(path.size(), static_cast<std::size_t>(PATH_MAX));

    errno = 0;
    EXPECT_EQ(open(path.c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    errno = 0;
    EXPECT_EQ(fopen(path.c_str(), "r"), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    errno = 0;
    EXPECT_EQ(opendir(path.c_str()), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    errno = 0;
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    struct stat st {};
    errno = 0;
    EXPECT_EQ(stat(path.c_str(), &st), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);

    // The buffer bound is exact: root + path + terminator.
    const std::size_t need = dir.path().size() + std::strlen("/etc/hba.conf") + 1;
    std::vector<char> buf(need);
    errno = 0;
    EXPECT_EQ(mirvak_sim_map_path("/etc/hba.conf", buf.data(), need - 1), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(mirvak_sim_map_path("/etc/hba.conf", buf.data(), need), buf.data());
    EXPECT_EQ(std::string(buf.data()), dir.path() + "/etc/hba.conf");
}

TEST_F(HostRedirect, ConcurrentCallsAgree) {
    std::vector<std::thread> threads;
    std::vector<int> good(4, 0);
    for (std::size_t t = 0; t < good.size(); ++t) {
        threads.emplace_back([&good, t] {
            for (int i = 0; i < 200; ++i) {
                struct stat st {};
                if (read_fopen(kPortName) == "0x2000000743001a2b\n" && stat(kHost, &st) == 0) ++good[t];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int g : good) EXPECT_EQ(g, 200);
}

}  // namespace
