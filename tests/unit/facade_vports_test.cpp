// The facade's virtual-port and LUN queries: the virtual ports of a
// physical port, a virtual port's statistics, the LUNs behind a remote port
// of a virtual port, the LUNs of a port; creating and deleting a virtual
// port.
#include <algorithm>
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

// The default fabric (sim/FABRIC.md).
const uint8_t kA1Port0[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x00};
const uint8_t kA1Port1[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA1Node1[8] = {0x20, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA1V1[8] = {0x28, 0x01, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA1V2[8] = {0x28, 0x02, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA1P0R0[8] = {0x50, 0x0a, 0x09, 0x80, 0x00, 0xa1, 0x00, 0x01};
const uint8_t kA1V2R0[8] = {0x50, 0x06, 0x01, 0x60, 0x00, 0xa1, 0x03, 0x01};
const uint8_t kA1V2R1[8] = {0x50, 0x06, 0x01, 0x60, 0x00, 0xa1, 0x03, 0x02};
const uint8_t kA4Port0[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xb4, 0x00, 0x00};
const uint8_t kA4V2[8] = {0x28, 0x02, 0x00, 0x1b, 0x9e, 0xb4, 0x00, 0x00};
const uint8_t kUnknown[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xff, 0xff, 0xff};
// A new virtual port of instance 1's port 1, and its node name.
const uint8_t kNewV[8] = {0x28, 0x03, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kNewVNode[8] = {0x29, 0x03, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};

// Instance 2: physical port 0 (WWPN ..0201, FCF 5) with one target (one
// LUN) and a virtual port whose only target has no LUNs. The state and the
// physical port's extra fields are the test's.
std::string OnePortWithAVirtualPort(const std::string& state, const std::string& phys_extra = "") {
    return R"({"adapters":[{"instance":2,"hw":{"ports":[{"speed":16,"mac":"00:1b:9e:00:02:00"}]},
      "fcfs":[{"fcf_index":5,"vlan":55,"fabric_name":"1000000000000005","max_frame_size":2048}],
      "lnodes":[
       {"port_num":0,"port_wwn":"2100000000000201","node_wwn":"2000000000000201","lnode_id":1,"fcf_index":5,
        "state":")" + state + "\"" + phys_extra + R"(,
        "rnodes":[{"port_wwn":"5000000000000001","luns":[{"lun":0,"vendor":"ACME","block":"sdb","size":100}]}]},
       {"port_num":0,"port_wwn":"2800000000000201","node_wwn":"2900000000000201","lnode_id":2,"fcf_index":5,
        "parent":"2100000000000201","rnodes":[{"port_wwn":"5000000000000002"}]}]}]})";
}
const uint8_t kA2Port0[8] = {0x21, 0, 0, 0, 0, 0, 0x02, 0x01};
const uint8_t kA2V0[8] = {0x28, 0, 0, 0, 0, 0, 0x02, 0x01};

// A port whose virtual-port count is the given driver word.
std::string PortCounting(const std::string& word_28) {
    return R"({"adapters":[{"instance":2,"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1,"word_28":)" + word_28 + "}]}]}";
}

// What the facade writes into each LUN record beside the discovery's fields.
void StampLun(lun_info& l, uint32_t port, uint32_t rport, const char* name) {
    std::memcpy(l.reserved_0, &port, 4);
    std::memcpy(l.reserved_0 + 4, &rport, 4);
    std::strcpy(l.device + 256, name);
}

// The device paths of LUN records, sorted (the discovery gives them in
// directory order).
std::string Devices(const std::vector<lun_info>& luns) {
    std::vector<std::string> names;
    for (const auto& l : luns) names.emplace_back(l.device, strnlen(l.device, 256));
    std::sort(names.begin(), names.end());
    std::string all;
    for (const auto& n : names) all += (all.empty() ? "" : " ") + n;
    return all;
}

