// The remote ports' bsg nodes of the simulated host: /dev/bsg/rport-H:0-M
// answers the FC transport's Read Link Status request as the kernel's
// transport carries it (an sg_io_v4 with an fc_bsg_request), refuses it
// for a remote port that is not online, and rejects other requests.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/bsg.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "bsg_rport.h"
#include "sim_env.h"

namespace {

constexpr const char* kFabric = R"({"adapters":[{"instance":0,"lnodes":[{"port_wwn":"2100000000000a01",
  "rnodes":[{"port_wwn":"5000000000000e01","fcid":"0x010203","luns":[{"lun":0,"block":"sdb"}]},
            {"port_wwn":"5000000000000e02","state":"OFFLINE"}]}]}]})";

class HostBsg : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        UseFabric(kFabric);
    }
};

struct Exchange {
    int ioctl_result = -1;
    int error = 0;
    sim::sg::FcBsgReply reply{};
    std::vector<uint8_t> data = std::vector<uint8_t>(64, 0xA5);
    sg_io_v4 io{};
};

// One request of msgcode / els_code to the node at path.
Exchange Send(const char* path, uint32_t msgcode, uint8_t els_code) {
    Exchange x;
    const int fd = open(path, O_RDWR);
    EXPECT_GE(fd, 0) << path << ": " << std::strerror(errno);
    if (fd < 0) return x;
    uint8_t request[20] = {};
    std::memcpy(request, &msgcode, sizeof msgcode);
    request[4] = els_code;
    uint8_t payload[8] = {els_code, 0, 0, 0, 0, 0x01, 0x02, 0x03};
    x.io.guard = 'Q';
    x.io.protocol = BSG_PROTOCOL_SCSI;
    x.io.subprotocol = BSG_SUB_PROTOCOL_SCSI_TRANSPORT;
    x.io.request = reinterpret_cast<uintptr_t>(request);
    x.io.request_len = sizeof request;
    x.io.response = reinterpret_cast<uintptr_t>(&x.reply);
    x.io.max_response_len = sizeof x.reply;
    x.io.dout_xferp = reinterpret_cast<uintptr_t>(payload);
    x.io.dout_xfer_len = sizeof payload;
    x.io.din_xferp = reinterpret_cast<uintptr_t>(x.data.data());
    x.io.din_xfer_len = static_cast<uint32_t>(x.data.size());
    x.ioctl_result = ioctl(fd, SG_IO, &x.io);
    x.error = errno;
    close(fd);
    return x;
}

TEST_F(HostBsg, ReadLinkStatusOfAnOnlineRemotePortIsAccepted) {
    const Exchange x = Send("/dev/bsg/rport-0:0-0", sim::sg::kFcBsgRportEls, sim::sg::kElsRls);
    ASSERT_EQ(x.ioctl_result, 0) << std::strerror(x.error);
    EXPECT_EQ(x.reply.result, 0u);
    EXPECT_EQ(x.reply.ctels_status, 0u);
    EXPECT_EQ(x.reply.reply_payload_rcv_len, 28u);
    EXPECT_EQ(x.io.response_len, sizeof x.reply);
    EXPECT_EQ(x.io.din_resid, 64 - 28);
    std::vector<uint8_t> accept(28, 0);
    accept[0] = 0x02;  // LS_ACC, then six link error counts of 0
    EXPECT_EQ(std::vector<uint8_t>(x.data.begin(), x.data.begin() + 28), accept);
    EXPECT_EQ(x.data[28], 0xA5);  // past the answer: untouched
}

TEST_F(HostBsg, ARemotePortThatIsNotOnlineIsRefusedByTheTransport) {
    const Exchange x = Send("/dev/bsg/rport-0:0-1", sim::sg::kFcBsgRportEls, sim::sg::kElsRls);
    ASSERT_EQ(x.ioctl_result, 0);
    EXPECT_EQ(static_cast<int32_t>(x.reply.result), -ENXIO);
    EXPECT_EQ(x.data[0], 0xA5);
}

TEST_F(HostBsg, OtherElsIsRejectedAndOtherRequestsRefused) {
    const Exchange els = Send("/dev/bsg/rport-0:0-0", sim::sg::kFcBsgRportEls, 0x03 /* PLOGI */);
    ASSERT_EQ(els.ioctl_result, 0);
    EXPECT_EQ(els.reply.result, 0u);
    EXPECT_EQ(els.reply.ctels_status, 1u);
    EXPECT_EQ(els.reply.rjt_reason_code, 0x0b);
    EXPECT_EQ(els.data[0], 0x01);  // LS_RJT
    const Exchange ct = Send("/dev/bsg/rport-0:0-0", 0x40000002 /* a CT request */, 0);
    ASSERT_EQ(ct.ioctl_result, 0);
    EXPECT_EQ(static_cast<int32_t>(ct.reply.result), -ENOMSG);
}

TEST_F(HostBsg, OnlyPublishedRemotePortsHaveNodes) {
    errno = 0;
    EXPECT_EQ(open("/dev/bsg/rport-0:0-2", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    const int fd = open("/dev/bsg/rport-0:0-0", O_RDWR);
    ASSERT_GE(fd, 0);
    alignas(8) unsigned char v3[sizeof(sg_io_v4)] = {};
    v3[0] = 'S';  // an sg_io_hdr's interface id where sg_io_v4 has its guard
    EXPECT_EQ(ioctl(fd, SG_IO, v3), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ioctl(fd, 0x1234, nullptr), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(fd);
}

}  // namespace
