// The facade's remote-port queries: the remote ports of a local port, one
// remote port's statistics, the remote ports of a virtual port, and one
// remote port's statistics reached through a virtual port.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "sim/tusksim.h"
#include "facade_keys.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::PortKey;
using testenv::StatsName;
using testenv::VKey;
using testenv::Untouched;

constexpr unsigned int kSizePattern = 0xA5A5A5A5u;
// The block an agent hands to GetRemotePortInfo: 256 KiB from malloc.
constexpr std::size_t kAgentBlock = 0x40000;

// The default fabric (sim/FABRIC.md).
const uint8_t kA1Port0[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x00};
const uint8_t kA1V1[8] = {0x28, 0x01, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA1V2[8] = {0x28, 0x02, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA1P0R0[8] = {0x50, 0x0a, 0x09, 0x80, 0x00, 0xa1, 0x00, 0x01};
const uint8_t kA1P0R1[8] = {0x50, 0x0a, 0x09, 0x80, 0x00, 0xa1, 0x00, 0x02};
const uint8_t kA1P0R3[8] = {0x50, 0x0a, 0x09, 0x80, 0x00, 0xa1, 0x00, 0x03};
const uint8_t kA1V2R0[8] = {0x50, 0x06, 0x01, 0x60, 0x00, 0xa1, 0x03, 0x01};
const uint8_t kA1V2R1[8] = {0x50, 0x06, 0x01, 0x60, 0x00, 0xa1, 0x03, 0x02};
const uint8_t kA4V2[8] = {0x28, 0x02, 0x00, 0x1b, 0x9e, 0xb4, 0x00, 0x00};
const uint8_t kUnknown[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xff, 0xff, 0xff};

// The records as the standard face and the extended interface give them,
// put together by hand on a handle of the test's own.
struct Reference {
    explicit Reference(const char* name) : name(name), handle(mirvak_OpenAdapter(name)) {}
    ~Reference() {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
    }
    // The remote ports of local port `port`, one working attribute record
    // for all of them.
    std::vector<port_info> RemotesByNumber(uint32_t port) {
        HBA_PORTATTRIBUTES attr, remote;
        std::memset(&attr, 0, sizeof attr);
        std::memset(&remote, 0, sizeof remote);
        EXPECT_EQ(mirvak_GetAdapterPortAttributes(handle, port, &attr), 0u);
        std::vector<port_info> recs(attr.NumberofDiscoveredPorts);
        for (uint32_t i = 0; i < recs.size(); ++i) {
            EXPECT_EQ(mirvak_GetDiscoveredPortAttributes(handle, port, i, &remote), 0u);
            std::memset(&recs[i], 0, sizeof recs[i]);
            std::strcpy(recs[i].adapter_name, name);
            std::memcpy(&recs[i].attributes, &remote, sizeof remote);
            recs[i].rport_index = i;
            recs[i].port_num = port;
            EXPECT_EQ(mirvak_GetKXDiscoveredPortAttributes(handle, port, i, &recs[i]), 0u);
        }
        return recs;
    }
    // The live targets of a local or virtual port.
    std::vector<port_info> RemotesOf(const uint8_t* wwpn) {
        port_info* list = nullptr;
        unsigned int n = 0;
        EXPECT_EQ(mirvak_GetAllRPortsForVPort(handle, wwpn, &list, &n, nullptr, false), 0u);
        std::vector<port_info> recs(list, list + n);
        std::free(list);
        return recs;
    }
    port_stats DiscoveredStats(const vport_in& key) {
        port_stats s;
        std::memset(&s, 0, sizeof s);
        EXPECT_EQ(mirvak_GetDiscoveredPortStats(handle, &key, &s), 0u);
        return s;
    }
    const char* name;
    HBA_HANDLE handle;
};

// Driver calls of one operation that fn makes.
uint64_t CallsOf(const char* op, const std::function<void()>& fn) {
    testenv::ResetCalls();
    fn();
    const uint64_t n = Calls(op);
    testenv::ResetCalls();
    return n;
}

class FacadeRemotePortsTest : public testenv::SimTest {
protected:
    void Start(const std::string& fabric = "") {
        if (fabric.empty()) UseDefaultFabric(); else UseFabric(fabric);
        fcoe.emplace();
        testenv::ResetCalls();
        Fill(buf.data(), buf.size());
        std::free(block);
        block = static_cast<char*>(std::malloc(kAgentBlock));
        ASSERT_NE(block, nullptr);
        Fill(block, kAgentBlock);
        agent_block = block;
    }
    void TearDown() override {
        std::free(block);
        fcoe.reset();
        SimTest::TearDown();
    }
    template <class Fn>
    int Run(Fn fn) {
        int rc = -12345;
        out = CaptureOut([&] { rc = fn(); });
        return rc;
    }
    void ExpectOpenedAndClosedOnce() {
        EXPECT_EQ(Calls("open_adapter_str"), 1u);
        EXPECT_EQ(Calls("close_adapter"), 1u);
        EXPECT_EQ(tusksim_open_handles(), 0u);
    }
    void ExpectNothingWritten() {
        EXPECT_EQ(size, kSizePattern);
        EXPECT_TRUE(Untouched(buf.data(), buf.size()));
        EXPECT_EQ(block, agent_block);
        EXPECT_TRUE(Untouched(block, kAgentBlock));
    }
    // The adapter is still open: close the handle the request left behind.
    void ExpectLeftOpenAndClose() {
        EXPECT_EQ(Calls("close_adapter"), 0u);
        ASSERT_EQ(tusksim_open_handles(), 1u);
        EXPECT_EQ(mirvak_CloseAdapter(tusksim_last_handle()), HBA_STATUS_OK);
        EXPECT_EQ(tusksim_open_handles(), 0u);
    }
    template <class T>
    T Rec(const void* from, std::size_t index) const {
        T rec;
        std::memcpy(&rec, static_cast<const uint8_t*>(from) + index * sizeof(T), sizeof rec);
        return rec;
    }
    port_stats Stats() const { return Rec<port_stats>(buf.data(), 0); }

    std::optional<MvFCoEIni> fcoe;
    std::vector<uint8_t> buf = std::vector<uint8_t>(4096);
    unsigned int size = kSizePattern;
    char* block = nullptr;        // *buf as the agent hands it in
    char* agent_block = nullptr;  // what the agent allocated
    std::string out;
};

// ------------------------------------------------------- GetRemotePortInfo

TEST_F(FacadeRemotePortsTest, RemotePortsOfAPortByNumberAreWrittenIntoTheAgentsBlock) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 0);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortInfo(&key, &block, &size); }), 0);
    // Three targets counted (whatever their state): three records, written
    // where *buf already pointed; nothing was allocated for them.
    EXPECT_EQ(size, 3 * 972u);
    EXPECT_EQ(block, agent_block);
    EXPECT_TRUE(Untouched(block + 3 * 972, kAgentBlock - 3 * 972));
    const auto r0 = Rec<port_info>(block, 0);
    EXPECT_STREQ(r0.adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(r0.port_num, 0u);
    EXPECT_EQ(r0.rport_index, 0u);
    EXPECT_EQ(std::memcmp(r0.attributes.PortWWN.wwn, kA1P0R0, 8), 0);
    EXPECT_EQ(r0.attributes.PortFcId, 0x010b01u);
    EXPECT_EQ(r0.attributes.PortState, 2u);
    EXPECT_STREQ(r0.role, "target");
    EXPECT_EQ(r0.lnode_id, 101010004u);
    EXPECT_EQ(r0.rnode_byte_12, 17u);
    EXPECT_EQ(Rec<port_info>(block, 1).rport_index, 1u);
    EXPECT_EQ(Rec<port_info>(block, 2).rport_index, 2u);
    ExpectOpenedAndClosedOnce();

    Reference r("/dev/tuskstor1");
    const auto want = r.RemotesByNumber(0);
    ASSERT_EQ(want.size(), 3u);
    EXPECT_EQ(std::memcmp(block, want.data(), 3 * 972), 0);
}