// The records as the standard face and the extended interface give them,
// put together by hand on a handle of the test's own.
struct Reference {
    explicit Reference(const char* name) : name(name), handle(mirvak_OpenAdapter(name)) {}
    ~Reference() {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
    }
    // The local port by number, as the virtual-port requests prepare it.
    port_info Local(uint32_t port) {
        HBA_PORTATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        EXPECT_EQ(mirvak_GetAdapterPortAttributes(handle, port, &attr), 0u);
        port_info rec;
        std::memset(&rec, 0, sizeof rec);
        std::strcpy(rec.adapter_name, name);
        rec.port_num = port;
        std::memcpy(&rec.attributes, &attr, sizeof attr);
        EXPECT_EQ(mirvak_GetKXAdapterPortAttributes(handle, port, &rec), 0u);
        return rec;
    }
    std::vector<port_info> VirtualPorts(const uint8_t* phys, uint32_t n) {
        std::vector<port_info> recs(n);
        std::memset(recs.data(), 0, n * sizeof(port_info));
        EXPECT_EQ(mirvak_GetAllVPortsForPort(handle, phys, recs.data(), n), 0u);
        return recs;
    }
    port_stats VirtualStats(const uint8_t* wwpn) {
        port_stats s;
        std::memset(&s, 0, sizeof s);
        EXPECT_EQ(mirvak_GetKXVPortStatistics(handle, wwpn, &s), 0u);
        std::strcpy(reinterpret_cast<char*>(s.reserved_0), name);
        return s;
    }
    std::vector<lun_info> Luns(const uint8_t* local, const uint8_t* remote) {
        lun_info* arr = nullptr;
        unsigned int n = 0;
        EXPECT_EQ(mirvak_GetKXVPortLunInfo_by_wwn(handle, local, remote, &arr, &n), 0u);
        std::vector<lun_info> recs(arr, arr + n);
        std::free(arr);
        return recs;
    }
    std::vector<lun_info> LunsByNumbers(const vport_in& key) {
        int n = 0;
        EXPECT_EQ(mirvak_GetKXLunCount(handle, &key, &n), 0u);
        std::vector<lun_info> recs(static_cast<std::size_t>(n));
        std::memset(recs.data(), 0, recs.size() * sizeof(lun_info));
        EXPECT_EQ(mirvak_GetKXLunInfo(handle, &key, recs.data(), &n), 0u);
        return recs;
    }
    const char* name;
    HBA_HANDLE handle;
};

uint64_t CallsOf(const char* op, const std::function<void()>& fn) {
    testenv::ResetCalls();
    fn();
    const uint64_t n = Calls(op);
    testenv::ResetCalls();
    return n;
}

class FacadeVportsTest : public testenv::SimTest {
protected:
    void Start(const std::string& fabric = "") {
        if (fabric.empty()) UseDefaultFabric(); else UseFabric(fabric);
        fcoe.emplace();
        testenv::ResetCalls();
        Fill(buf.data(), buf.size());
        size = kSizePattern;
        answer = kPlaceholder;
    }
    void TearDown() override {
        if (answer != kPlaceholder) std::free(answer);
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
        EXPECT_EQ(answer, kPlaceholder);
    }
    // A fresh answer block: take it over (freed at the end of the test).
    template <class T>
    std::vector<T> Answer(std::size_t n) {
        EXPECT_NE(answer, kPlaceholder);
        EXPECT_NE(answer, nullptr);
        EXPECT_EQ(size, n * sizeof(T));
        std::vector<T> recs(n);
        if (answer != kPlaceholder && answer != nullptr && size == n * sizeof(T))
            std::memcpy(recs.data(), answer, n * sizeof(T));
        return recs;
    }
    void ForgetAnswer() {
        if (answer != kPlaceholder) std::free(answer);
        answer = kPlaceholder;
        size = kSizePattern;
    }
    port_stats Stats() const {
        port_stats s;
        std::memcpy(&s, buf.data(), sizeof s);
        return s;
    }

    // What *buf holds before a "char**" method: a value no method may free
    // or write through.
    char placeholder_[1] = {0};
    char* const kPlaceholder = placeholder_;

    std::optional<MvFCoEIni> fcoe;
    std::vector<uint8_t> buf = std::vector<uint8_t>(2048);
    unsigned int size = kSizePattern;
    char* answer = nullptr;
    std::string out;
};

// ------------------------------------------------------- GetVirPortForPort

