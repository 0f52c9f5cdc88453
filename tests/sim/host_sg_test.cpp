// The simulated host's SCSI device nodes: open of a LUN's /dev node, the
// SG_GET_VERSION_NUM and SG_IO ioctls answered as its target would, the
// fabric's knobs for odd answers, and the record of every SG_IO request.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "redirect.h"
#include "sg_index.h"
#include "sg_target.h"
#include "sim/fabric.h"
#include "sim_env.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testenv::Untouched;

constexpr uint8_t kPattern = 0xA5;

// One local port, two targets. Target 1 (5000000000000001): LUN 0 sdb with
// its own texts, serial and three designators; LUN 1 sdc without
// designators; LUN 300 sdd; LUN 5 without a block device. Target 2: LUN 0
// (mvsimx0). `knobs` goes into sdb's description.
std::string Fabric(const std::string& knobs = "") {
    return R"({"adapters":[{"instance":1,"lnodes":[{"port_wwn":"2100001b9ea10000","rnodes":[
      {"port_wwn":"5000000000000001","luns":[
        {"lun":0,"block":"sdb","vendor":"ACME","product":"ARRAY DISK","revision":"1.2",
         "serial":"SER123","size":4096,
         "designators":[{"code_set":2,"type":1,"id":"41 42 43"},
                        {"type":3,"id":"60 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff"},
                        {"code_set":1,"type":3,"association":1,"id":"50 01 02 03 04 05 06 07"}])" +
           knobs + R"(},
        {"lun":1,"block":"sdc","size":8589934592},
        {"lun":300,"block":"sdd"},
        {"lun":5}]},
      {"port_wwn":"5000000000000002","luns":[
        {"lun":0,"block":"mvsimx0","vendor":"LONGVENDORNAME","product":"A PRODUCT NAME LONGER THAN 16",
         "revision":"12345"}]}]}]}]})";
}

// One SG_IO request with its buffers. The header's output fields, the data
// and the sense buffer start out as the pattern.
struct Io {
    sg_io_hdr_t hdr;
    std::array<uint8_t, 4096> data;
    std::array<uint8_t, 64> sense;
    Bytes cdb;

    Io(Bytes c, unsigned int dxfer_len, unsigned char mx_sb_len = 32,
       int direction = SG_DXFER_FROM_DEV)
        : cdb(std::move(c)) {
        std::memset(&hdr, kPattern, sizeof hdr);
        data.fill(kPattern);
        sense.fill(kPattern);
        hdr.interface_id = 'S';
        hdr.dxfer_direction = direction;
        hdr.cmd_len = static_cast<unsigned char>(cdb.size());
        hdr.mx_sb_len = mx_sb_len;
        hdr.iovec_count = 0;
        hdr.dxfer_len = dxfer_len;
        hdr.dxferp = data.data();
        hdr.cmdp = cdb.data();
        hdr.sbp = sense.data();
        hdr.timeout = 3000;
        hdr.flags = 0;
        hdr.pack_id = 0;
        hdr.usr_ptr = nullptr;
    }

    Bytes Data(std::size_t n) const { return Bytes(data.begin(), data.begin() + static_cast<long>(n)); }
    Bytes Sense(std::size_t n) const { return Bytes(sense.begin(), sense.begin() + static_cast<long>(n)); }
};

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes Text(const std::string& s) { return Bytes(s.begin(), s.end()); }

const Bytes kInquiry96 = {0x12, 0x00, 0x00, 0x00, 0x00, 0x00};
const Bytes kReportLuns1024 = {0xA0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x04, 0x00, 0, 0};
const Bytes kReadCapacity16 = {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x00, 0x20, 0, 0};

Bytes IllegalRequestSense(uint8_t asc) {
    return {0x70, 0, 0x05, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, asc, 0x00, 0, 0, 0, 0};
}

class HostSg : public testenv::SimTest {
protected:
    void SetUp() override {
        testenv::SimTest::SetUp();
        UseFabric(Fabric());
        mirvak_simsg_reset();
    }
    void TearDown() override {
        for (int fd : fds_) close(fd);
        testenv::SimTest::TearDown();
    }

    // A descriptor on a simulated node, closed when the test ends.
    int Open(const char* path) {
        const int fd = open(path, O_RDONLY);
        EXPECT_GE(fd, 0) << path << ": " << std::strerror(errno);
        if (fd >= 0) fds_.push_back(fd);
        return fd;
    }

    // SG_IO on fd; expects the ioctl to succeed.
    void Issue(int fd, Io& io) { ASSERT_EQ(ioctl(fd, SG_IO, &io.hdr), 0) << std::strerror(errno); }

    // Outputs of a transfer answered with GOOD status.
    static void ExpectGood(const Io& io, int resid) {
        EXPECT_EQ(io.hdr.status, 0);
        EXPECT_EQ(io.hdr.masked_status, 0);
        EXPECT_EQ(io.hdr.msg_status, 0);
        EXPECT_EQ(io.hdr.sb_len_wr, 0);
        EXPECT_EQ(io.hdr.host_status, 0);
        EXPECT_EQ(io.hdr.driver_status, 0);
        EXPECT_EQ(io.hdr.resid, resid);
        EXPECT_EQ(io.hdr.duration, 1u);
        EXPECT_EQ(io.hdr.info, static_cast<unsigned int>(SG_INFO_OK));
        EXPECT_TRUE(Untouched(io.sense.data(), io.sense.size()));
    }

