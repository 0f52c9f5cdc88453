// LUN discovery through the simulated host's sysfs tree.
#include <dirent.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "close_fault.h"
#include "mirvak/host_view.h"
#include "sim_env.h"

// ---- closedir that can be made to fail ----
//
// While a suffix is set, closing a directory whose path ends in it really
// closes it and then reports a failure (see close_fault.h).
namespace {
const char* g_fail_close_suffix = nullptr;

bool ends_with(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

bool path_ends_in_suffix(DIR* dir) {
    if (g_fail_close_suffix == nullptr) return false;
    char link[64];
    char target[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", dirfd(dir));
    const ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0) return false;
    target[n] = '\0';
    return ends_with(target, g_fail_close_suffix);
}
}  // namespace

namespace {

using testenv::CaptureErr;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

constexpr unsigned long kLocal = 0x2100001b9ea10000UL;
constexpr unsigned long kRemote = 0x500a098000a10001UL;
// What the remote port's port_name becomes when 16 bytes of it are read in
// base 16: "0x500a098000a100".
constexpr unsigned long kRemoteCut = 0x500a098000a100UL;

const std::string kHost = "/sys/class/fc_host/host2";
const std::string kTarget = kHost + "/device/rport-2:0-0/target2:0:1";

// One local port (SCSI host 2) with one target (rport-2:0-0, target2:0:1)
// carrying these LUNs; more local or remote nodes may be added.
std::string Fabric(const std::string& luns, const std::string& lnode_extra = "",
                   const std::string& more_rnodes = "", const std::string& more_lnodes = "") {
    return R"({"adapters":[{"instance":1,"lnodes":[
      {"port_wwn":"2100001b9ea10000","scsi_host":2,"lnode_id":1)" +
           lnode_extra + R"(,
       "rnodes":[{"port_wwn":"500a098000a10001","scsi_target":1,"luns":[)" +
           luns + "]}" + more_rnodes + "]}" + more_lnodes + "]}]}";
}

const char* kTwoLuns = R"({"lun":0,"vendor":"ACME","block":"sdb","size":100},
                          {"lun":1,"vendor":"KESTREL","block":"sdc","size":200})";

std::string Btl(const std::string& name) { return "BTL info Bus:port:target:lun -> " + name + "\n"; }

class LunDiscovery : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        testenv::FailCloseWhen(path_ends_in_suffix);
    }
    void TearDown() override {
        testenv::FailCloseWhen(nullptr);
        g_fail_close_suffix = nullptr;
        SimTest::TearDown();
    }

    // The entries of a simulated directory in the order readdir gives them
    // (the walk does not sort), "." and ".." left out unless asked for.
    std::vector<std::string> Order(const std::string& system_path, bool dots = false) const {
        std::vector<std::string> names;
        DIR* d = opendir((root() + system_path).c_str());
        if (d == nullptr) return names;
        while (const dirent* e = readdir(d)) {
            const bool dot = std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0;
            if (dots || !dot) names.push_back(e->d_name);
        }
        closedir(d);
        return names;
    }
    std::string Real(const std::string& system_path) const { return root() + system_path; }
    void Write(const std::string& system_path, const std::string& text) const {
        std::ofstream(Real(system_path), std::ios::binary) << text;
    }
    void MakeDir(const std::string& system_path) const { std::filesystem::create_directories(Real(system_path)); }

    unsigned long Count(unsigned long local = kLocal, unsigned long remote = kRemote) {
        unsigned long n = 99;
        err = CaptureErr([&] { out = CaptureOut([&] { n = getNumLuns(local, remote); }); });
        return n;
    }
    // getLuninfo into `records` pattern-filled records; returns them.
    std::vector<lun_info> Info(std::size_t records, unsigned long local = kLocal, unsigned long remote = kRemote) {
        std::vector<lun_info> luns(records);
        Fill(luns.data(), records * sizeof(lun_info));
        err = CaptureErr([&] { out = CaptureOut([&] { getLuninfo(luns.data(), local, remote); }); });
        return luns;
    }
    // getVportLuninfo; the array is copied out and freed.
    std::vector<lun_info> Vport(unsigned int& count, unsigned long local = kLocal, unsigned long remote = kRemote) {
        lun_info* result = nullptr;
        err = CaptureErr([&] { out = CaptureOut([&] { getVportLuninfo(&result, local, remote, &count); }); });
        EXPECT_NE(result, nullptr);
        std::vector<lun_info> copy;
        if (result != nullptr) {
            copy.assign(result, result + count);
            std::free(result);
        }
        return copy;
    }