TEST_F(FacadeVportsTest, VirtualPortsOfAPortByNumberTakeThePhysicalPortsFields) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 1);
    EXPECT_EQ(Run([&] { return fcoe->GetVirPortForPort(&key, &answer, &size); }), 0);
    const auto got = Answer<port_info>(2);
    EXPECT_STREQ(got[0].adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(got[0].port_num, 0u);
    EXPECT_EQ(got[1].port_num, 1u);
    EXPECT_EQ(got[0].rport_index, 0u);
    EXPECT_EQ(got[1].rport_index, 1u);
    EXPECT_EQ(std::memcmp(got[0].attributes.PortWWN.wwn, kA1V1, 8), 0);
    EXPECT_EQ(std::memcmp(got[1].attributes.PortWWN.wwn, kA1V2, 8), 0);
    // From the physical port (FCF 34, host1, speed code 8).
    const uint8_t fabric[8] = {0x10, 0x00, 0x00, 0x1b, 0x9e, 0xf0, 0x00, 0x22};
    for (const auto& v : got) {
        EXPECT_EQ(std::memcmp(v.attributes.FabricName.wwn, fabric, 8), 0);
        EXPECT_EQ(v.attributes.PortMaxFrameSize, 2048u);
        EXPECT_EQ(v.attributes.PortSpeed, 4u);
        EXPECT_EQ(v.vlan_id, 102);
        EXPECT_STREQ(v.attributes.OSDeviceName, "/sys/class/fc_host/host1");
    }
    ExpectOpenedAndClosedOnce();

    std::vector<port_info> want;
    port_info local;
    {
        Reference r("/dev/tuskstor1");
        local = r.Local(1);
        want = r.VirtualPorts(kA1Port1, 2);
    }
    for (uint32_t i = 0; i < 2; ++i) {
        std::strcpy(want[i].adapter_name, "/dev/tuskstor1");
        want[i].rport_index = i;
        want[i].attributes.PortSpeed = local.attributes.PortSpeed;
        want[i].attributes.PortMaxFrameSize = local.attributes.PortMaxFrameSize;
        want[i].attributes.FabricName = local.attributes.FabricName;
        want[i].vlan_id = local.vlan_id;
        std::strcpy(want[i].attributes.OSDeviceName, local.attributes.OSDeviceName);
    }
    EXPECT_EQ(std::memcmp(got.data(), want.data(), 2 * 972), 0);
}

TEST_F(FacadeVportsTest, VirtualPortsOfAPortByWwnAnswerAsByNumber) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 1);
    ASSERT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 0);
    const auto by_number = Answer<port_info>(2);
    ForgetAnswer();
    testenv::ResetCalls();
    // The key as GetPortInfo answers it: the WWN and the port's number
    // (which the stale-entry look-ahead of the WWN search passes over).
    key = PortKey("/dev/tuskstor1", 1, kA1Port1);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 0);
    const auto by_wwn = Answer<port_info>(2);
    EXPECT_EQ(std::memcmp(by_wwn.data(), by_number.data(), 2 * 972), 0);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortsOfAnOfflineOrDownPortKeepOnlyTheirOwnFields) {
    for (const char* state : {"OFFLINE", "UNINIT"}) {
        SCOPED_TRACE(state);
        Start(OnePortWithAVirtualPort(state));
        port_info key = PortKey("/dev/tuskstor2", 0);
        EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 0);
        const auto got = Answer<port_info>(1);
        ExpectOpenedAndClosedOnce();
        std::vector<port_info> want;
        {
            Reference r("/dev/tuskstor2");
            want = r.VirtualPorts(kA2Port0, 1);
        }
        std::strcpy(want[0].adapter_name, "/dev/tuskstor2");
        EXPECT_EQ(std::memcmp(got.data(), want.data(), 972), 0);
        EXPECT_EQ(got[0].attributes.OSDeviceName[0], 0);
        EXPECT_EQ(got[0].vlan_id, 0);
        EXPECT_EQ(got[0].attributes.PortMaxFrameSize, 0u);
        EXPECT_EQ(got[0].attributes.PortSpeed, 19u);  // its own, from the port table
        ForgetAnswer();
    }
}

TEST_F(FacadeVportsTest, VirtualPortsOfAPortWithoutADeviceNameTakeTheAdapterName) {
    Start(OnePortWithAVirtualPort("READY", R"(,"scsi_host":-1)"));
    port_info key = PortKey("/dev/tuskstor2", 0);
    EXPECT_EQ(Run([&] { return fcoe->GetVirPortForPort(&key, &answer, &size); }), 0);
    const auto got = Answer<port_info>(1);
    EXPECT_STREQ(got[0].attributes.OSDeviceName, "/dev/tuskstor2");
    EXPECT_EQ(got[0].vlan_id, 55);
    EXPECT_EQ(got[0].attributes.PortMaxFrameSize, 2048u);
    EXPECT_EQ(std::memcmp(got[0].attributes.PortWWN.wwn, kA2V0, 8), 0);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortsAnswerTheListingStatusUnmapped) {
    // The driver lists 3 where the port counts 2: the listing refuses (1),
    // and its status comes back beside an answer of two zeroed records that
    // carry only what the facade writes.
    Start(R"({"adapters":[{"instance":2,"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1,"npiv_reported_count":3,"word_28":2,"state":"OFFLINE"},
      {"port_num":0,"port_wwn":"2800000000000201","lnode_id":2,"parent":"2100000000000201"},
      {"port_num":0,"port_wwn":"2800000000000202","lnode_id":3,"parent":"2100000000000201"}]}]})");
    port_info key = PortKey("/dev/tuskstor2", 0);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 1);
    const auto got = Answer<port_info>(2);
    for (uint32_t i = 0; i < 2; ++i) {
        port_info want;
        std::memset(&want, 0, sizeof want);
        std::strcpy(want.adapter_name, "/dev/tuskstor2");
        want.rport_index = i;
        EXPECT_EQ(std::memcmp(&got[i], &want, 972), 0);
    }
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortsOfAFlaggedPortAnswer291) {
    Start();
    port_info key = PortKey("/dev/tuskstor4", 1);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
}

