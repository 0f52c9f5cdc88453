// INQUIRY, REPORT LUNS and READ CAPACITY sent to a LUN's device node.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "sim/host/redirect.h"
#include "sim_env.h"

namespace {

using testenv::CaptureErr;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

HBA_WWN Wwn(uint64_t v) {
    HBA_WWN w;
    for (int i = 0; i < 8; ++i) w.wwn[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
    return w;
}

const HBA_WWN kPort = Wwn(0x20000000000000a0);

// One port (SCSI host 2) with target A (LUNs given) and target B with one
// LUN, 9 on sdz.
std::string Fabric(const std::string& luns, const std::string& b_luns = R"({"lun":9,"block":"sdz"})") {
    return R"({"adapters":[{"instance":1,"hw":{"ports":[{"speed":10}]},
      "fcfs":[{"fcf_index":1,"fabric_name":"1000000000000001"}],
      "lnodes":[{"port_num":0,"port_wwn":"20000000000000a0","lnode_id":1,"fcf_index":1,"scsi_host":2,
        "rnodes":[{"port_wwn":"50000000000000b1","scsi_target":1,"luns":[)" +
           luns + R"(]},{"port_wwn":"50000000000000b2","scsi_target":2,"luns":[)" + b_luns + "]}]}]}]}";
}

// What the command itself printed: the LUN walk's own progress lines (a
// "BTL info" line per LUN directory, a "read_proc::" line per missing size
// file) left out.
std::string Own(const std::string& out) {
    std::string rest;
    std::size_t at = 0;
    while (at < out.size()) {
        std::size_t end = out.find('\n', at);
        end = end == std::string::npos ? out.size() : end + 1;
        const std::string line = out.substr(at, end - at);
        if (line.rfind("BTL info ", 0) != 0 && line.rfind("read_proc:: ", 0) != 0) rest += line;
        at = end;
    }
    return rest;
}

const std::string kTwoLuns = R"({"lun":0,"block":"sdb","vendor":"KESTREL","product":"KX-2000","size":2048},
                                {"lun":1,"block":"sdc","vendor":"OSPREY","product":"OS-1","size":4096})";

class ScsiTest : public testenv::SimTest {
protected:
    void Use(const std::string& fabric) {
        UseFabric(fabric);
        handle = mirvak_OpenAdapter("/dev/tuskstor1");
        ASSERT_NE(handle, 0xFFFFFFFFu);
        mirvak_simsg_reset();
    }
    void TearDown() override {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
        testenv::SimTest::TearDown();
    }
    mirvak_simsg_request Last() {
        mirvak_simsg_request q;
        std::memset(&q, 0, sizeof q);
        EXPECT_EQ(mirvak_simsg_last_request(&q), 0);
        return q;
    }
    HBA_HANDLE handle = 0xFFFFFFFFu;
    uint8_t rsp[2048];
    uint8_t sense[64];
};

// ---- INQUIRY ----

TEST_F(ScsiTest, InquirySendsTheSizeOneByteHigh) {
    Use(Fabric(kTwoLuns));
    Fill(rsp, sizeof rsp);
    Fill(sense, sizeof sense);
    ASSERT_EQ(mirvak_SendScsiInquiry(handle, kPort, 0, 0, 0, rsp, 96, sense, 0x120), 0u);
    const auto q = Last();
    EXPECT_STREQ(q.device, "/dev/sdb");
    const uint8_t cdb[16] = {0x12, 0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(std::memcmp(q.cdb, cdb, 16), 0);
    EXPECT_EQ(q.interface_id, 'S');
    EXPECT_EQ(q.dxfer_direction, -3);
    EXPECT_EQ(q.cmd_len, 6);
    EXPECT_EQ(q.mx_sb_len, 0x20);  // the low byte of the sense size
    EXPECT_EQ(q.dxfer_len, 96u);
    EXPECT_EQ(q.dxferp, rsp);
    EXPECT_EQ(q.sbp, sense);
    EXPECT_EQ(q.timeout, 3000u);
    EXPECT_EQ(q.iovec_count, 0);
    EXPECT_EQ(q.flags, 0u);
    EXPECT_EQ(q.pack_id, 0);
    EXPECT_EQ(q.usr_ptr, nullptr);
    // The standard answer arrived: vendor at 8, product at 16.
    EXPECT_EQ(std::string(reinterpret_cast<char*>(rsp) + 8, 8), "KESTREL ");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(rsp) + 16, 7), "KX-2000");
    EXPECT_TRUE(Untouched(rsp + 96, sizeof rsp - 96));
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(ScsiTest, InquiryPutsSizeBits31To8IntoBytesThreeToFive) {
    Use(Fabric(kTwoLuns));
    std::vector<uint8_t> big(0x12345);  // cleared for its whole size
    ASSERT_EQ(mirvak_SendScsiInquiry(handle, kPort, 0, 1, 0x80, big.data(), 0x12345, sense, 32), 0u);
    const uint8_t cdb[6] = {0x12, 0x01, 0x80, 0x00, 0x01, 0x23};
    EXPECT_EQ(std::memcmp(Last().cdb, cdb, 6), 0);
}

TEST_F(ScsiTest, InquiryClearsTheResponseForTheCallersSize) {
    Use(Fabric(kTwoLuns));
    Fill(rsp, sizeof rsp);
    ASSERT_EQ(mirvak_SendScsiInquiry(handle, kPort, 0, 1, 0x80, rsp, 200, sense, 32), 0u);
    // A serial-number page shorter than 96 bytes: zeros up to 200, then the
    // caller's bytes.
    for (std::size_t i = 100; i < 200; ++i) ASSERT_EQ(rsp[i], 0) << i;
    EXPECT_TRUE(Untouched(rsp + 200, sizeof rsp - 200));
}

TEST_F(ScsiTest, InquiryFindsTheLunByItsFcpLun) {
    Use(Fabric(kTwoLuns));
    ASSERT_EQ(mirvak_SendScsiInquiry(handle, kPort, 0x0001000000000000LL, 0, 0, rsp, 96, sense, 32), 0u);
    EXPECT_STREQ(Last().device, "/dev/sdc");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(rsp) + 8, 6), "OSPREY");
}

TEST_F(ScsiTest, InquiryToAMissingNodeIsAnInvalidLun) {
    Use(Fabric(R"({"lun":0,"block":"sdb","no_device":true})"));
    HBA_STATUS s = 0;
    const std::string err = CaptureErr([&] { s = mirvak_SendScsiInquiry(handle, kPort, 0, 0, 0, rsp, 96, sense, 32); });
    EXPECT_EQ(s, 14u);
    EXPECT_EQ(err, "Error occured while opening the device ->: No such file or directory\n");
}

TEST_F(ScsiTest, InquiryForAnUnknownLunOpensNothing) {
    // No LUN matches: the empty path cannot be opened.
    Use(Fabric(kTwoLuns));
    HBA_STATUS s = 0;
    const std::string err =
        CaptureErr([&] { s = mirvak_SendScsiInquiry(handle, kPort, 0x0007000000000000LL, 0, 0, rsp, 96, sense, 32); });
    EXPECT_EQ(s, 14u);
    EXPECT_EQ(err.rfind("Error occured while opening the device ->: ", 0), 0u);
    EXPECT_EQ(mirvak_simsg_request_count(), 0u);
}

TEST_F(ScsiTest, InquiryOnAnOldDriverIsASilentError) {
    Use(Fabric(R"({"lun":0,"block":"sdb","sg_version":29999})"));
    Fill(rsp, sizeof rsp);
    HBA_STATUS s = 0;
    std::string err;
    const std::string out = CaptureOut([&] {
        err = CaptureErr([&] { s = mirvak_SendScsiInquiry(handle, kPort, 0, 0, 0, rsp, 96, sense, 32); });
    });
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(Own(out), "");
    EXPECT_EQ(err, "");
    EXPECT_EQ(mirvak_simsg_request_count(), 0u);
    EXPECT_TRUE(Untouched(rsp, sizeof rsp));
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(ScsiTest, InquiryWhoseIoctlFailsIsAnError) {
    Use(Fabric(R"({"lun":0,"block":"sdb","sg_fail":true})"));
    HBA_STATUS s = 0;
    const std::string err = CaptureErr([&] { s = mirvak_SendScsiInquiry(handle, kPort, 0, 0, 0, rsp, 96, sense, 32); });
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(err, "sg_simple0: Inquiry SG_IO ioctl error: Input/output error\n");
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(ScsiTest, InquiryWithAnInvalidHandlePassesTheLookupStatusOn) {
    Use(Fabric(kTwoLuns));
    Fill(rsp, sizeof rsp);
    EXPECT_EQ(mirvak_SendScsiInquiry(0xFFFFFFFFu, kPort, 0, 0, 0, rsp, 96, sense, 32), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(rsp, sizeof rsp));
    EXPECT_EQ(mirvak_simsg_opens(), 0u);
}

TEST_F(ScsiTest, IssueInquiryReadsButDoesNotWriteTheSizes) {
    Use(Fabric(kTwoLuns));
    HBA_UINT32 rsp_size = 96, sense_size = 18;
    ASSERT_EQ(mirvak_issue_inquiry("/dev/sdc", 1, 0x00, 0, rsp, &rsp_size, sense, &sense_size), 0u);
    EXPECT_EQ(rsp_size, 96u);
    EXPECT_EQ(sense_size, 18u);
    EXPECT_EQ(Last().mx_sb_len, 18);
    // Supported pages 0x00, 0x80, 0x83.
    EXPECT_EQ(rsp[1], 0x00);
    EXPECT_EQ(rsp[3], 3);
    EXPECT_EQ(rsp[4], 0x00);
    EXPECT_EQ(rsp[5], 0x80);
    EXPECT_EQ(rsp[6], 0x83);
}

// ---- REPORT LUNS ----

TEST_F(ScsiTest, ReportLunsOfOneLunSaysEntry) {
    Use(Fabric(R"({"lun":0,"block":"sdb"})"));
    HBA_STATUS s = 0;
    const std::string out = CaptureOut([&] { s = mirvak_SendReportLUNs(handle, kPort, rsp, 1024, sense, 32); });
    EXPECT_EQ(s, 0u);
    EXPECT_EQ(Own(out), "Lun list length = 8 which imples 1 lun entry\n");
}

TEST_F(ScsiTest, ReportLunsOfTwoLunsSaysEntries) {
    Use(Fabric(kTwoLuns));
    Fill(rsp, sizeof rsp);
    HBA_STATUS s = 0;
    const std::string out = CaptureOut([&] { s = mirvak_SendReportLUNs(handle, kPort, rsp, 1100, sense, 0x140); });
    EXPECT_EQ(s, 0u);
    EXPECT_EQ(Own(out), "Lun list length = 16 which imples 2 lun entries\n");
    const auto q = Last();
    EXPECT_STREQ(q.device, "/dev/sdb");  // the first LUN behind the port
    const uint8_t cdb[16] = {0xA0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x04, 0x4C, 0, 0};
    EXPECT_EQ(std::memcmp(q.cdb, cdb, 16), 0);
    EXPECT_EQ(q.cmd_len, 12);
    EXPECT_EQ(q.dxfer_len, 1024u);
    EXPECT_EQ(q.mx_sb_len, 0x40);
    EXPECT_EQ(q.timeout, 20000u);
    EXPECT_EQ(q.dxfer_direction, -3);
    EXPECT_EQ(q.interface_id, 'S');
    EXPECT_EQ(q.dxferp, rsp);
    EXPECT_EQ(q.sbp, sense);
    // Cleared for the caller's size, the list in front.
    for (std::size_t i = 8; i < 16; ++i) ASSERT_EQ(rsp[i], 0) << i;  // LUN 0
    EXPECT_EQ(rsp[16], 0);
    EXPECT_EQ(rsp[17], 1);  // LUN 1
    for (std::size_t i = 24; i < 1100; ++i) ASSERT_EQ(rsp[i], 0) << i;
    EXPECT_TRUE(Untouched(rsp + 1100, sizeof rsp - 1100));
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(ScsiTest, ReportLunsLongerThanTheTransferIsOnlyCounted) {
    // 200 LUNs make a 1600-byte list; 1024 bytes arrive and only the length
    // in front is read.
    std::string luns = R"({"lun":0,"block":"sdb"})";
    for (int l = 1; l < 200; ++l)
        luns += R"(,{"lun":)" + std::to_string(l) + R"(,"block":"sdx)" + std::to_string(l) + "\"}";
    Use(Fabric(luns));
    std::vector<uint8_t> buf(1024 + 64);
    Fill(buf.data(), buf.size());
    HBA_STATUS s = 0;
    const std::string out = CaptureOut([&] { s = mirvak_SendReportLUNs(handle, kPort, buf.data(), 1024, sense, 32); });
    EXPECT_EQ(s, 0u);
    EXPECT_EQ(Own(out), "Lun list length = 1600 which imples 200 lun entries\n");
    EXPECT_TRUE(Untouched(buf.data() + 1024, 64));
}

TEST_F(ScsiTest, ReportLunsToAMissingNodeAnswersMinusOne) {
    Use(Fabric(R"({"lun":0,"block":"sdb","no_device":true})"));
    HBA_STATUS s = 0;
    std::string err;
    const std::string out =
        CaptureOut([&] { err = CaptureErr([&] { s = mirvak_SendReportLUNs(handle, kPort, rsp, 1024, sense, 32); }); });
    EXPECT_EQ(s, 0xFFFFFFFFu);
    EXPECT_EQ(Own(out), "");
    EXPECT_EQ(err, "");
}

TEST_F(ScsiTest, ReportLunsOnAnOldDriverNamesTheDevice) {
    Use(Fabric(R"({"lun":0,"block":"sdb","sg_version":20000})"));
    HBA_STATUS s = 0;
    const std::string out = CaptureOut([&] { s = mirvak_SendReportLUNs(handle, kPort, rsp, 1024, sense, 32); });
    EXPECT_EQ(s, 0xFFFFFFFFu);
    EXPECT_EQ(Own(out), "/dev/sdb is not an sg device, or old sg driver\n");
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(ScsiTest, ReportLunsWhoseIoctlFailsPrintsWithoutALineEnd) {
    Use(Fabric(R"({"lun":0,"block":"sdb","sg_fail":true})"));
    HBA_STATUS s = 0;
    const std::string out = CaptureOut([&] { s = mirvak_SendReportLUNs(handle, kPort, rsp, 1024, sense, 32); });
    EXPECT_EQ(s, 0xFFFFFFFFu);
    EXPECT_EQ(Own(out), "sg_simple0: Inquiry SG_IO ioctl error");
}

TEST_F(ScsiTest, ReportLunsWithAnInvalidHandleStillClearsTheResponse) {
    Use(Fabric(kTwoLuns));
    Fill(rsp, sizeof rsp);
    EXPECT_EQ(mirvak_SendReportLUNs(0xFFFFFFFFu, kPort, rsp, 64, sense, 32), 0xFFFFFFFFu);
    for (std::size_t i = 0; i < 64; ++i) ASSERT_EQ(rsp[i], 0) << i;
    EXPECT_TRUE(Untouched(rsp + 64, sizeof rsp - 64));
}

// ---- READ CAPACITY ----

TEST_F(ScsiTest, ReadCapacityLeavesTheCallersBuffers) {
    Use(Fabric(kTwoLuns));
    Fill(rsp, sizeof rsp);
    Fill(sense, sizeof sense);
    ASSERT_EQ(mirvak_SendReadCapacity(handle, kPort, 0x0001000000000000LL, rsp, 32, sense, 32), 0u);
    EXPECT_TRUE(Untouched(rsp, sizeof rsp));
    EXPECT_TRUE(Untouched(sense, sizeof sense));
    const auto q = Last();
    EXPECT_STREQ(q.device, "/dev/sdb");  // the first LUN, whatever FCP LUN was asked
    const uint8_t cdb[16] = {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00, 0x00, 0x20, 0, 0};
    EXPECT_EQ(std::memcmp(q.cdb, cdb, 16), 0);
    EXPECT_EQ(q.cmd_len, 16);
    EXPECT_EQ(q.mx_sb_len, 32);
    EXPECT_EQ(q.dxfer_len, 32u);
    EXPECT_EQ(q.timeout, 20000u);
    EXPECT_EQ(q.dxfer_direction, -3);
    EXPECT_NE(q.dxferp, rsp);
    EXPECT_NE(q.sbp, sense);
    EXPECT_EQ(q.status, 0);
    EXPECT_EQ(mirvak_simsg_open_descriptors(), 0u);
}

TEST_F(ScsiTest, ReadCapacityToAMissingNodeAnswersMinusOne) {
    Use(Fabric(R"({"lun":0,"block":"sdb","no_device":true})"));
    EXPECT_EQ(mirvak_SendReadCapacity(handle, kPort, 0, rsp, 32, sense, 32), 0xFFFFFFFFu);
}

TEST_F(ScsiTest, ReadCapacityOnAnOldDriverNamesTheDevice) {
    Use(Fabric(R"({"lun":0,"block":"sdb","sg_version":100})"));
    HBA_STATUS s = 0;
    const std::string out = CaptureOut([&] { s = mirvak_SendReadCapacity(handle, kPort, 0, rsp, 32, sense, 32); });
    EXPECT_EQ(s, 0xFFFFFFFFu);
    EXPECT_EQ(Own(out), "/dev/sdb is not an sg device, or old sg driver\n");
}

TEST_F(ScsiTest, ReadCapacityWhoseIoctlFailsIsAnError) {
    Use(Fabric(R"({"lun":0,"block":"sdb","sg_fail":true})"));
    HBA_STATUS s = 0;
    const std::string err = CaptureErr([&] { s = mirvak_SendReadCapacity(handle, kPort, 0, rsp, 32, sense, 32); });
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(err, "sg_simple0: Inquiry SG_IO ioctl error: Input/output error\n");
}

TEST_F(ScsiTest, ReadCapacityWithAnInvalidHandlePassesTheLookupStatusOn) {
    Use(Fabric(kTwoLuns));
    EXPECT_EQ(mirvak_SendReadCapacity(0xFFFFFFFFu, kPort, 0, rsp, 32, sense, 32), 0xFFFFFFFFu);
    EXPECT_EQ(mirvak_simsg_opens(), 0u);
}

}  // namespace