    std::string out;
    std::string err;
};

// Texts of a record and whether bytes after them kept the pattern.
void ExpectText(const char* field, std::size_t size, const std::string& text) {
    EXPECT_EQ(std::string(field), text);
    EXPECT_TRUE(Untouched(field + text.size() + 1, size - text.size() - 1)) << text;
}

bool Zero(const void* p, std::size_t n) { return Untouched(p, n, 0); }

// ---- getNumLuns ----

TEST_F(LunDiscovery, NoFcHostTreeFindsNothing) {
    UseFabric(Fabric(kTwoLuns));
    testenv::RemoveTree(root() + "/sys");
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(LunDiscovery, UnknownLocalPortFindsNothingAndPrintsNothing) {
    UseFabric(Fabric(kTwoLuns));
    EXPECT_EQ(Count(0x2100001b9ea1ffffUL, kRemote), 0u);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(LunDiscovery, UnknownRemotePortFindsNothing) {
    UseFabric(Fabric(kTwoLuns));
    EXPECT_EQ(Count(kLocal, 0x500a098000a1ffffUL), 0u);
    EXPECT_EQ(out, "");
}

TEST_F(LunDiscovery, CountsBlockLinksAndPrintsEachLunInDirectoryOrder) {
    UseFabric(Fabric(kTwoLuns));
    EXPECT_EQ(Count(), 2u);
    // Only block:sdX is published: the count's size path, cut to
    // <lun>/block/size, is missing and reported.
    std::string want;
    for (const std::string& lun : Order(kTarget)) {
        want += Btl(lun);
        want += "read_proc:: File " + kTarget + "/" + lun + "/block/size open failed\n";
    }
    EXPECT_EQ(out, want);
    EXPECT_EQ(err, "");
}

TEST_F(LunDiscovery, CountReadsTheBlockDirectorySizeWhenThereIsOne) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","block_dir":true})"));
    EXPECT_EQ(Count(), 1u);
    EXPECT_EQ(out, Btl("2:0:1:0"));
}

TEST_F(LunDiscovery, LunWithoutVendorFileIsNoLun) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","has_vendor":false,"block_dir":true})"));
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(out, "");
    auto luns = Info(1);
    EXPECT_TRUE(Untouched(luns.data(), sizeof(lun_info)));
    EXPECT_EQ(out, "");
}

TEST_F(LunDiscovery, LunWithoutBlockLinkIsPrintedButNotCounted) {
    UseFabric(Fabric(R"({"lun":0})"));
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(out, Btl("2:0:1:0"));
}

TEST_F(LunDiscovery, NewerBlockDirectoryAloneIsNotCounted) {
    // Only "block/sdb": no entry holds "block:".
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","block_dir":true,"block_link":false})"));
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(out, Btl("2:0:1:0"));
}

TEST_F(LunDiscovery, EveryBlockLinkOfALunIsCounted) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","block_dir":true})"));
    MakeDir(kTarget + "/2:0:1:0/block:sdc");
    EXPECT_EQ(Count(), 2u);
}

TEST_F(LunDiscovery, EntriesAreMatchedAsSubstrings) {
    // "myhost7" holds "host"; "xrport-7" holds "rport"; "the_target" holds
    // "target"; "xblock:sdq" holds "block:".
    UseFabric(Fabric(kTwoLuns));
    const std::string h = "/sys/class/fc_host/myhost7";
    MakeDir(h + "/device/xrport-7/fc_remote_ports:xrport-7");
    Write(h + "/port_name", "0x2100001b9ea10000\n");
    Write(h + "/device/xrport-7/fc_remote_ports:xrport-7/port_name", "0x500a098000a10001\n");
    MakeDir(h + "/device/xrport-7/the_target/lun-a/xblock:sdq");
    Write(h + "/device/xrport-7/the_target/lun-a/vendor", "V\n");
    // Not matching: no "host", no "rport", no "target".
    const std::string n = "/sys/class/fc_host/other";
    MakeDir(n + "/device/rport-9/fc_remote_ports:rport-9");
    Write(n + "/port_name", "0x2100001b9ea10000\n");
    Write(n + "/device/rport-9/fc_remote_ports:rport-9/port_name", "0x500a098000a10001\n");
    MakeDir(n + "/device/rport-9/target9/9:0:0:0/block:sdz");
    Write(n + "/device/rport-9/target9/9:0:0:0/vendor", "V\n");
    MakeDir(kHost + "/device/rport-2:0-0/tgt/2:0:1:9/block:sdy");
    Write(kHost + "/device/rport-2:0-0/tgt/2:0:1:9/vendor", "V\n");
    MakeDir(kHost + "/device/port-2/fc_remote_ports:port-2");
    Write(kHost + "/device/port-2/fc_remote_ports:port-2/port_name", "0x500a098000a10001\n");
    MakeDir(kHost + "/device/port-2/target2:0:5/2:0:5:0/block:sdx");
    Write(kHost + "/device/port-2/target2:0:5/2:0:5:0/vendor", "V\n");

    EXPECT_EQ(Count(), 3u);
    EXPECT_NE(out.find(Btl("lun-a")), std::string::npos);
    EXPECT_NE(out.find("read_proc:: File " + h + "/device/xrport-7/the_target/lun-a/xblock/size open failed\n"),
              std::string::npos);
    EXPECT_EQ(out.find("9:0:0:0"), std::string::npos);
    EXPECT_EQ(out.find("2:0:1:9"), std::string::npos);
    EXPECT_EQ(out.find("2:0:5:0"), std::string::npos);
}