TEST_F(FacadeVportsTest, VirtualPortsOfAPortWithoutVirtualPortsAnswer289) {
    Start();
    for (const port_info& k : {PortKey("/dev/tuskstor1", 0), PortKey("/dev/tuskstor1", 7, kA1Port0)}) {
        testenv::ResetCalls();
        port_info key = k;
        EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 289);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeVportsTest, VirtualPortsOfAnImpossibleCountAnswerMinusOne) {
    Start(PortCounting("70000"));
    port_info key = PortKey("/dev/tuskstor2", 0);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), -1);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
    EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
}

TEST_F(FacadeVportsTest, VirtualPortsMapLocalPortFailuresAsAPortRequest) {
    Start();
    // By number, by WWN: the first local-node query fails (the readers
    // answer 6); an unknown WWN is not found (6).
    for (const port_info& k : {PortKey("/dev/tuskstor1", 1), PortKey("/dev/tuskstor1", 1, kA1Port1)}) {
        testenv::ResetCalls();
        tusksim_clear_faults();
        ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
        port_info key = k;
        EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 291);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
    tusksim_clear_faults();
    testenv::ResetCalls();
    port_info key = PortKey("/dev/tuskstor1", 1, kUnknown);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortsByWwnMapAFailingPortReaderAsAPortRequest) {
    Start();
    port_info key = PortKey("/dev/tuskstor1", 0, kA1Port1);
    uint64_t by_wwpn = 0;
    {
        Reference r("/dev/tuskstor1");
        port_info rec;
        std::memset(&rec, 0, sizeof rec);
        by_wwpn = CallsOf("tusk_get_lnode_info",
                          [&] { mirvak_GetKXAdapterPortAttributes_by_wwpn(r.handle, &key, &rec); });
    }
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", by_wwpn + 1, -5, 0), 0);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    port_info key = PortKey("/dev/tuskstor5", 1);
    EXPECT_EQ(fcoe->GetVirPortForPort(&key, &answer, &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// ---------------------------------------------------- GetVirPortStatistics

TEST_F(FacadeVportsTest, VirtualPortStatisticsByWwn) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 9, 9, 9, kA1V1);
    EXPECT_EQ(Run([&] { return fcoe->GetVirPortStatistics(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 432u);
    EXPECT_TRUE(Untouched(buf.data() + 432, buf.size() - 432));
    const port_stats s = Stats();
    EXPECT_EQ(StatsName(s), "/dev/tuskstor1");
    EXPECT_EQ(s.counter4, 104001409u);
    EXPECT_EQ(s.counter0, 104001417u);
    EXPECT_EQ(s.counter7, 104001437u);
    EXPECT_EQ(s.hba_stats.TxFrames, 0u);
    EXPECT_EQ(out, "");
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    const port_stats want = r.VirtualStats(kA1V1);
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsByIndex) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 1, 9);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 432u);
    EXPECT_EQ(Stats().counter0, 105001417u);
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    const port_stats want = r.VirtualStats(kA1V2);
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsOfAnUnknownWwnAnswer296) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0, kUnknown);
    EXPECT_EQ(Run([&] { return fcoe->GetVirPortStatistics(&key, buf.data(), &size); }), 296);
    EXPECT_EQ(out, "Invalid Virtual Port WWPN!\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsOfAFlaggedPortAnswer291) {
    Start();
    vport_in key = VKey("/dev/tuskstor4", 1, 0, 0);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsOfAPortWithoutVirtualPortsAnswer296) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 296);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsWithAnIndexAtOrPastTheCountAnswer296) {
    Start();
    for (uint16_t index : {2, 3, 0xFFFF}) {
        SCOPED_TRACE(index);
        testenv::ResetCalls();
        vport_in key = VKey("/dev/tuskstor1", 1, index, 0);
        EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 296);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
        EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
    }
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsWithAnImpossibleCountAnswer2) {
    Start(PortCounting("65536"));
    vport_in key = VKey("/dev/tuskstor2", 0, 0, 0);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 2);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsDoNotTestTheListingStatus) {
    // The listing refuses (count 3 against 2): the zeroed WWPN is unknown.
    Start(R"({"adapters":[{"instance":2,"lnodes":[
      {"port_num":0,"port_wwn":"2100000000000201","lnode_id":1,"npiv_reported_count":3,"word_28":2},
      {"port_num":0,"port_wwn":"2800000000000201","lnode_id":2,"parent":"2100000000000201"},
      {"port_num":0,"port_wwn":"2800000000000202","lnode_id":3,"parent":"2100000000000201"}]}]})");
    vport_in key = VKey("/dev/tuskstor2", 0, 1, 0);
    EXPECT_EQ(Run([&] { return fcoe->GetVirPortStatistics(&key, buf.data(), &size); }), 296);
    EXPECT_NE(out.find("Invalid Virtual Port WWPN!\n"), std::string::npos) << out;
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsMapALocalPortFailureAsAPortRequest) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortStatisticsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    vport_in key = VKey("/dev/tuskstor6", 1, 0, 0, kA1V1);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// --------------------------------------------------------- GetVPortLunInfo