    // Outputs of CHECK CONDITION with ILLEGAL REQUEST sense and this code.
    static void ExpectIllegalRequest(const Io& io, uint8_t asc, std::size_t sense_len = 18) {
        EXPECT_EQ(io.hdr.status, 0x02);
        EXPECT_EQ(io.hdr.masked_status, 0x01);
        EXPECT_EQ(io.hdr.msg_status, 0);
        EXPECT_EQ(io.hdr.sb_len_wr, sense_len);
        EXPECT_EQ(io.hdr.host_status, 0);
        EXPECT_EQ(io.hdr.driver_status, 0);
        EXPECT_EQ(io.hdr.resid, static_cast<int>(io.hdr.dxfer_len));
        EXPECT_EQ(io.hdr.info, static_cast<unsigned int>(SG_INFO_CHECK));
        Bytes expected = IllegalRequestSense(asc);
        expected.resize(sense_len);
        EXPECT_EQ(io.Sense(sense_len), expected);
        EXPECT_TRUE(Untouched(io.sense.data() + sense_len, io.sense.size() - sense_len));
        EXPECT_TRUE(Untouched(io.data.data(), io.data.size()));
    }

    std::vector<int> fds_;
};

// --- The index ------------------------------------------------------------

TEST_F(HostSg, IndexListsEveryBlockDeviceWithResolvedValues) {
    std::ifstream in(root() + "/sim/sg.json");
    ASSERT_TRUE(in.good());
    const auto doc = nlohmann::json::parse(std::string(std::istreambuf_iterator<char>(in), {}));
    const auto expected = nlohmann::json::parse(R"({"format":1,"devices":[
      {"path":"/dev/sdb","generic":"/dev/sg0","hctl":"0:0:0:0","lun":0,"vendor":"ACME","product":"ARRAY DISK",
       "revision":"1.2","serial":"SER123","size":4096,
       "designators":[{"code_set":2,"type":1,"association":0,"id":"41 42 43"},
         {"code_set":1,"type":3,"association":0,"id":"60 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff"},
         {"code_set":1,"type":3,"association":1,"id":"50 01 02 03 04 05 06 07"}],
       "vpd83_raw":null,"sg_fail":false,"sg_version":30527,"no_device":false,"target_luns":[0,1,300,5]},
      {"path":"/dev/sdc","generic":"/dev/sg1","hctl":"0:0:0:1","lun":1,"vendor":"MIRVSIM","product":"SIMDISK",
       "revision":"0001","serial":"SIM5000000000000001L1","size":8589934592,
       "designators":[{"code_set":1,"type":3,"association":0,
                       "id":"60 00 00 00 50 00 00 00 00 00 00 01 00 00 00 01"}],
       "vpd83_raw":null,"sg_fail":false,"sg_version":30527,"no_device":false,"target_luns":[0,1,300,5]},
      {"path":"/dev/sdd","generic":"/dev/sg2","hctl":"0:0:0:300","lun":300,"vendor":"MIRVSIM","product":"SIMDISK",
       "revision":"0001","serial":"SIM5000000000000001L300","size":2097152,
       "designators":[{"code_set":1,"type":3,"association":0,
                       "id":"60 00 00 00 50 00 00 00 00 00 00 01 00 00 01 2c"}],
       "vpd83_raw":null,"sg_fail":false,"sg_version":30527,"no_device":false,"target_luns":[0,1,300,5]},
      {"path":"/dev/mvsimx0","generic":"/dev/sg4","hctl":"0:0:1:0","lun":0,"vendor":"LONGVENDORNAME",
       "product":"A PRODUCT NAME LONGER THAN 16","revision":"12345","serial":"SIM5000000000000002L0",
       "size":2097152,
       "designators":[{"code_set":1,"type":3,"association":0,
                       "id":"60 00 00 00 50 00 00 00 00 00 00 02 00 00 00 00"}],
       "vpd83_raw":null,"sg_fail":false,"sg_version":30527,"no_device":false,"target_luns":[0]}]})");
    EXPECT_EQ(doc, expected);
    EXPECT_EQ(sim::sg::index_from_json(doc).size(), 4u);
}

TEST_F(HostSg, IndexCarriesTheKnobs) {
    UseFabric(Fabric(R"(,"vpd83_raw":"00 83 00 ff 01","sg_fail":true,"sg_version":29999,"no_device":true)"));
    std::ifstream in(root() + "/sim/sg.json");
    const auto devices =
        sim::sg::index_from_json(nlohmann::json::parse(std::string(std::istreambuf_iterator<char>(in), {})));
    ASSERT_EQ(devices.size(), 4u);
    ASSERT_TRUE(devices[0].vpd83_raw.has_value());
    EXPECT_EQ(*devices[0].vpd83_raw, (Bytes{0x00, 0x83, 0x00, 0xff, 0x01}));
    EXPECT_TRUE(devices[0].sg_fail);
    EXPECT_EQ(devices[0].sg_version, 29999);
    EXPECT_TRUE(devices[0].no_device);
    EXPECT_FALSE(devices[1].vpd83_raw.has_value());
    EXPECT_FALSE(devices[1].sg_fail);
    EXPECT_FALSE(devices[1].no_device);
}

TEST_F(HostSg, EmptyFabricGivesAnEmptyIndex) {
    UseFabric(R"({"adapters":[]})");
    std::ifstream in(root() + "/sim/sg.json");
    EXPECT_EQ(nlohmann::json::parse(std::string(std::istreambuf_iterator<char>(in), {})),
              nlohmann::json::parse(R"({"format":1,"devices":[]})"));
}

// --- Opening and closing ---------------------------------------------------