TEST_F(FacadeRemotePortsTest, RemotePortsByNumberShareOneWorkingAttributeRecord) {
    // The standard reader skips the offline target (writing its WWNs into
    // the working record) and finds no third live target; the third record
    // carries what the earlier calls left, under the FCoE fields of the
    // target the extended reader numbers 2.
    Start();
    port_info key = PortKey("/dev/tuskstor1", 0);
    ASSERT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 0);
    const auto r1 = Rec<port_info>(block, 1);
    EXPECT_EQ(std::memcmp(r1.attributes.PortWWN.wwn, kA1P0R3, 8), 0);
    EXPECT_STREQ(r1.role, "");  // number 1 is the offline target: never chosen
    const auto r2 = Rec<port_info>(block, 2);
    EXPECT_EQ(std::memcmp(r2.attributes.PortWWN.wwn, kA1P0R1, 8), 0);
    EXPECT_EQ(r2.attributes.PortState, 6u);
    EXPECT_EQ(r2.attributes.PortFcId, 0x010b04u);
    EXPECT_STREQ(r2.role, "target");
    EXPECT_EQ(r2.rnode_byte_12, 20u);
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAPortWithoutDiscoveredPortsAnswerZeroBytes) {
    Start();
    // Instance 4, position 4: an offline virtual port without remote nodes.
    port_info key = PortKey("/dev/tuskstor4", 4);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(block, agent_block);
    EXPECT_TRUE(Untouched(block, kAgentBlock));
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAPortNumberBeyondEveryPortAnswerZeroBytes) {
    Start();
    for (uint32_t port : {5u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(port);
        testenv::ResetCalls();
        port_info key = PortKey("/dev/tuskstor1", port);
        EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 0);
        EXPECT_EQ(size, 0u);
        EXPECT_TRUE(Untouched(block, kAgentBlock));
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeRemotePortsTest, RemotePortsMapAFailingPortReaderAsAPortRequest) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);  // the port reader answers 6
    port_info key = PortKey("/dev/tuskstor1", 0);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsMapAFailingRemoteReaderAsARemotePortRequest) {
    Start();
    uint64_t port_reader = 0, first_remote = 0;
    {
        Reference r("/dev/tuskstor1");
        HBA_PORTATTRIBUTES a;
        std::memset(&a, 0, sizeof a);
        port_reader = CallsOf("tusk_get_lnode_info", [&] { mirvak_GetAdapterPortAttributes(r.handle, 0, &a); });
        first_remote =
            CallsOf("tusk_get_lnode_info", [&] { mirvak_GetDiscoveredPortAttributes(r.handle, 0, 0, &a); });
    }
    port_info key = PortKey("/dev/tuskstor1", 0);
    // The standard remote reader of remote port 0 fails (it answers 6).
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", port_reader + 1, -5, 0), 0);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 293);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
    // The extended reader of remote port 0 fails (it answers 6).
    tusksim_clear_faults();
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", port_reader + first_remote + 1, -5, 0), 0);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 293);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAPortByWwnComeFromTheExtendedListing) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 9, kA1Port0);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortInfo(&key, &block, &size); }), 0);
    // Three targets counted; the listing ends at the offline one.
    EXPECT_EQ(size, 3 * 972u);
    EXPECT_EQ(block, agent_block);
    EXPECT_TRUE(Untouched(block + 3 * 972, kAgentBlock - 3 * 972));
    const auto r0 = Rec<port_info>(block, 0);
    EXPECT_STREQ(r0.adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(r0.port_num, 0u);  // the local port's own number, not the key's
    EXPECT_EQ(std::memcmp(r0.attributes.PortWWN.wwn, kA1P0R0, 8), 0);
    const auto r1 = Rec<port_info>(block, 1);
    EXPECT_EQ(r1.attributes.PortState, 3u);
    EXPECT_EQ(std::memcmp(r1.attributes.PortWWN.wwn, kA1P0R1, 8), 0);
    const std::vector<uint8_t> zero(972, 0);
    EXPECT_EQ(std::memcmp(block + 2 * 972, zero.data(), 972), 0);
    ExpectOpenedAndClosedOnce();

    // The same bytes as the extended function gives on its own.
    std::vector<char> raw(kAgentBlock, 0x5a);
    char* p = raw.data();
    unsigned int n = 0;
    {
        Reference r("/dev/tuskstor1");
        EXPECT_EQ(mirvak_GetKXDiscoveredPortAttributes_by_wwpn(r.handle, &key, &p, &n, nullptr), 0u);
    }
    EXPECT_EQ(n, size);
    EXPECT_EQ(std::memcmp(block, raw.data(), n), 0);
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAnUnknownWwnMapAsARemotePortRequest) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 0, kUnknown);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortInfo(&key, &block, &size); }), 293);
    EXPECT_EQ(out, "tusk_get_lnode_info_by_fcid failed\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAWwnWithoutTargetsAnswer293) {
    Start();
    port_info key = PortKey("/dev/tuskstor4", 0, kA4V2);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 293);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    for (const uint8_t* wwn : {static_cast<const uint8_t*>(nullptr), kA1Port0}) {
        port_info key = PortKey("/dev/tuskstor2", 0, wwn);
        EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, &size), 286);
    }
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info") + Calls("tusk_get_lnode_info_by_fcid"), 0u);
}