TEST_F(FacadeVportsTest, VirtualPortLunsByWwnsAreStampedWithTheKey) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0x1234, 9, 0x5678, kA1V2, kA1V2R0);
    EXPECT_EQ(Run([&] { return fcoe->GetVPortLunInfo(&key, &answer, &size); }), 0);
    const auto got = Answer<lun_info>(3);
    EXPECT_EQ(Devices(got), "/dev/sdm /dev/sdn /dev/sdo");
    EXPECT_EQ(std::string(got[0].vendor), "NORDVIK");
    for (const auto& l : got) {
        uint32_t port = 0, rport = 0;
        std::memcpy(&port, l.reserved_0, 4);
        std::memcpy(&rport, l.reserved_0 + 4, 4);
        EXPECT_EQ(port, 0x1234u);
        EXPECT_EQ(rport, 0x5678u);
        EXPECT_STREQ(reinterpret_cast<const char*>(&l) + 528, "/dev/tuskstor1");
    }
    EXPECT_EQ(Calls("tusk_get_lnode_info") + Calls("tusk_get_lnode_info_by_fcid"), 0u);
    ExpectOpenedAndClosedOnce();

    std::vector<lun_info> want;
    {
        Reference r("/dev/tuskstor1");
        want = r.Luns(kA1V2, kA1V2R0);
    }
    ASSERT_EQ(want.size(), 3u);
    for (auto& l : want) StampLun(l, 0x1234, 0x5678, "/dev/tuskstor1");
    EXPECT_EQ(std::memcmp(got.data(), want.data(), 3 * 1040), 0);
}

TEST_F(FacadeVportsTest, VirtualPortLunsByIndexes) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 1, 1);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 0);
    const auto got = Answer<lun_info>(2);
    EXPECT_EQ(Devices(got), "/dev/sdp /dev/sdq");
    ExpectOpenedAndClosedOnce();
    std::vector<lun_info> want;
    {
        Reference r("/dev/tuskstor1");
        want = r.Luns(kA1V2, kA1V2R1);
    }
    ASSERT_EQ(want.size(), 2u);
    for (auto& l : want) StampLun(l, 1, 1, "/dev/tuskstor1");
    EXPECT_EQ(std::memcmp(got.data(), want.data(), 2 * 1040), 0);
}

TEST_F(FacadeVportsTest, VirtualPortLunsOfARemotePortWithoutLunsAnswer297) {
    Start(OnePortWithAVirtualPort("READY"));
    const uint8_t remote[8] = {0x50, 0, 0, 0, 0, 0, 0, 0x02};
    for (const vport_in& k : {VKey("/dev/tuskstor2", 0, 0, 0), VKey("/dev/tuskstor2", 0, 0, 0, kA2V0, remote),
                              VKey("/dev/tuskstor2", 0, 0, 0, kA2V0, kUnknown)}) {
        testenv::ResetCalls();
        vport_in key = k;
        EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 297);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeVportsTest, VirtualPortLunsOfAFlaggedPortOrAPortWithoutVirtualPortsAnswer298) {
    Start();
    for (const vport_in& k : {VKey("/dev/tuskstor4", 1, 0, 0), VKey("/dev/tuskstor1", 0, 0, 0)}) {
        testenv::ResetCalls();
        vport_in key = k;
        EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 298);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
        EXPECT_EQ(Calls("tusk_list_npiv_port"), 0u);
    }
}