TEST_F(HostSg, OpenOfASimulatedNodeGivesADescriptorUntilClosed) {
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
    const int fd = open("/dev/sdb", O_RDONLY);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    const int fd64 = open64("/dev/sdc", O_RDONLY);
    ASSERT_GE(fd64, 0) << std::strerror(errno);
    const int fdat = openat(AT_FDCWD, "/dev/sdd", O_RDONLY);
    ASSERT_GE(fdat, 0) << std::strerror(errno);
    const int fdat64 = openat64(AT_FDCWD, "/dev/mvsimx0", O_RDONLY);
    ASSERT_GE(fdat64, 0) << std::strerror(errno);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 4u);
    EXPECT_EQ(mirvak_simsg_opens(), 4u);
    for (int f : {fd, fd64, fdat, fdat64}) EXPECT_EQ(close(f), 0);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(HostSg, ClosedDescriptorNumberIsNoLongerADevice) {
    const int fd = open("/dev/sdb", O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(close(fd), 0);
    // The number comes back for an ordinary file, which the real ioctl serves.
    const std::string file = root() + "/plain";
    std::ofstream(file) << "x";
    const int again = open(file.c_str(), O_RDONLY);
    ASSERT_EQ(again, fd);
    int version = 7;
    errno = 0;
    EXPECT_EQ(ioctl(again, SG_GET_VERSION_NUM, &version), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(version, 7);
    close(again);
    EXPECT_EQ(mirvak_simsg_version_queries(), 0u);
}

TEST_F(HostSg, UnknownDevPathFailsAsOnTheRealSystem) {
    errno = 0;
    EXPECT_EQ(open("/dev/mirvak-no-such-node", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mirvak_simsg_opens(), 0u);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(HostSg, RealDevNodeGoesToTheRealSystem) {
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    int version = 7;
    errno = 0;
    EXPECT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(version, 7);
    close(fd);
    EXPECT_EQ(mirvak_simsg_opens(), 0u);
    EXPECT_EQ(mirvak_simsg_version_queries(), 0u);
}

TEST_F(HostSg, WithoutARootNothingIsSimulated) {
    unsetenv(sim::kRootEnv);
    errno = 0;
    EXPECT_EQ(open("/dev/mvsimx0", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mirvak_simsg_opens(), 0u);
}

TEST_F(HostSg, NoDeviceKnobFailsTheOpenWithEnoent) {
    UseFabric(Fabric(R"(,"no_device":true)"));
    errno = 0;
    EXPECT_EQ(open("/dev/sdb", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
    EXPECT_GE(Open("/dev/sdc"), 0);  // the other LUNs are there
}

TEST_F(HostSg, RegeneratedHostIsSeenAtOnce) {
    int version = 0;
    int fd = Open("/dev/sdb");
    ASSERT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30527);
    // Same root, an index of the same length: only the contents differ.
    UseFabric(Fabric(R"(,"sg_version":30528)"));
    fd = Open("/dev/sdb");
    ASSERT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30528);
    // Gone from the fabric: gone from the host.
    UseFabric(R"({"adapters":[]})");
    errno = 0;
    EXPECT_EQ(open("/dev/sdb", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(HostSg, DuplicateBlockNameTheFirstLunWins) {
    UseFabric(R"({"adapters":[{"lnodes":[{"port_wwn":"2100001b9ea10000","rnodes":[
      {"port_wwn":"5000000000000001","luns":[{"lun":0,"block":"sdb","sg_version":30001}]},
      {"port_wwn":"5000000000000002","luns":[{"lun":0,"block":"sdb","sg_version":30002}]}]}]}]})");
    const int fd = Open("/dev/sdb");
    int version = 0;
    ASSERT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30001);
}

// --- ioctls ---------------------------------------------------------------

TEST_F(HostSg, VersionNumAnswersTheBlockLayersVersion) {
    const int fd = Open("/dev/sdb");
    int version = 0;
    ASSERT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30527);
    EXPECT_EQ(mirvak_simsg_version_queries(), 1u);
    EXPECT_EQ(mirvak_simsg_request_count(), 0u);
}