TEST_F(LunDiscovery, SecondPortNameEntryRepeatsTheDeviceWalk) {
    // "b_port_name" also holds "port_name": the whole walk below the host
    // runs once for each matching entry.
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","block_dir":true})",
                     R"(,"sysfs_attrs":[{"name":"b_port_name","value":"0x0\n"}])"));
    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(out, Btl("2:0:1:0") + Btl("2:0:1:0"));
}

TEST_F(LunDiscovery, ThePortNameFileIsReadWhicheverEntryMatched) {
    // Without port_name itself the other entry still reads port_name: the
    // missing file is reported and reads as 0, which matches local port 0.
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","block_dir":true})",
                     R"(,"sysfs_attrs":[{"name":"node_port_name","value":"0x2100001b9ea10000\n"}])"));
    std::filesystem::remove(Real(kHost + "/port_name"));
    EXPECT_EQ(Count(kLocal, kRemote), 0u);
    EXPECT_EQ(out, "read_val:: File " + kHost + "/port_name open failed\n");
    EXPECT_EQ(Count(0, kRemote), 1u);
    EXPECT_EQ(out, "read_val:: File " + kHost + "/port_name open failed\n" + Btl("2:0:1:0"));
}

TEST_F(LunDiscovery, AMismatchingHostIsLeftForTheNextHost) {
    UseFabric(Fabric(kTwoLuns, "", "",
                     R"(,{"port_wwn":"2100001b9ea10009","scsi_host":1,"lnode_id":2,
                          "rnodes":[{"port_wwn":"500a098000a10001","luns":[{"lun":0,"block":"sdq"}]}]})"));
    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(out.find("1:0:0:0"), std::string::npos);
    EXPECT_EQ(Count(0x2100001b9ea10009UL, kRemote), 1u);
    EXPECT_EQ(out.find("2:0:1:"), std::string::npos);
}

TEST_F(LunDiscovery, RemotePortNameIsComparedAsANumber) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","block_dir":true})"));
    Write(kHost + "/device/rport-2:0-0/fc_remote_ports:rport-2:0-0/port_name", "0x500A098000A10001\n");
    EXPECT_EQ(Count(), 1u);
}

TEST_F(LunDiscovery, OnlyTheMatchingRemotePortsLunsAreFound) {
    UseFabric(Fabric(kTwoLuns, "", R"(,{"port_wwn":"500a098000a10002","luns":[{"lun":5,"block":"sdx","block_dir":true}]})"));
    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(Count(kLocal, 0x500a098000a10002UL), 1u);
    EXPECT_EQ(out, Btl("2:0:1:5"));  // behind rport-2:0-1
}