TEST_F(FacadeVportsTest, VirtualPortLunsWithAVirtualPortIndexAboveTheCountAnswer298) {
    Start();
    for (uint16_t index : {3, 0xFFFF}) {
        testenv::ResetCalls();
        vport_in key = VKey("/dev/tuskstor1", 1, index, 0);
        EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 298);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeVportsTest, VirtualPortLunsWithAVirtualPortIndexEqualToTheCountAnswer296) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 1, 2, 0);
    EXPECT_EQ(Run([&] { return fcoe->GetVPortLunInfo(&key, &answer, &size); }), 296);
    EXPECT_EQ(out.find("Invalid LNode WWPN!"), std::string::npos);  // nothing read past the list
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortLunsWithARemotePortIndexBeyondTheRemotePortsAnswer296) {
    Start();
    for (const vport_in& k : {VKey("/dev/tuskstor1", 1, 1, 2), VKey("/dev/tuskstor1", 1, 0, 0xFFFF),
                              VKey("/dev/tuskstor4", 0, 1, 0) /* a virtual port without remote ports */}) {
        testenv::ResetCalls();
        vport_in key = k;
        EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 296);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeVportsTest, VirtualPortLunsWithAnImpossibleCountAnswerMinusOne) {
    Start(PortCounting("4294967295"));
    vport_in key = VKey("/dev/tuskstor2", 0, 0, 0);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), -1);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortLunsMapALocalPortFailureAsAPortRequest) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
    vport_in key = VKey("/dev/tuskstor1", 1, 0, 0);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, VirtualPortLunsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    vport_in key = VKey("/dev/tuskstor8", 1, 1, 1, kA1V2, kA1V2R0);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&key, &answer, &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// -------------------------------------------------------------- GetLunInfo

TEST_F(FacadeVportsTest, LunsOfAPortByNumbersAreStampedWithTheKey) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 7, 0);
    EXPECT_EQ(Run([&] { return fcoe->GetLunInfo(&key, &answer, &size); }), 0);
    const auto got = Answer<lun_info>(3);
    EXPECT_EQ(Devices(got), "/dev/sdb /dev/sdc /dev/sdd");
    EXPECT_EQ(std::string(got[0].vendor), "KESTREL");
    EXPECT_NE(out.find("Total Number of LUNS: 3:1\n"), std::string::npos) << out;
    ExpectOpenedAndClosedOnce();
    std::vector<lun_info> want;
    {
        Reference r("/dev/tuskstor1");
        want = r.LunsByNumbers(key);
    }
    ASSERT_EQ(want.size(), 3u);
    for (auto& l : want) StampLun(l, 0, 0, "/dev/tuskstor1");
    EXPECT_EQ(std::memcmp(got.data(), want.data(), 3 * 1040), 0);
}