TEST_F(FacadeRemotePortsTest, RemotePortsWithNullPointersAnswerBadArgument) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 0);
    char* none = nullptr;
    EXPECT_EQ(fcoe->GetRemotePortInfo(nullptr, &block, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &block, nullptr), FCOE_ERR_BAD_ARGUMENT);
    // Both ways write through *buf: a null one is refused too.
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &none, &size), FCOE_ERR_BAD_ARGUMENT);
    key = PortKey("/dev/tuskstor1", 0, kA1Port0);
    EXPECT_EQ(fcoe->GetRemotePortInfo(&key, &none, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(none, nullptr);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ------------------------------------------------- GetRemotePortStatistics

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsByNumbersCarryTheKeysNumbers) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 7, 1);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortStatistics(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 432u);
    EXPECT_TRUE(Untouched(buf.data() + 432, buf.size() - 432));
    const port_stats s = Stats();
    EXPECT_EQ(StatsName(s), "/dev/tuskstor1");
    EXPECT_EQ(s.port_num, 0u);
    EXPECT_EQ(s.rport_index, 1u);
    // Target number 1 of port 0: the offline "TARGET" (targets count
    // whatever their state here).
    EXPECT_EQ(s.counter0, 101021424u);
    EXPECT_EQ(s.counter1, 101021432u);
    EXPECT_EQ(s.rcounter0, 101021408u);
    EXPECT_EQ(out, "");
    ExpectOpenedAndClosedOnce();

    Reference r("/dev/tuskstor1");
    port_stats want = r.DiscoveredStats(key);
    std::strcpy(reinterpret_cast<char*>(want.reserved_0), "/dev/tuskstor1");
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsWithNumbersBeyondEveryPortCarryTheKeysNumbersOnly) {
    // No local port has that number: the extended function answers 0 with
    // nothing filled, and the answer holds the name and the key's numbers.
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0xFFFF, 0xFFFF, 0xFFFF);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 432u);
    port_stats want;
    std::memset(&want, 0, sizeof want);
    std::strcpy(reinterpret_cast<char*>(want.reserved_0), "/dev/tuskstor1");
    want.port_num = 0xFFFF;
    want.rport_index = 0xFFFF;
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsByWwnsKeepTheNumbersTheExtendedFunctionWrote) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0, kA1V2, kA1V2R1);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 432u);
    const port_stats s = Stats();
    EXPECT_EQ(StatsName(s), "/dev/tuskstor1");
    EXPECT_EQ(s.port_num, 1u);     // the virtual port's own port number
    EXPECT_EQ(s.rport_index, 1u);  // one target passed before it
    EXPECT_EQ(s.counter0, 105021424u);
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    port_stats want = r.DiscoveredStats(key);
    std::strcpy(reinterpret_cast<char*>(want.reserved_0), "/dev/tuskstor1");
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsWithOnlyAVirtualPortWwnKeepTheExtendedNumbers) {
    // The remote WWPN is not given: the extended function searches by
    // numbers, and the facade leaves offsets 256..263 as it wrote them.
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0xFFFF, kA1V2);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&key, buf.data(), &size), 0);
    const port_stats s = Stats();
    EXPECT_EQ(s.port_num, 0u);
    EXPECT_EQ(s.rport_index, 0u);  // not the key's 0xFFFF
    EXPECT_EQ(s.counter0, 0u);
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsOfAnUnknownVirtualPortAnswer293) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0, kUnknown, kA1V2R0);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortStatistics(&key, buf.data(), &size); }), 293);  // status 5
    EXPECT_EQ(out, "mirvak_GetDiscoveredPortStats:: Error Fetching LNode Info\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsOfAMissingTargetAnswer293) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0, kA1V2, kUnknown);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortStatistics(&key, buf.data(), &size); }), 293);  // status 6
    EXPECT_EQ(out, "mirvak_GetDiscoveredPortStats:: No RNode Info Obtained\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsByNumbersWhoseLocalListFailsAnswer293) {
    // Port 0 has no target number 3; the query after its only local node
    // fails (status 6).
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 2, -5, 0), 0);
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 3);
    EXPECT_EQ(Run([&] { return fcoe->GetRemotePortStatistics(&key, buf.data(), &size); }), 293);
    EXPECT_EQ(out,
              "mirvak_GetDiscoveredPortStats:: Error Fetching LNode Info"
              "mirvak_GetDiscoveredPortStats:: No RNode Info Obtained\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortStatisticsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    vport_in key = VKey("/dev/tuskstor0", 0, 0, 0);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 0u);
}