TEST_F(LunDiscovery, DotAndDotDotAreLunsWhenTheyHaveAVendorFile) {
    // "." of the target directory is the target itself, ".." the rport
    // directory.
    UseFabric(Fabric(R"({"lun":0,"vendor":"ACME","block":"sdb","size":100})"));
    Write(kTarget + "/vendor", "DOT\n");
    Write(kHost + "/device/rport-2:0-0/vendor", "DOTDOT\n");
    const std::vector<std::string> order = Order(kTarget, true);
    std::vector<std::string> luns_found;
    for (const std::string& e : order)
        if (e == "." || e == ".." || e == "2:0:1:0") luns_found.push_back(e);
    ASSERT_EQ(luns_found.size(), 3u);

    EXPECT_EQ(Count(), 1u);  // neither directory holds a block link
    std::string want;
    for (const std::string& e : luns_found) {
        want += Btl(e);
        if (e == "2:0:1:0") want += "read_proc:: File " + kTarget + "/2:0:1:0/block/size open failed\n";
    }
    EXPECT_EQ(out, want);

    std::vector<lun_info> luns(4);
    std::memset(luns.data(), 0, 4 * sizeof(lun_info));
    out = CaptureOut([&] { getLuninfo(luns.data(), kLocal, kRemote, 4); });
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string& e = luns_found[i];
        EXPECT_EQ(std::string(luns[i].hctl), e);
        EXPECT_EQ(std::string(luns[i].vendor), e == "." ? "DOT" : e == ".." ? "DOTDOT" : "ACME");
        EXPECT_EQ(std::string(luns[i].device), e == "2:0:1:0" ? "/dev/sdb" : "");
    }
    EXPECT_TRUE(Zero(&luns[3], sizeof(lun_info)));
    EXPECT_EQ(out, Btl(luns_found[0]) + Btl(luns_found[1]) + Btl(luns_found[2]));

    // Sized by the count of 1, only the first record is written.
    auto counted = Info(4);
    EXPECT_EQ(std::string(counted[0].hctl), luns_found[0]);
    EXPECT_TRUE(Untouched(&counted[1], 3 * sizeof(lun_info)));
}

// ---- getLuninfo ----

TEST_F(LunDiscovery, InfoFillsOneRecordPerLunInDirectoryOrder) {
    UseFabric(Fabric(kTwoLuns));
    auto luns = Info(3);
    const std::vector<std::string> order = Order(kTarget);
    ASSERT_EQ(order.size(), 2u);
    std::string want;
    for (std::size_t i = 0; i < 2; ++i) {
        const bool first = order[i] == "2:0:1:0";
        const lun_info& l = luns[i];
        EXPECT_TRUE(Untouched(l.reserved_0, 8));
        EXPECT_EQ(l.size, first ? 100u : 200u);
        ExpectText(l.hctl, sizeof l.hctl, order[i]);
        ExpectText(l.device, sizeof l.device, first ? "/dev/sdb" : "/dev/sdc");
        // The vendor field is cleared whole, then the word copied.
        const std::string vendor = first ? "ACME" : "KESTREL";
        EXPECT_EQ(std::string(l.vendor), vendor);
        EXPECT_TRUE(Zero(l.vendor + vendor.size(), sizeof l.vendor - vendor.size()));
        want += Btl(order[i]);
    }
    EXPECT_TRUE(Untouched(&luns[2], sizeof(lun_info)));
    // getLuninfo reads <lun>/block:sdX/size, which exists: no message.
    EXPECT_EQ(out, want);
    EXPECT_EQ(err, "");
}

TEST_F(LunDiscovery, InfoOfAnUnknownPortWritesNothing) {
    UseFabric(Fabric(kTwoLuns));
    auto luns = Info(2, kLocal, 0x1234);
    EXPECT_TRUE(Untouched(luns.data(), 2 * sizeof(lun_info)));
    EXPECT_EQ(out, "");
}

TEST_F(LunDiscovery, InfoWithoutFcHostTreeWritesNothing) {
    UseFabric(Fabric(kTwoLuns));
    testenv::RemoveTree(root() + "/sys");
    auto luns = Info(2);
    EXPECT_TRUE(Untouched(luns.data(), 2 * sizeof(lun_info)));
    EXPECT_EQ(out, "");
}

TEST_F(LunDiscovery, LunWithoutBlockLinkGetsARecordWithEmptyDeviceInAZeroedArray) {
    // Two LUN directories, one block link: the count is 1 but each
    // directory takes a record. Given room for both, the blockless one has
    // an empty device path and no size.
    UseFabric(Fabric(R"({"lun":0,"vendor":"ACME","block":"sdb","size":100},{"lun":1,"vendor":"BARE"})"));
    EXPECT_EQ(Count(), 1u);
    std::vector<lun_info> luns(3);
    std::memset(luns.data(), 0, 3 * sizeof(lun_info));
    out = CaptureOut([&] { getLuninfo(luns.data(), kLocal, kRemote, 3); });
    const std::vector<std::string> order = Order(kTarget);
    for (std::size_t i = 0; i < 2; ++i) {
        const lun_info& l = luns[i];
        EXPECT_EQ(std::string(l.hctl), order[i]);
        if (order[i] == "2:0:1:1") {
            EXPECT_STREQ(l.vendor, "BARE");
            EXPECT_STREQ(l.device, "");
            EXPECT_EQ(l.size, 0u);
        } else {
            EXPECT_STREQ(l.vendor, "ACME");
            EXPECT_STREQ(l.device, "/dev/sdb");
            EXPECT_EQ(l.size, 100u);
        }
    }
    EXPECT_TRUE(Zero(&luns[2], sizeof(lun_info)));
    EXPECT_EQ(out, Btl(order[0]) + Btl(order[1]));
}