TEST_F(HostSg, VersionKnobChangesTheAnswer) {
    UseFabric(Fabric(R"(,"sg_version":29999)"));
    int version = 0;
    ASSERT_EQ(ioctl(Open("/dev/sdb"), SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 29999);
    ASSERT_EQ(ioctl(Open("/dev/sdc"), SG_GET_VERSION_NUM, &version), 0);
    EXPECT_EQ(version, 30527);
}

TEST_F(HostSg, VersionNumWithoutABufferFailsWithEfault) {
    errno = 0;
    EXPECT_EQ(ioctl(Open("/dev/sdb"), SG_GET_VERSION_NUM, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(HostSg, OtherIoctlsFailWithEnotty) {
    int value = 0;
    errno = 0;
    EXPECT_EQ(ioctl(Open("/dev/sdb"), SG_GET_TIMEOUT, &value), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(mirvak_simsg_request_count(), 0u);
}

// --- INQUIRY ---------------------------------------------------------------

Bytes StandardInquiry(const std::string& vendor8, const std::string& product16, const std::string& rev4) {
    Bytes b = {0x00, 0x00, 0x05, 0x12, 0x5B, 0x00, 0x00, 0x02};
    b = Concat({b, Text(vendor8), Text(product16), Text(rev4), Bytes(60, 0)});
    return b;
}

TEST_F(HostSg, StandardInquiryExactBytes) {
    Io io(kInquiry96, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 0);
    EXPECT_EQ(io.Data(96), StandardInquiry("ACME    ", "ARRAY DISK      ", "1.2 "));
    EXPECT_TRUE(Untouched(io.data.data() + 96, io.data.size() - 96));
}

TEST_F(HostSg, GenericNodeAnswersAsItsBlockDevice) {
    Io io(kInquiry96, 96);
    Issue(Open("/dev/sg0"), io);
    ExpectGood(io, 0);
    EXPECT_EQ(io.Data(96), StandardInquiry("ACME    ", "ARRAY DISK      ", "1.2 "));
    mirvak_simsg_request r{};
    ASSERT_EQ(mirvak_simsg_last_request(&r), 0);
    EXPECT_STREQ(r.device, "/dev/sg0");  // recorded as opened
}

TEST_F(HostSg, StandardInquiryCutsLongTexts) {
    Io io(kInquiry96, 96);
    Issue(Open("/dev/mvsimx0"), io);
    ExpectGood(io, 0);
    EXPECT_EQ(io.Data(96), StandardInquiry("LONGVEND", "A PRODUCT NAME L", "1234"));
}

TEST_F(HostSg, InquiryAllocationShorterThanTheData) {
    Io io({0x12, 0x00, 0x00, 0x00, 36, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 60);
    Bytes expected = StandardInquiry("ACME    ", "ARRAY DISK      ", "1.2 ");
    expected.resize(36);
    EXPECT_EQ(io.Data(36), expected);
    EXPECT_TRUE(Untouched(io.data.data() + 36, io.data.size() - 36));
}

TEST_F(HostSg, InquiryTransferShorterThanTheData) {
    Io io(kInquiry96, 20);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 0);
    Bytes expected = StandardInquiry("ACME    ", "ARRAY DISK      ", "1.2 ");
    expected.resize(20);
    EXPECT_EQ(io.Data(20), expected);
    EXPECT_TRUE(Untouched(io.data.data() + 20, io.data.size() - 20));
}

TEST_F(HostSg, InquiryAllocationZeroMeansTheTransferLength) {
    // What the plug-in sends for a 256-byte response buffer: bytes 3, 4, 5
    // carry 00 00 01, so the allocation length field is 0.
    Io io({0x12, 0x00, 0x00, 0x00, 0x00, 0x01}, 256);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 256 - 96);
    EXPECT_EQ(io.Data(96), StandardInquiry("ACME    ", "ARRAY DISK      ", "1.2 "));
    EXPECT_TRUE(Untouched(io.data.data() + 96, io.data.size() - 96));
}

TEST_F(HostSg, InquiryLargerThanTheDataLeavesTheRestAlone) {
    Io io({0x12, 0x00, 0x00, 0x01, 0x00, 0x00}, 1024);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 1024 - 96);
    EXPECT_TRUE(Untouched(io.data.data() + 96, io.data.size() - 96));
}

TEST_F(HostSg, VpdSupportedPages) {
    Io io({0x12, 0x01, 0x00, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 96 - 7);
    EXPECT_EQ(io.Data(7), (Bytes{0x00, 0x00, 0x00, 0x03, 0x00, 0x80, 0x83}));
    EXPECT_TRUE(Untouched(io.data.data() + 7, io.data.size() - 7));
}

TEST_F(HostSg, VpdSerialNumber) {
    Io io({0x12, 0x01, 0x80, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 96 - 10);
    EXPECT_EQ(io.Data(10), Concat({{0x00, 0x80, 0x00, 0x06}, Text("SER123")}));
    EXPECT_TRUE(Untouched(io.data.data() + 10, io.data.size() - 10));
}

TEST_F(HostSg, VpdSerialNumberDefaultComesFromTheAddress) {
    Io io({0x12, 0x01, 0x80, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdc"), io);
    const std::string serial = "SIM5000000000000001L1";
    ExpectGood(io, static_cast<int>(96 - 4 - serial.size()));
    EXPECT_EQ(io.Data(4 + serial.size()),
              Concat({{0x00, 0x80, 0x00, static_cast<uint8_t>(serial.size())}, Text(serial)}));
}

TEST_F(HostSg, VpdDeviceIdentificationDesignatorsOfSeveralTypesAndLengths) {
    Io io({0x12, 0x01, 0x83, 0x00, 0x00, 0x00}, 256);
    Issue(Open("/dev/sdb"), io);
    const Bytes expected = {
        0x00, 0x83, 0x00, 0x27,                                      // 39 bytes of designators
        0x02, 0x01, 0x00, 0x03, 0x41, 0x42, 0x43,                    // ASCII, T10 vendor id
        0x01, 0x03, 0x00, 0x10, 0x60, 0x11, 0x22, 0x33, 0x44, 0x55,  // binary NAA, 16 bytes
        0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff,
        0x01, 0x13, 0x00, 0x08, 0x50, 0x01, 0x02, 0x03, 0x04, 0x05,  // NAA of the target port
        0x06, 0x07};
    ExpectGood(io, static_cast<int>(256 - expected.size()));
    EXPECT_EQ(io.Data(expected.size()), expected);
    EXPECT_TRUE(Untouched(io.data.data() + expected.size(), io.data.size() - expected.size()));
}

TEST_F(HostSg, VpdDeviceIdentificationDefaultNaaDesignator) {
    Io io({0x12, 0x01, 0x83, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdd"), io);
    const Bytes expected = {0x00, 0x83, 0x00, 0x14, 0x01, 0x03, 0x00, 0x10, 0x60, 0x00, 0x00, 0x00,
                            0x50, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x01, 0x2c};
    ExpectGood(io, static_cast<int>(96 - expected.size()));
    EXPECT_EQ(io.Data(expected.size()), expected);
}

TEST_F(HostSg, VpdDeviceIdentificationRawKnobIsAnsweredVerbatim) {
    // Page length and designator length point past the data.
    UseFabric(Fabric(R"(,"vpd83_raw":"00 83 00 40 01 03 00 20 60 01")"));
    Io io({0x12, 0x01, 0x83, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 96 - 10);
    EXPECT_EQ(io.Data(10), (Bytes{0x00, 0x83, 0x00, 0x40, 0x01, 0x03, 0x00, 0x20, 0x60, 0x01}));
    EXPECT_TRUE(Untouched(io.data.data() + 10, io.data.size() - 10));
}

TEST_F(HostSg, VpdDeviceIdentificationEmptyRawKnobAnswersNoData) {
    UseFabric(Fabric(R"(,"vpd83_raw":"")"));
    Io io({0x12, 0x01, 0x83, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 96);
    EXPECT_TRUE(Untouched(io.data.data(), io.data.size()));
}

TEST_F(HostSg, UnknownVpdPageIsAnInvalidFieldInTheCdb) {
    Io io({0x12, 0x01, 0xB0, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectIllegalRequest(io, 0x24);
}

TEST_F(HostSg, PageCodeWithoutEvpdIsAnInvalidFieldInTheCdb) {
    Io io({0x12, 0x00, 0x83, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectIllegalRequest(io, 0x24);
}

TEST_F(HostSg, CmdDtBitIsAnInvalidFieldInTheCdb) {
    Io io({0x12, 0x02, 0x00, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    ExpectIllegalRequest(io, 0x24);
}

TEST_F(HostSg, SenseIsCutToTheSenseBufferSize) {
    Io io({0x12, 0x01, 0xB0, 0x00, 0x00, 0x00}, 96, /*mx_sb_len=*/8);
    Issue(Open("/dev/sdb"), io);
    ExpectIllegalRequest(io, 0x24, 8);
}

TEST_F(HostSg, NoSenseBufferNoSense) {
    Io io({0x12, 0x01, 0xB0, 0x00, 0x00, 0x00}, 96);
    io.hdr.sbp = nullptr;
    Issue(Open("/dev/sdb"), io);
    EXPECT_EQ(io.hdr.status, 0x02);
    EXPECT_EQ(io.hdr.sb_len_wr, 0);
    EXPECT_EQ(io.hdr.info, static_cast<unsigned int>(SG_INFO_CHECK));
    EXPECT_TRUE(Untouched(io.sense.data(), io.sense.size()));
}

TEST_F(HostSg, UnknownOpcodeIsAnInvalidCommand) {
    for (const Bytes& cdb : {Bytes{0x00, 0, 0, 0, 0, 0}, Bytes{0x28, 0, 0, 0, 0, 0, 0, 0, 1, 0},
                             Bytes{0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}}) {
        Io io(cdb, 96);
        Issue(Open("/dev/sdb"), io);
        ExpectIllegalRequest(io, 0x20);
    }
}

// --- REPORT LUNS -----------------------------------------------------------

TEST_F(HostSg, ReportLunsListsTheLunsOfTheTarget) {
    Io io(kReportLuns1024, 1024);
    Issue(Open("/dev/sdc"), io);
    const Bytes expected = {0x00, 0x00, 0x00, 0x20, 0, 0, 0, 0,  //
                            0x00, 0x00, 0, 0, 0, 0, 0, 0,        // LUN 0
                            0x00, 0x01, 0, 0, 0, 0, 0, 0,        // LUN 1
                            0x01, 0x2C, 0, 0, 0, 0, 0, 0,        // LUN 300
                            0x00, 0x05, 0, 0, 0, 0, 0, 0};       // LUN 5, no block device
    ExpectGood(io, static_cast<int>(1024 - expected.size()));
    EXPECT_EQ(io.Data(expected.size()), expected);
    EXPECT_TRUE(Untouched(io.data.data() + expected.size(), io.data.size() - expected.size()));
}

TEST_F(HostSg, ReportLunsOfAnotherTarget) {
    Io io(kReportLuns1024, 1024);
    Issue(Open("/dev/mvsimx0"), io);
    ExpectGood(io, 1024 - 16);
    EXPECT_EQ(io.Data(16), (Bytes{0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

std::string ManyLuns(int n) {
    std::string luns;
    for (int i = 0; i < n; ++i) {
        if (i > 0) luns += ",";
        luns += R"({"lun":)" + std::to_string(i) + (i == 0 ? R"(,"block":"sdb"})" : "}");
    }
    return R"({"adapters":[{"lnodes":[{"port_wwn":"2100001b9ea10000","rnodes":[
      {"port_wwn":"5000000000000001","luns":[)" + luns + "]}]}]}]}";
}

TEST_F(HostSg, ReportLunsWithManyLunsRespectsTheTransferLength) {
    UseFabric(ManyLuns(200));
    // Allocation 4096, transfer 1024: as the plug-in asks with a large buffer.
    Io io({0xA0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x10, 0x00, 0, 0}, 1024);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 0);
    EXPECT_EQ(io.Data(8), (Bytes{0x00, 0x00, 0x06, 0x40, 0, 0, 0, 0}));  // 200 entries
    Bytes expected = {0x00, 0x00, 0x06, 0x40, 0, 0, 0, 0};
    for (int i = 0; i < 127; ++i) expected.insert(expected.end(), {0x00, static_cast<uint8_t>(i), 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(io.Data(1024), expected);
    EXPECT_TRUE(Untouched(io.data.data() + 1024, io.data.size() - 1024));
}

TEST_F(HostSg, ReportLunsRespectsTheAllocationLength) {
    UseFabric(ManyLuns(200));
    Io io({0xA0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x00, 0x18, 0, 0}, 1024);  // allocation 24
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 1024 - 24);
    EXPECT_EQ(io.Data(24), (Bytes{0x00, 0x00, 0x06, 0x40, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                  0, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(Untouched(io.data.data() + 24, io.data.size() - 24));
}

TEST_F(HostSg, ReportLunsAllocationBelowSixteenIsAnInvalidField) {
    Io io({0xA0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x00, 0x0F, 0, 0}, 1024);
    Issue(Open("/dev/sdb"), io);
    ExpectIllegalRequest(io, 0x24);
}

TEST_F(HostSg, ReportLunsSelectReport) {
    Io well_known({0xA0, 0, 0x01, 0, 0, 0, 0x00, 0x00, 0x04, 0x00, 0, 0}, 1024);
    Issue(Open("/dev/sdb"), well_known);
    ExpectGood(well_known, 1024 - 8);
    EXPECT_EQ(well_known.Data(8), Bytes(8, 0));
    Io all({0xA0, 0, 0x02, 0, 0, 0, 0x00, 0x00, 0x04, 0x00, 0, 0}, 1024);
    Issue(Open("/dev/sdb"), all);
    ExpectGood(all, 1024 - 40);
    Io bad({0xA0, 0, 0x10, 0, 0, 0, 0x00, 0x00, 0x04, 0x00, 0, 0}, 1024);
    Issue(Open("/dev/sdb"), bad);
    ExpectIllegalRequest(bad, 0x24);
}

TEST_F(HostSg, LunFieldFollowsTheHostsNumbering) {
    using sim::sg::lun_field;
    EXPECT_EQ(lun_field(0), (std::array<uint8_t, 8>{}));
    EXPECT_EQ(lun_field(0x4101), (std::array<uint8_t, 8>{0x41, 0x01, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(lun_field(0x12345678u), (std::array<uint8_t, 8>{0x56, 0x78, 0x12, 0x34, 0, 0, 0, 0}));
}

// --- READ CAPACITY(16) -----------------------------------------------------

TEST_F(HostSg, ReadCapacity16ExactBytes) {
    Io io(kReadCapacity16, 32, 32);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 0);
    Bytes expected = {0, 0, 0, 0, 0, 0, 0x0F, 0xFF, 0x00, 0x00, 0x02, 0x00};
    expected.resize(32, 0);
    EXPECT_EQ(io.Data(32), expected);
    EXPECT_TRUE(Untouched(io.data.data() + 32, io.data.size() - 32));
}

TEST_F(HostSg, ReadCapacity16BeyondThirtyTwoBits) {
    Io io(kReadCapacity16, 32, 32);
    Issue(Open("/dev/sdc"), io);  // 2^33 sectors
    ExpectGood(io, 0);
    EXPECT_EQ(io.Data(12), (Bytes{0, 0, 0, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x02, 0x00}));
}

TEST_F(HostSg, ReadCapacity16OfAnEmptyDevice) {
    UseFabric(R"({"adapters":[{"lnodes":[{"port_wwn":"2100001b9ea10000","rnodes":[
      {"port_wwn":"5000000000000001","luns":[{"lun":0,"block":"sdb","size":0}]}]}]}]})");
    Io io(kReadCapacity16, 32, 32);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 0);
    EXPECT_EQ(io.Data(12), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x02, 0x00}));
}

TEST_F(HostSg, ReadCapacity16RespectsTheAllocationLength) {
    Bytes cdb = kReadCapacity16;
    cdb[13] = 12;
    Io io(cdb, 32, 32);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 20);
    EXPECT_EQ(io.Data(12), (Bytes{0, 0, 0, 0, 0, 0, 0x0F, 0xFF, 0x00, 0x00, 0x02, 0x00}));
    EXPECT_TRUE(Untouched(io.data.data() + 12, io.data.size() - 12));
}

TEST_F(HostSg, OtherServiceActionIsAnInvalidField) {
    Bytes cdb = kReadCapacity16;
    cdb[1] = 0x11;
    Io io(cdb, 32, 32);
    Issue(Open("/dev/sdb"), io);
    ExpectIllegalRequest(io, 0x24);
}

// --- Transfers and failures -------------------------------------------------

TEST_F(HostSg, WriteDirectionReceivesNoData) {
    Io io(kInquiry96, 96, 32, SG_DXFER_TO_DEV);
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 96);
    EXPECT_TRUE(Untouched(io.data.data(), io.data.size()));
}

TEST_F(HostSg, NoTransferIsAnsweredWithStatusOnly) {
    Io io(kInquiry96, 0, 32, SG_DXFER_NONE);
    io.hdr.dxferp = nullptr;
    Issue(Open("/dev/sdb"), io);
    ExpectGood(io, 0);
    EXPECT_TRUE(Untouched(io.data.data(), io.data.size()));
}

TEST_F(HostSg, SgFailKnobFailsSgIoWithEio) {
    UseFabric(Fabric(R"(,"sg_fail":true)"));
    const int fd = Open("/dev/sdb");
    int version = 0;
    ASSERT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), 0);  // the version still answers
    EXPECT_EQ(version, 30527);
    Io io(kInquiry96, 96);
    const sg_io_hdr_t before = io.hdr;
    errno = 0;
    EXPECT_EQ(ioctl(fd, SG_IO, &io.hdr), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(std::memcmp(&before, &io.hdr, sizeof before), 0);
    EXPECT_TRUE(Untouched(io.data.data(), io.data.size()));
    EXPECT_TRUE(Untouched(io.sense.data(), io.sense.size()));
    mirvak_simsg_request rec{};
    ASSERT_EQ(mirvak_simsg_last_request(&rec), 0);
    EXPECT_EQ(rec.error, EIO);
    EXPECT_EQ(Bytes(rec.cdb, rec.cdb + 6), kInquiry96);
}

TEST_F(HostSg, MalformedRequestsFailLikeTheBlockLayer) {
    const int fd = Open("/dev/sdb");
    struct Case {
        const char* what;
        void (*change)(Io&);
        int err;
    };
    const Case cases[] = {
        {"interface id", [](Io& io) { io.hdr.interface_id = 'Q'; }, EINVAL},
        {"short CDB", [](Io& io) { io.hdr.cmd_len = 5; }, EMSGSIZE},
        {"long CDB", [](Io& io) { io.hdr.cmd_len = 17; }, EINVAL},
        {"no CDB", [](Io& io) { io.hdr.cmdp = nullptr; }, EFAULT},
        {"no buffer", [](Io& io) { io.hdr.dxferp = nullptr; }, EFAULT},
        {"scatter list", [](Io& io) { io.hdr.iovec_count = 1; }, EINVAL},
        {"direction", [](Io& io) { io.hdr.dxfer_direction = SG_DXFER_NONE; }, EINVAL},
        {"too long", [](Io& io) { io.hdr.dxfer_len = (1u << 20) + 1; }, EIO},
    };
    for (const Case& c : cases) {
        Io io(kInquiry96, 96);
        c.change(io);
        const sg_io_hdr_t before = io.hdr;
        errno = 0;
        EXPECT_EQ(ioctl(fd, SG_IO, &io.hdr), -1) << c.what;
        EXPECT_EQ(errno, c.err) << c.what;
        EXPECT_EQ(std::memcmp(&before, &io.hdr, sizeof before), 0) << c.what;
        EXPECT_TRUE(Untouched(io.data.data(), io.data.size())) << c.what;
        mirvak_simsg_request rec{};
        ASSERT_EQ(mirvak_simsg_last_request(&rec), 0);
        EXPECT_EQ(rec.error, c.err) << c.what;
    }
    errno = 0;
    EXPECT_EQ(ioctl(fd, SG_IO, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(mirvak_simsg_request_count(), std::size(cases) + 1);
}

// --- The record of requests -------------------------------------------------

TEST_F(HostSg, EveryRequestIsRecordedAsSent) {
    const int fd = Open("/dev/sdc");
    Io inquiry({0x12, 0x01, 0x83, 0x00, 0x00, 0x01}, 96, 0x40);
    inquiry.hdr.timeout = 3000;
    Issue(fd, inquiry);
    Io report(kReportLuns1024, 1024, 0x20);
    report.hdr.timeout = 20000;
    report.hdr.flags = 0x10;
    report.hdr.pack_id = 77;
    Issue(Open("/dev/sdb"), report);

    EXPECT_EQ(mirvak_simsg_request_count(), 2u);
    mirvak_simsg_request rec;
    std::memset(&rec, kPattern, sizeof rec);
    ASSERT_EQ(mirvak_simsg_request_at(0, &rec), 0);
    EXPECT_STREQ(rec.device, "/dev/sdc");
    EXPECT_EQ(rec.interface_id, 'S');
    EXPECT_EQ(rec.dxfer_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(rec.cmd_len, 6);
    EXPECT_EQ(rec.mx_sb_len, 0x40);
    EXPECT_EQ(rec.iovec_count, 0);
    EXPECT_EQ(rec.dxfer_len, 96u);
    EXPECT_EQ(rec.dxferp, inquiry.data.data());
    EXPECT_EQ(Bytes(rec.cdb, rec.cdb + 16),
              (Bytes{0x12, 0x01, 0x83, 0x00, 0x00, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(rec.cmdp, inquiry.cdb.data());
    EXPECT_EQ(rec.sbp, inquiry.sense.data());
    EXPECT_EQ(rec.timeout, 3000u);
    EXPECT_EQ(rec.flags, 0u);
    EXPECT_EQ(rec.pack_id, 0);
    EXPECT_EQ(rec.usr_ptr, nullptr);
    EXPECT_EQ(rec.error, 0);
    EXPECT_EQ(rec.status, 0);

    ASSERT_EQ(mirvak_simsg_last_request(&rec), 0);
    EXPECT_STREQ(rec.device, "/dev/sdb");
    EXPECT_EQ(rec.cmd_len, 12);
    EXPECT_EQ(rec.mx_sb_len, 0x20);
    EXPECT_EQ(rec.dxfer_len, 1024u);
    EXPECT_EQ(Bytes(rec.cdb, rec.cdb + 16),
              (Bytes{0xA0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x04, 0x00, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(rec.timeout, 20000u);
    EXPECT_EQ(rec.flags, 0x10u);
    EXPECT_EQ(rec.pack_id, 77);

    EXPECT_EQ(mirvak_simsg_request_at(2, &rec), -1);
}

TEST_F(HostSg, RecordKeepsTheStatusAnswered) {
    Io io({0x12, 0x01, 0xB0, 0x00, 0x00, 0x00}, 96);
    Issue(Open("/dev/sdb"), io);
    mirvak_simsg_request rec{};
    ASSERT_EQ(mirvak_simsg_last_request(&rec), 0);
    EXPECT_EQ(rec.status, 0x02);
    EXPECT_EQ(rec.error, 0);
}

TEST_F(HostSg, ResetForgetsTheRecord) {
    const int fd = Open("/dev/sdb");
    int version = 0;
    ASSERT_EQ(ioctl(fd, SG_GET_VERSION_NUM, &version), 0);
    Io io(kInquiry96, 96);
    Issue(fd, io);
    EXPECT_EQ(mirvak_simsg_request_count(), 1u);
    EXPECT_EQ(mirvak_simsg_version_queries(), 1u);
    EXPECT_EQ(mirvak_simsg_opens(), 1u);
    mirvak_simsg_reset();
    EXPECT_EQ(mirvak_simsg_request_count(), 0u);
    EXPECT_EQ(mirvak_simsg_version_queries(), 0u);
    EXPECT_EQ(mirvak_simsg_opens(), 0u);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 1u);  // still open
    mirvak_simsg_request rec{};
    EXPECT_EQ(mirvak_simsg_last_request(&rec), -1);
    EXPECT_EQ(mirvak_simsg_request_at(0, &rec), -1);
    EXPECT_EQ(mirvak_simsg_last_request(nullptr), -1);
}

TEST_F(HostSg, OnlyTheLatestRequestsAreKept) {
    const int fd = Open("/dev/sdb");
    for (int i = 0; i < 4100; ++i) {
        Io io({0x12, 0x00, 0x00, 0x00, 0x00, static_cast<uint8_t>(i)}, 96);
        Issue(fd, io);
    }
    EXPECT_EQ(mirvak_simsg_request_count(), 4100u);
    mirvak_simsg_request rec{};
    EXPECT_EQ(mirvak_simsg_request_at(3, &rec), -1);
    ASSERT_EQ(mirvak_simsg_request_at(4, &rec), 0);
    EXPECT_EQ(rec.cdb[5], 4);
    ASSERT_EQ(mirvak_simsg_request_at(4099, &rec), 0);
    EXPECT_EQ(rec.cdb[5], static_cast<uint8_t>(4099));
}

// --- The fabric's knobs -----------------------------------------------------

TEST(HostSgFabric, KnobsRoundTripAndDefaultsAreLeftOut) {
    const sim::Fabric f = sim::parse_fabric_text(Fabric(
        R"(,"vpd83_raw":"00 83 00 08","sg_fail":true,"sg_version":-1,"no_device":true)"), "t");
    const sim::Lun& lun = f.adapters[0].lnodes[0].rnodes[0].luns[0];
    ASSERT_TRUE(lun.vpd83_raw.has_value());
    EXPECT_EQ(*lun.vpd83_raw, (Bytes{0x00, 0x83, 0x00, 0x08}));
    EXPECT_TRUE(lun.sg_fail);
    EXPECT_EQ(lun.sg_version, -1);
    EXPECT_TRUE(lun.no_device);
    const nlohmann::json j = sim::fabric_to_json(f);
    const auto& written = j["adapters"][0]["lnodes"][0]["rnodes"][0]["luns"][0];
    EXPECT_EQ(written["vpd83_raw"], "00 83 00 08");
    EXPECT_EQ(written["sg_fail"], true);
    EXPECT_EQ(written["sg_version"], -1);
    EXPECT_EQ(written["no_device"], true);
    EXPECT_EQ(sim::parse_fabric(j, "again"), f);

    const auto& plain = j["adapters"][0]["lnodes"][0]["rnodes"][0]["luns"][1];
    EXPECT_FALSE(plain.contains("vpd83_raw"));
    EXPECT_FALSE(plain.contains("sg_fail"));
    EXPECT_FALSE(plain.contains("sg_version"));
    EXPECT_FALSE(plain.contains("no_device"));

    sim::Fabric g = f;
    g.adapters[0].lnodes[0].rnodes[0].luns[0].sg_version = 30527;
    EXPECT_NE(g, f);
    g = f;
    g.adapters[0].lnodes[0].rnodes[0].luns[0].vpd83_raw.reset();
    EXPECT_NE(g, f);
}

TEST(HostSgFabric, BadKnobValuesAreRefused) {
    EXPECT_THROW(sim::parse_fabric_text(Fabric(R"(,"vpd83_raw":"0")"), "t"), sim::FabricError);
    EXPECT_THROW(sim::parse_fabric_text(Fabric(R"(,"sg_fail":1)"), "t"), sim::FabricError);
    EXPECT_THROW(sim::parse_fabric_text(Fabric(R"(,"sg_version":2147483648)"), "t"), sim::FabricError);
    try {
        sim::parse_fabric_text(Fabric(R"(,"no_device":"yes")"), "t");
        FAIL() << "no error";
    } catch (const sim::FabricError& e) {
        EXPECT_STREQ(e.what(), "t: adapters[0].lnodes[0].rnodes[0].luns[0].no_device: expected true or false");
    }
}

// --- The target alone -------------------------------------------------------

TEST(HostSgTarget, FixedSense) {
    const auto s = sim::sg::fixed_sense(0x05, 0x24, 0x01);
    EXPECT_EQ(Bytes(s.begin(), s.end()),
              (Bytes{0x70, 0, 0x05, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, 0x24, 0x01, 0, 0, 0, 0}));
}

TEST(HostSgTarget, DesignatorsPastThePageLengthAreLeftOut) {
    sim::sg::Device d;
    for (int i = 0; i < 300; ++i) d.designators.push_back({1, 3, 0, Bytes(255, static_cast<uint8_t>(i))});
    const uint8_t cdb[16] = {0x12, 0x01, 0x83, 0xFF, 0xFF};
    const auto r = sim::sg::respond(d, cdb, 0);
    EXPECT_EQ(r.status, 0);
    // 253 designators of 259 bytes fit into 65535.
    ASSERT_EQ(r.data.size(), 4u + 253u * 259u);
    EXPECT_EQ(r.data[2], (253 * 259) >> 8);
    EXPECT_EQ(r.data[3], (253 * 259) & 0xFF);
}

}  // namespace