// -------------------------------------------------------- GetRPortForVPort

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortByWwnInANewBlock) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 5, 6, 7, kA1V2);
    char* answer = nullptr;
    EXPECT_EQ(Run([&] { return fcoe->GetRPortForVPort(&key, &answer, &size); }), 0);
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(size, 2 * 972u);
    const auto r0 = Rec<port_info>(answer, 0);
    const auto r1 = Rec<port_info>(answer, 1);
    EXPECT_STREQ(r0.adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(r0.rport_index, 0u);
    EXPECT_EQ(r1.rport_index, 1u);
    EXPECT_EQ(r0.port_num, 0u);  // left as the extended function wrote it
    EXPECT_EQ(std::memcmp(r0.attributes.PortWWN.wwn, kA1V2R0, 8), 0);
    EXPECT_EQ(std::memcmp(r1.attributes.PortWWN.wwn, kA1V2R1, 8), 0);
    EXPECT_STREQ(r1.role, "target");
    EXPECT_EQ(out, "");
    ExpectOpenedAndClosedOnce();

    Reference r("/dev/tuskstor1");
    auto want = r.RemotesOf(kA1V2);
    ASSERT_EQ(want.size(), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        std::strcpy(want[i].adapter_name, "/dev/tuskstor1");
        want[i].rport_index = i;
    }
    EXPECT_EQ(std::memcmp(answer, want.data(), 2 * 972), 0);
    std::free(answer);
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortByIndexCarryTheIndex) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 1, 7);
    char* answer = nullptr;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 0);
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(size, 2 * 972u);
    std::vector<port_info> want;
    {
        Reference r("/dev/tuskstor1");
        want = r.RemotesOf(kA1V2);  // virtual port 1 of port 1
    }
    ASSERT_EQ(want.size(), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        std::strcpy(want[i].adapter_name, "/dev/tuskstor1");
        want[i].port_num = 1;
        want[i].rport_index = i;
    }
    EXPECT_EQ(std::memcmp(answer, want.data(), 2 * 972), 0);
    std::free(answer);

    key = VKey("/dev/tuskstor1", 1, 0, 0);
    testenv::ResetCalls();
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 0);
    EXPECT_EQ(size, 972u);
    EXPECT_EQ(Rec<port_info>(answer, 0).port_num, 0u);
    EXPECT_EQ(Rec<port_info>(answer, 0).attributes.PortFcId, 0x010d03u);
    ExpectOpenedAndClosedOnce();
    std::free(answer);
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortWithoutRemotePortsAnswer290AndSizeZero) {
    Start();
    vport_in key = VKey("/dev/tuskstor4", 0, 1, 0);  // the offline virtual port without remote nodes
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 290);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(answer, agent_block);  // *buf is left alone
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortByWwnMapTheListingStatusAsAPortRequest) {
    Start();
    // No remote port (6) and an unknown WWPN (the driver's -ENOENT): 291.
    for (const uint8_t* wwn : {kA4V2, kUnknown}) {
        testenv::ResetCalls();
        vport_in key = VKey("/dev/tuskstor4", 0, 0, 0, wwn);
        char* answer = agent_block;
        EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 291);
        EXPECT_EQ(answer, agent_block);
        EXPECT_EQ(size, kSizePattern);
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortOfAFlaggedPortAnswer291) {
    Start();
    vport_in key = VKey("/dev/tuskstor4", 1, 0, 0);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 291);
    EXPECT_EQ(answer, agent_block);
    EXPECT_EQ(size, kSizePattern);
    ExpectOpenedAndClosedOnce();
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortOfAPortWithoutVirtualPortsAnswer289) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 289);
    EXPECT_EQ(answer, agent_block);
    EXPECT_EQ(size, kSizePattern);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortIndexAtOrPastTheCountAnswer296) {
    Start();
    const uint8_t kA1Port1[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
    uint64_t listing = 0;
    {
        Reference r("/dev/tuskstor1");
        port_info two[2];
        listing = CallsOf("tusk_get_lnode_info_by_fcid",
                          [&] { EXPECT_EQ(mirvak_GetAllVPortsForPort(r.handle, kA1Port1, two, 2), 0u); });
    }
    for (uint16_t index : {2, 3, 0xFFFF}) {
        SCOPED_TRACE(index);
        testenv::ResetCalls();
        vport_in key = VKey("/dev/tuskstor1", 1, index, 0);
        char* answer = agent_block;
        EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 296);
        EXPECT_EQ(answer, agent_block);
        EXPECT_EQ(size, kSizePattern);
        ExpectOpenedAndClosedOnce();
        // No remote-port listing after the virtual-port listing.
        EXPECT_EQ(Calls("tusk_get_lnode_info_by_fcid"), listing);
    }
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortDoNotTestTheListingStatus) {
    // The driver reports 3 virtual ports where the port counts 2: the
    // listing refuses (1), the array stays zero, and the zero WWPN has no
    // remote ports: 290.
    Start(R"({"adapters":[{"instance":2,"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1,"npiv_reported_count":3,"word_28":2},
      {"port_num":0,"port_wwn":"2800000000000201","lnode_id":2,"parent":"2100000000000201",
       "rnodes":[{"port_wwn":"5000000000000001"}]},
      {"port_num":0,"port_wwn":"2800000000000202","lnode_id":3,"parent":"2100000000000201"}]}]})");
    vport_in key = VKey("/dev/tuskstor2", 0, 0, 0);
    char* answer = agent_block;
    EXPECT_EQ(Run([&] { return fcoe->GetRPortForVPort(&key, &answer, &size); }), 290);
    EXPECT_NE(out.find("Invalid LNode WWPN!\n"), std::string::npos) << out;
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(answer, agent_block);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortWithAnImpossibleCountAnswerMinusOne) {
    // The port's virtual-port count is the driver's word: one far beyond
    // any port is answered as a failed allocation of the working array.
    Start(R"({"adapters":[{"instance":2,"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1,"word_28":4294967295}]}]})");
    vport_in key = VKey("/dev/tuskstor2", 0, 0, 0);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), -1);
    EXPECT_EQ(answer, agent_block);
    EXPECT_EQ(size, kSizePattern);
    ExpectOpenedAndClosedOnce();
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortMapALocalPortFailureAsAPortRequest) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 291);
    EXPECT_EQ(answer, agent_block);
    ExpectOpenedAndClosedOnce();
    // The extended port fields of a port the hardware lists but the driver
    // has no local node for (6).
    Start(R"({"adapters":[{"instance":2,"hw":{"ports":[{"speed":8},{"speed":8}]},"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1}]}]})");
    key = VKey("/dev/tuskstor2", 1, 0, 0);
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 291);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, RemotePortsOfAVirtualPortOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    vport_in key = VKey("/dev/tuskstor7", 1, 0, 0, kA1V2);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, &size), 286);
    EXPECT_EQ(answer, agent_block);
    EXPECT_EQ(size, kSizePattern);
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// ---------------------------------------------- GetVirRemotePortStatistics

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsByWwns) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 9, 9, 7, kA1V2, kA1V2R1);
    EXPECT_EQ(Run([&] { return fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 432u);
    EXPECT_TRUE(Untouched(buf.data() + 432, buf.size() - 432));
    port_stats want;
    std::memset(&want, 0, sizeof want);
    std::strcpy(reinterpret_cast<char*>(want.reserved_0), "/dev/tuskstor1");
    want.rport_index = 7;  // the key's, whatever the target's place
    want.counter0 = 105021424;
    want.counter1 = 105021432;
    want.counter2 = 105021436;
    want.counter3 = 105021440;
    want.rcounter0 = 105021408;
    want.rcounter1 = 105021412;
    want.rcounter2 = 105021416;
    want.rcounter3 = 105021420;
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
    EXPECT_EQ(out, "");
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsByWwnsOfAnUnknownVirtualPortAnswer293) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0, kUnknown, kA1V2R1);
    EXPECT_EQ(Run([&] { return fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size); }), 293);  // status 5
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsByWwnsOfAMissingTargetAnswer1) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0, kA1V2, kUnknown);
    EXPECT_EQ(Run([&] { return fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size); }), 1);  // status 1
    EXPECT_EQ(out, "mirvak_GetDiscoveredPortStats:: No RNode Info Obtained\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsByIndexWhoseLocalListClosesCarryTheNameOnly) {
    // Instance 4, port 0: the target is found on the physical port, the
    // local-node list then closes normally and the extended function
    // answers 0 with the record unfilled.
    Start();
    vport_in key = VKey("/dev/tuskstor4", 0, 0, 1);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 432u);
    port_stats want;
    std::memset(&want, 0, sizeof want);
    std::strcpy(reinterpret_cast<char*>(want.reserved_0), "/dev/tuskstor4");
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsByIndexWhoseLocalListFailsCarryTheLastCounters) {
    Start();
    vport_in key = VKey("/dev/tuskstor4", 0, 1, 1);
    // Measure the local-node queries before the statistics' own walk; then
    // fail the query that follows the physical port, where target 1 was
    // found.
    uint64_t before = 0;
    {
        testenv::ResetCalls();
        ASSERT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 0);
        const uint64_t total = Calls("tusk_get_lnode_info");
        Reference r("/dev/tuskstor4");
        port_stats s;
        before = total - CallsOf("tusk_get_lnode_info",
                                 [&] { mirvak_GetRPortsStatsForVPort(r.handle, nullptr, &s, &key); });
    }
    Fill(buf.data(), buf.size());
    size = kSizePattern;
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", before + 2, -5, 0), 0);
    EXPECT_EQ(Run([&] { return fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: Error Fetching LNode Info");
    EXPECT_EQ(size, 432u);
    const port_stats s = Stats();
    EXPECT_EQ(StatsName(s), "/dev/tuskstor4");
    EXPECT_EQ(s.rport_index, 1u);
    EXPECT_EQ(s.port_num, 0u);
    // The last remote node read: target 1 of the physical port.
    EXPECT_EQ(s.counter0, 401021424u);
    EXPECT_EQ(s.counter3, 401021440u);
    EXPECT_EQ(s.rcounter3, 401021420u);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsByIndexOfAMissingTargetAnswer1) {
    // Instance 1, port 1: the stale entry comes first and has no target.
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0);
    EXPECT_EQ(Run([&] { return fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size); }), 1);
    EXPECT_EQ(out, "mirvak_GetRPortsStatsForVPort:: No RNode Info Obtained\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsOfAFlaggedPortAnswer291) {
    Start();
    vport_in key = VKey("/dev/tuskstor4", 1, 0, 0);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsOfAPortWithoutVirtualPortsAnswer295) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 295);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsWithAnIndexPastTheCountAnswer295AndLeaveTheAdapterOpen) {
    Start();
    for (uint16_t index : {3, 0xFFFF}) {
        SCOPED_TRACE(index);
        testenv::ResetCalls();
        vport_in key = VKey("/dev/tuskstor1", 1, index, 0);
        EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 295);
        ExpectNothingWritten();
        EXPECT_EQ(Calls("open_adapter_str"), 1u);
        EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
        ExpectLeftOpenAndClose();
    }
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsWithAnIndexEqualToTheCountAnswer296) {
    // Passes the count test but names no virtual port: nothing past the
    // array is read, and the adapter is closed.
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 2, 0);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 296);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsWithAnImpossibleCountAnswer2) {
    Start(R"({"adapters":[{"instance":2,"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1,"word_28":65536}]}]})");
    vport_in key = VKey("/dev/tuskstor2", 0, 0, 0);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 2);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsMapALocalPortFailure) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 291);  // status 6, virtual-port request
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeRemotePortsTest, VirtualRemotePortStatisticsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    vport_in key = VKey("/dev/tuskstor3", 1, 0, 0, kA1V2, kA1V2R0);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// ---------------------------------------------------------- keys and nulls