TEST_F(LunDiscovery, InfoWritesNoMoreRecordsThanTheCountWhenALunHasNoBlockLink) {
    // The caller sizes the array with getNumLuns (1 here) while two LUN
    // directories are found: only the first record is written, and the walk
    // still prints both.
    UseFabric(Fabric(R"({"lun":0,"vendor":"ACME","block":"sdb","size":100},{"lun":1,"vendor":"BARE"})"));
    const unsigned long n = Count();
    ASSERT_EQ(n, 1u);
    const std::vector<std::string> order = Order(kTarget);
    // With spare records, the spares are left alone ...
    auto luns = Info(n + 2);
    EXPECT_EQ(std::string(luns[0].hctl), order[0]);
    ASSERT_TRUE(Untouched(&luns[1], 2 * sizeof(lun_info)));
    EXPECT_EQ(out, Btl(order[0]) + Btl(order[1]));
    // ... and into exactly n records on the heap nothing is written past
    // them (ASan would catch it).
    auto* exact = static_cast<lun_info*>(std::malloc(n * sizeof(lun_info)));
    Fill(exact, n * sizeof(lun_info));
    out = CaptureOut([&] { getLuninfo(exact, kLocal, kRemote); });
    EXPECT_EQ(std::string(exact[0].hctl), order[0]);
    EXPECT_EQ(out, Btl(order[0]) + Btl(order[1]));
    std::free(exact);
}

TEST_F(LunDiscovery, InfoWithTooSmallACapacityWritesOnlyThatMany) {
    UseFabric(Fabric(kTwoLuns));
    std::vector<lun_info> luns(2);
    Fill(luns.data(), 2 * sizeof(lun_info));
    out = CaptureOut([&] { getLuninfo(luns.data(), kLocal, kRemote, 0); });
    EXPECT_TRUE(Untouched(luns.data(), 2 * sizeof(lun_info)));
    const std::vector<std::string> order = Order(kTarget);
    EXPECT_EQ(out, Btl(order[0]) + Btl(order[1]));
    out = CaptureOut([&] { getLuninfo(luns.data(), kLocal, kRemote, 1); });
    EXPECT_EQ(std::string(luns[0].hctl), order[0]);
    EXPECT_TRUE(Untouched(&luns[1], sizeof(lun_info)));
}

TEST_F(LunDiscovery, InfoRepeatsRecordsForASecondPortNameEntry) {
    UseFabric(Fabric(kTwoLuns, R"(,"sysfs_attrs":[{"name":"b_port_name","value":"x\n"}])"));
    EXPECT_EQ(Count(), 4u);
    auto luns = Info(5);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(std::memcmp(&luns[i], &luns[i + 2], sizeof(lun_info)), 0) << i;
    }
    EXPECT_TRUE(Untouched(&luns[4], sizeof(lun_info)));
    const std::vector<std::string> order = Order(kTarget);
    const std::string once = Btl(order[0]) + Btl(order[1]);
    EXPECT_EQ(out, once + once);
}

TEST_F(LunDiscovery, InfoSplitsACopyAndReadsTheSizeBesideTheWholeLinkName) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100})"));
    const std::string lun = kTarget + "/2:0:1:0";
    std::filesystem::rename(Real(lun + "/block:sdb"), Real(lun + "/xblock:sdq:extra"));
    auto luns = Info(1);
    EXPECT_STREQ(luns[0].device, "/dev/sdq");
    EXPECT_EQ(luns[0].size, 100u);
    EXPECT_EQ(out, Btl("2:0:1:0"));
    // The count cuts the entry's own name to "xblock".
    EXPECT_EQ(Count(), 1u);
    EXPECT_EQ(out, Btl("2:0:1:0") + "read_proc:: File " + lun + "/xblock/size open failed\n");
}

TEST_F(LunDiscovery, LeadingColonsStayOnTheCutName) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100})"));
    const std::string lun = kTarget + "/2:0:1:0";
    std::filesystem::rename(Real(lun + "/block:sdb"), Real(lun + "/::block::sdr"));
    EXPECT_EQ(Count(), 1u);
    EXPECT_EQ(out, Btl("2:0:1:0") + "read_proc:: File " + lun + "/::block/size open failed\n");
    auto luns = Info(1);
    EXPECT_STREQ(luns[0].device, "/dev/sdr");
    EXPECT_EQ(luns[0].size, 100u);
}