TEST_F(FacadeVportsTest, LunsOfAPortByWwnsNeverAskTheDriver) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 3, 0, 4, kA1Port0, kA1P0R0);
    EXPECT_EQ(fcoe->GetLunInfo(&key, &answer, &size), 0);
    const auto got = Answer<lun_info>(3);
    EXPECT_EQ(Devices(got), "/dev/sdb /dev/sdc /dev/sdd");
    uint32_t port = 0, rport = 0;
    std::memcpy(&port, got[2].reserved_0, 4);
    std::memcpy(&rport, got[2].reserved_0 + 4, 4);
    EXPECT_EQ(port, 3u);
    EXPECT_EQ(rport, 4u);
    EXPECT_STREQ(got[2].device + 256, "/dev/tuskstor1");
    EXPECT_EQ(tusksim_call_total(), 2u);  // the open and the close only
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, LunsOfAPortWhoseLastMatchingTargetHasNoLunsAnswer297) {
    // Port 0's physical port has a target with one LUN; its virtual port,
    // on the same port number, has one without: the last one counts.
    Start(OnePortWithAVirtualPort("READY"));
    vport_in key = VKey("/dev/tuskstor2", 0, 0, 0);
    EXPECT_EQ(Run([&] { return fcoe->GetLunInfo(&key, &answer, &size); }), 297);
    EXPECT_NE(out.find("Total Number of LUNS: 0:1\n"), std::string::npos) << out;
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
    testenv::ResetCalls();
    key = VKey("/dev/tuskstor2", 0, 0, 0, kA2Port0, kUnknown);
    EXPECT_EQ(fcoe->GetLunInfo(&key, &answer, &size), 297);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, LunsOfAMissingTargetMapTheCountFailureAsARemotePortRequest) {
    // Instance 1, port 1: the stale entry comes first and has no target (6).
    Start();
    for (const vport_in& k : {VKey("/dev/tuskstor1", 1, 0, 0), VKey("/dev/tuskstor1", 0, 0, 9),
                              VKey("/dev/tuskstor1", 0xFFFF, 0xFFFF, 0xFFFF)}) {
        testenv::ResetCalls();
        vport_in key = k;
        EXPECT_EQ(fcoe->GetLunInfo(&key, &answer, &size), 293);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadeVportsTest, LunsThatCannotBeFetchedAnswer298) {
    Start();
    vport_in key = VKey("/dev/tuskstor1", 0, 0, 0);
    uint64_t count_calls = 0;
    {
        Reference r("/dev/tuskstor1");
        int n = 0;
        count_calls = CallsOf("tusk_get_lnode_info", [&] { mirvak_GetKXLunCount(r.handle, &key, &n); });
    }
    testenv::ResetCalls();
    // The LUN walk's first local-node query fails: no target found (1).
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", count_calls + 1, -5, 0), 0);
    EXPECT_EQ(Run([&] { return fcoe->GetLunInfo(&key, &answer, &size); }), 298);
    EXPECT_NE(out.find("mirvak_GetKXLunInfo:: Error Fetching LNode Info"), std::string::npos) << out;
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, LunsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    vport_in key = VKey("/dev/tuskstor01", 0, 0, 0);
    EXPECT_EQ(fcoe->GetLunInfo(&key, &answer, &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// ------------------------------------------------------ CreateNPIV, DeleteNPIV

TEST_F(FacadeVportsTest, CreateTakesTheFirstStringAsTheNewPortsWwpnAndTheSecondAsItsNodeName) {
    Start();
    unsigned char a[8], b[8], c[8], d[8];
    std::memcpy(a, kNewV, 8);
    std::memcpy(b, kNewVNode, 8);
    std::memcpy(c, kA1Port1, 8);
    std::memcpy(d, kA1Node1, 8);
    EXPECT_EQ(Run([&] { return fcoe->CreateNPIV("/dev/tuskstor1", a, b, c, d); }), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Calls("tusk_create_npiv_port"), 1u);
    ExpectOpenedAndClosedOnce();
    // The driver took bytes 0..7 of its request (the facade's first string)
    // as the new port's WWPN and 8..15 (the second) as its node name.
    Reference r("/dev/tuskstor1");
    const auto vports = r.VirtualPorts(kA1Port1, 3);
    EXPECT_EQ(std::memcmp(vports[2].attributes.PortWWN.wwn, kNewV, 8), 0);
    EXPECT_EQ(std::memcmp(vports[2].attributes.NodeWWN.wwn, kNewVNode, 8), 0);
}

TEST_F(FacadeVportsTest, DeleteRemovesTheVirtualPortNamedByTheFirstString) {
    Start();
    unsigned char a[8], c[8], d[8];
    std::memcpy(a, kA1V1, 8);
    std::memcpy(c, kA1Port1, 8);
    std::memcpy(d, kA1Node1, 8);
    EXPECT_EQ(fcoe->DeleteNPIV("/dev/tuskstor1", a, nullptr, c, d), 0);
    EXPECT_EQ(Calls("tusk_delete_npiv_port"), 1u);
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    const auto vports = r.VirtualPorts(kA1Port1, 1);
    EXPECT_EQ(std::memcmp(vports[0].attributes.PortWWN.wwn, kA1V2, 8), 0);
}

TEST_F(FacadeVportsTest, CreateRefusedAndMarkedAnswers300) {
    Start();
    unsigned char a[8], b[8] = {}, c[8], d[8] = {};
    std::memcpy(a, kA4V2, 8);  // already a port
    std::memcpy(c, kA4Port0, 8);
    EXPECT_EQ(Run([&] { return fcoe->CreateNPIV("/dev/tuskstor4", a, b, c, d); }), 300);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -17\n");
    ExpectOpenedAndClosedOnce();
    // Null first strings: a zero WWPN, refused and marked too.
    testenv::ResetCalls();
    EXPECT_EQ(Run([&] { return fcoe->CreateNPIV("/dev/tuskstor4", nullptr, nullptr, c, d); }), 300);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -22\n");
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, CreateRefusedWithoutTheMarkAnswers299) {
    Start();
    unsigned char a[8], b[8] = {}, c[8], d[8] = {};
    std::memcpy(a, kA1V1, 8);
    std::memcpy(c, kA1Port1, 8);
    EXPECT_EQ(Run([&] { return fcoe->CreateNPIV("/dev/tuskstor1", a, b, c, d); }), 299);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[0] failed -17\n");
    ExpectOpenedAndClosedOnce();
    testenv::ResetCalls();
    EXPECT_EQ(fcoe->CreateNPIV("/dev/tuskstor1", nullptr, nullptr, c, d), 299);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, DeleteRefusedAnswers299EvenWhenMarked) {
    Start();
    unsigned char a[8], c[8], d[8] = {};
    std::memcpy(a, kUnknown, 8);
    std::memcpy(c, kA4Port0, 8);
    EXPECT_EQ(Run([&] { return fcoe->DeleteNPIV("/dev/tuskstor4", a, nullptr, c, d); }), 299);
    EXPECT_EQ(out, "mirvak_CreateDelNPIV:: NPIV op[1] failed -2\n");
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadeVportsTest, CreateAndDeleteOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    unsigned char a[8], c[8], d[8] = {};
    std::memcpy(a, kNewV, 8);
    std::memcpy(c, kA1Port1, 8);
    EXPECT_EQ(fcoe->CreateNPIV("/dev/tuskstor9", a, a, c, d), 286);
    EXPECT_EQ(fcoe->DeleteNPIV("/dev/tuskstor9", a, a, c, d), 286);
    EXPECT_EQ(Calls("tusk_create_npiv_port") + Calls("tusk_delete_npiv_port"), 0u);
    EXPECT_EQ(Calls("close_adapter"), 0u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadeVportsTest, CreateAndDeleteNeverReadANamePastItsFirst256Bytes) {
    Start();
    char* name = static_cast<char*>(std::malloc(256));
    std::memcpy(name, "/dev/tuskstor1", 14);
    std::memset(name + 14, '1', 256 - 14);
    unsigned char a[8], c[8], d[8] = {};
    std::memcpy(a, kNewV, 8);
    std::memcpy(c, kA1Port1, 8);
    EXPECT_EQ(fcoe->CreateNPIV(name, a, a, c, d), 286);
    EXPECT_EQ(fcoe->DeleteNPIV(name, a, a, c, d), 286);
    std::free(name);
    EXPECT_EQ(Calls("tusk_create_npiv_port") + Calls("tusk_delete_npiv_port"), 0u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadeVportsTest, CreateAndDeleteWithNullPointersAnswerBadArgument) {
    Start();
    unsigned char a[8], c[8], d[8] = {};
    std::memcpy(a, kNewV, 8);
    std::memcpy(c, kA1Port1, 8);
    EXPECT_EQ(fcoe->CreateNPIV(nullptr, a, a, c, d), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->CreateNPIV("/dev/tuskstor1", a, a, nullptr, d), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->CreateNPIV("/dev/tuskstor1", a, a, c, nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->DeleteNPIV(nullptr, a, a, c, d), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->DeleteNPIV("/dev/tuskstor1", a, a, nullptr, d), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->DeleteNPIV("/dev/tuskstor1", a, a, c, nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---------------------------------------------------------- keys and nulls

TEST_F(FacadeVportsTest, KeysWhoseNameHasNoNulAnswer286) {
    Start();
    port_info pkey = PortKey("/dev/tuskstor1", 0x31313131);
    std::memset(pkey.adapter_name + 14, '1', sizeof pkey.adapter_name - 14);
    vport_in vkey = VKey("/dev/tuskstor1", 0x3131, 0x3131, 0x3131);
    std::memset(vkey.adapter_name + 14, '1', sizeof vkey.adapter_name - 14);
    EXPECT_EQ(fcoe->GetVirPortForPort(&pkey, &answer, &size), 286);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&vkey, buf.data(), &size), 286);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&vkey, &answer, &size), 286);
    EXPECT_EQ(fcoe->GetLunInfo(&vkey, &answer, &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("open_adapter_str"), 4u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadeVportsTest, VirtualPortMethodsWithNullPointersAnswerBadArgument) {
    Start();
    port_info pkey = PortKey("/dev/tuskstor1", 1);
    vport_in vkey = VKey("/dev/tuskstor1", 1, 0, 0);
    EXPECT_EQ(fcoe->GetVirPortForPort(nullptr, &answer, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirPortForPort(&pkey, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirPortForPort(&pkey, &answer, nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirPortStatistics(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&vkey, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVirPortStatistics(&vkey, buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVPortLunInfo(nullptr, &answer, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&vkey, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetVPortLunInfo(&vkey, &answer, nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetLunInfo(nullptr, &answer, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetLunInfo(&vkey, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetLunInfo(&vkey, &answer, nullptr), FCOE_ERR_BAD_ARGUMENT);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

}  // namespace