TEST_F(FacadeRemotePortsTest, KeysWhoseNameHasNoNulAnswer286) {
    Start();
    port_info pkey = PortKey("/dev/tuskstor1", 0);
    std::memset(pkey.adapter_name + 14, '1', sizeof pkey.adapter_name - 14);
    pkey.port_num = 0x31313131;  // more digits right behind the field
    vport_in vkey = VKey("/dev/tuskstor1", 0x3131, 0x3131, 0x3131);
    std::memset(vkey.adapter_name + 14, '1', sizeof vkey.adapter_name - 14);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRemotePortInfo(&pkey, &block, &size), 286);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&vkey, buf.data(), &size), 286);
    EXPECT_EQ(fcoe->GetRPortForVPort(&vkey, &answer, &size), 286);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&vkey, buf.data(), &size), 286);
    EXPECT_EQ(answer, agent_block);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("open_adapter_str"), 4u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadeRemotePortsTest, RemotePortMethodsWithNullPointersAnswerBadArgument) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0);
    char* answer = agent_block;
    EXPECT_EQ(fcoe->GetRemotePortStatistics(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRemotePortStatistics(&key, buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRPortForVPort(nullptr, &answer, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetRPortForVPort(&key, &answer, nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirRemotePortStatistics(&key, buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(answer, agent_block);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

}  // namespace