TEST_F(LunDiscovery, LongBlockLinkNamesAreSplitWhole) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100})"));
    const std::string lun = kTarget + "/2:0:1:0";
    const std::string head = std::string(120, 'b') + "block", device(120, 'd');
    std::filesystem::rename(Real(lun + "/block:sdb"), Real(lun + "/" + head + ":" + device + ":tail"));
    auto luns = Info(1);
    ExpectText(luns[0].device, sizeof luns[0].device, "/dev/" + device);
    EXPECT_EQ(luns[0].size, 100u);
    EXPECT_EQ(out, Btl("2:0:1:0"));
    // The count cuts the entry's own name to its first token.
    EXPECT_EQ(Count(), 1u);
    EXPECT_EQ(out, Btl("2:0:1:0") + "read_proc:: File " + lun + "/" + head + "/size open failed\n");
}

TEST_F(LunDiscovery, BlockLinkWithoutADeviceNameGivesTheBareDevPrefix) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100})"));
    const std::string lun = kTarget + "/2:0:1:0";
    std::filesystem::rename(Real(lun + "/block:sdb"), Real(lun + "/block:"));
    auto luns = Info(1);
    ExpectText(luns[0].device, sizeof luns[0].device, "/dev/");
    EXPECT_EQ(luns[0].size, 100u);
}

TEST_F(LunDiscovery, InfoSizeOfBadSizeFiles) {
    UseFabric(Fabric(R"({"lun":0,"block":"sda","size_text":"abc\n"},
                        {"lun":1,"block":"sdb","size_text":""},
                        {"lun":2,"block":"sdc","size_text":"4096"},
                        {"lun":3,"block":"sdd","size_text":"18446744073709551615\n"},
                        {"lun":4,"block":"sde","size_text":"12abc\n"})"));
    auto luns = Info(5);
    for (int i = 0; i < 5; ++i) {
        const std::string dev = luns[i].device;
        const uint64_t size = luns[i].size;
        if (dev == "/dev/sda") EXPECT_EQ(size, 0u);
        else if (dev == "/dev/sdb") EXPECT_EQ(size, 0u);
        else if (dev == "/dev/sdc") EXPECT_EQ(size, 4096u);
        else if (dev == "/dev/sdd") EXPECT_EQ(size, 1844674407370955u);
        else if (dev == "/dev/sde") EXPECT_EQ(size, 12u);
        else ADD_FAILURE() << dev;
    }
}

TEST_F(LunDiscovery, InfoKeepsTheWorkingValueWhenTheSizeCannotBeRead) {
    // block:sdb is a file, not a directory: its size cannot be opened and
    // the record gets the working value, here the remote port's name as
    // 16 bytes of it read in base 16.
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100})"));
    const std::string lun = kTarget + "/2:0:1:0";
    std::filesystem::remove_all(Real(lun + "/block:sdb"));
    Write(lun + "/block:sdb", "");
    auto luns = Info(1);
    EXPECT_EQ(luns[0].size, kRemoteCut);
    EXPECT_STREQ(luns[0].device, "/dev/sdb");
    EXPECT_EQ(out, Btl("2:0:1:0") + "read_proc:: File " + lun + "/block:sdb/size open failed\n");
}

TEST_F(LunDiscovery, VendorTexts) {
    UseFabric(Fabric(R"({"lun":0,"block":"sda","vendor_text":""},
                        {"lun":1,"block":"sdb","vendor_text":"TWO WORD\n"},
                        {"lun":2,"block":"sdc","vendor_text":"NONL"},
                        {"lun":3,"block":"sdd","vendor_text":"   \n"},
                        {"lun":4,"block":"sde","vendor_text":")" + std::string(300, 'W') + R"("})"));
    auto luns = Info(5);
    for (int i = 0; i < 5; ++i) {
        const std::string dev = luns[i].device;
        const lun_info& l = luns[i];
        const std::string v = l.vendor;
        if (dev == "/dev/sda" || dev == "/dev/sdd") EXPECT_EQ(v, "");
        else if (dev == "/dev/sdb") EXPECT_EQ(v, "TWO");
        else if (dev == "/dev/sdc") EXPECT_EQ(v, "NONL");
        else if (dev == "/dev/sde") EXPECT_EQ(v, std::string(255, 'W'));
        else ADD_FAILURE() << dev;
        EXPECT_TRUE(Zero(l.vendor + v.size(), sizeof l.vendor - v.size())) << dev;
    }
}

TEST_F(LunDiscovery, NamesThatAreNoAddressAndNamesThatFillTheirFields) {
    const std::string long_lun(255, 'L');
    const std::string long_block(249, 'b');  // "block:" + 249 is the longest entry name
    UseFabric(Fabric(R"({"lun":0,"block":"sda","sysfs_name":"lun-a"},
                        {"lun":1,"block":")" + long_block + R"(","sysfs_name":")" + long_lun + R"("})"));
    EXPECT_EQ(Count(), 2u);
    auto luns = Info(2);
    for (int i = 0; i < 2; ++i) {
        const lun_info& l = luns[i];
        if (std::string(l.hctl) == "lun-a") {
            ExpectText(l.device, sizeof l.device, "/dev/sda");
        } else {
            EXPECT_EQ(std::string(l.hctl), long_lun);  // 255 characters and the NUL fill the field
            ExpectText(l.device, sizeof l.device, "/dev/" + long_block);
        }
    }
    const std::vector<std::string> order = Order(kTarget);
    EXPECT_EQ(out, Btl(order[0]) + Btl(order[1]));
}

// ---- getVportLuninfo ----

TEST_F(LunDiscovery, VportWithNoLunGivesAZeroLengthArray) {
    UseFabric(Fabric(kTwoLuns));
    unsigned int count = 0xA5A5A5A5u;
    auto luns = Vport(count, kLocal, 0x1234);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(luns.empty());
    EXPECT_EQ(out, "");
}

TEST_F(LunDiscovery, VportWithoutFcHostTreeGivesAZeroLengthArray) {
    UseFabric(Fabric(kTwoLuns));
    testenv::RemoveTree(root() + "/sys");
    unsigned int count = 7;
    auto luns = Vport(count);
    EXPECT_EQ(count, 0u);
}

TEST_F(LunDiscovery, VportRecordsAreZeroedAndFilled) {
    UseFabric(Fabric(R"({"lun":0,"vendor":"ACME","block":"sdb","size":100,"block_dir":true},
                        {"lun":1,"vendor":"KESTREL","block":"sdc","size":200,"block_dir":true})"));
    unsigned int count = 0;
    auto luns = Vport(count);
    ASSERT_EQ(count, 2u);
    const std::vector<std::string> order = Order(kTarget);
    std::string want;
    for (std::size_t i = 0; i < 2; ++i) {
        const bool first = order[i] == "2:0:1:0";
        const lun_info& l = luns[i];
        EXPECT_TRUE(Zero(l.reserved_0, 8));
        EXPECT_EQ(l.size, first ? 100u : 200u);
        const std::string hctl = order[i], device = first ? "/dev/sdb" : "/dev/sdc",
                          vendor = first ? "ACME" : "KESTREL";
        EXPECT_EQ(std::string(l.hctl), hctl);
        EXPECT_TRUE(Zero(l.hctl + hctl.size(), sizeof l.hctl - hctl.size()));
        EXPECT_EQ(std::string(l.device), device);
        EXPECT_TRUE(Zero(l.device + device.size(), sizeof l.device - device.size()));
        EXPECT_EQ(std::string(l.vendor), vendor);
        EXPECT_TRUE(Zero(l.vendor + vendor.size(), sizeof l.vendor - vendor.size()));
        want += Btl(order[i]);
    }
    EXPECT_EQ(out, want);
    EXPECT_EQ(err, "");
}

TEST_F(LunDiscovery, VportWithOnlyBlockLinksStoresTheWorkingValue) {
    // <lun>/block/size is missing: the first LUN gets the remote port's
    // name as read in base 16, the next one the same (nothing read since).
    UseFabric(Fabric(kTwoLuns));
    unsigned int count = 0;
    auto luns = Vport(count);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(luns[0].size, kRemoteCut);
    EXPECT_EQ(luns[1].size, kRemoteCut);
    std::string want;
    for (const std::string& lun : Order(kTarget))
        want += Btl(lun) + "read_proc:: File " + kTarget + "/" + lun + "/block/size open failed\n";
    EXPECT_EQ(out, want);
}

TEST_F(LunDiscovery, VportCarriesTheSizeOfTheLunBefore) {
    // Only one LUN has the block directory; the LUN after it gets its size.
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100,"block_dir":true},
                        {"lun":1,"block":"sdc","size":200})"));
    unsigned int count = 0;
    auto luns = Vport(count);
    ASSERT_EQ(count, 2u);
    const std::vector<std::string> order = Order(kTarget);
    if (order[0] == "2:0:1:0") {
        EXPECT_EQ(luns[0].size, 100u);
        EXPECT_EQ(luns[1].size, 100u);
    } else {
        EXPECT_EQ(luns[0].size, kRemoteCut);
        EXPECT_EQ(luns[1].size, 100u);
    }
}

TEST_F(LunDiscovery, VportTakesARecordForALunWithoutBlockLink) {
    UseFabric(Fabric(R"({"lun":0,"vendor":"BARE"})"));
    EXPECT_EQ(Count(), 0u);
    unsigned int count = 0;
    auto luns = Vport(count);
    ASSERT_EQ(count, 1u);
    EXPECT_STREQ(luns[0].hctl, "2:0:1:0");
    EXPECT_STREQ(luns[0].vendor, "BARE");
    EXPECT_TRUE(Zero(luns[0].device, sizeof luns[0].device));
    EXPECT_EQ(luns[0].size, 0u);
    EXPECT_EQ(out, Btl("2:0:1:0"));
}

// ---- directories ----

struct CloseCase {
    const char* suffix;
    const char* message;
};

TEST_F(LunDiscovery, EachFailedCloseIsReportedAndTheWalkGoesOn) {
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100,"block_dir":true})"));
    const CloseCase cases[] = {
        {"/sys/class/fc_host", "Error on closedir for dir"},
        {"/sys/class/fc_host/host2", "Error on closedir for host_dir"},
        {"/host2/device", "Error on closedir for device_dp"},
        {"/device/rport-2:0-0", "Error on closedir for device_dir_rport"},
        {"/rport-2:0-0/target2:0:1", "Error on closedir for disk_path"},
        {"/target2:0:1/2:0:1:0", "Error on closedir for scsi_disk"},
    };
    for (const CloseCase& c : cases) {
        g_fail_close_suffix = c.suffix;
        EXPECT_EQ(Count(), 1u) << c.suffix;
        const std::string btl = Btl("2:0:1:0");
        const std::string msg = std::string(c.message) + "\n";
        // The LUN line comes first; every close follows it.
        EXPECT_EQ(out, btl + msg) << c.suffix;
        EXPECT_EQ(err, "") << c.suffix;

        auto luns = Info(1);
        EXPECT_EQ(luns[0].size, 100u) << c.suffix;
        EXPECT_EQ(out, btl + msg) << c.suffix;

        unsigned int count = 0;
        auto v = Vport(count);
        EXPECT_EQ(count, 1u) << c.suffix;
        EXPECT_EQ(out, btl + msg) << c.suffix;
    }
}

TEST_F(LunDiscovery, AMismatchingHostDirectoryIsClosedOnce) {
    UseFabric(Fabric(kTwoLuns));
    g_fail_close_suffix = "/sys/class/fc_host/host2";
    EXPECT_EQ(Count(0x99, kRemote), 0u);
    EXPECT_EQ(out, "Error on closedir for host_dir\n");
}

TEST_F(LunDiscovery, ADirectoryThatCannotBeOpenedIsEmptyAndNotClosed) {
    // A target entry that is a file reads as an empty directory and, never
    // opened, is never closed; an rport entry that is a file has no
    // port_name below it.
    UseFabric(Fabric(R"({"lun":0,"block":"sdb","size":100,"block_dir":true})"));
    Write(kHost + "/device/rport-2:0-0/target2:0:7", "");
    Write(kHost + "/device/rport-2:0-9", "");
    g_fail_close_suffix = "/target2:0:7";
    EXPECT_EQ(Count(), 1u);
    std::string want;
    for (const std::string& e : Order(kHost + "/device")) {
        if (e == "rport-2:0-0") want += Btl("2:0:1:0");
        if (e == "rport-2:0-9")
            want += "read_val:: File " + kHost + "/device/rport-2:0-9/fc_remote_ports:rport-2:0-9/port_name open failed\n";
    }
    EXPECT_EQ(out, want);
    g_fail_close_suffix = "/rport-2:0-9";
    EXPECT_EQ(Count(), 1u);
    EXPECT_EQ(out.find("Error"), std::string::npos);
}

TEST_F(LunDiscovery, AMissingDeviceDirectoryIsEmpty) {
    UseFabric(Fabric(kTwoLuns));
    testenv::RemoveTree(Real(kHost + "/device"));
    g_fail_close_suffix = "/host2/device";
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(out, "");
    unsigned int count = 5;
    auto luns = Vport(count);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(out, "");
}

}  // namespace
