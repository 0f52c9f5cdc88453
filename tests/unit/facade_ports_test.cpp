// The facade's adapter and port queries: every adapter, one adapter, all
// ports, one port, one port's statistics.
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::CaptureOut;
using testenv::Fill;
using testenv::Untouched;

constexpr unsigned int kSizePattern = 0xA5A5A5A5u;

const uint8_t kA1Port0[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x00};
const uint8_t kA1Port1[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xa1, 0x00, 0x01};
const uint8_t kA4Port1[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xb4, 0x00, 0x01};
const uint8_t kA4Port2[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xb4, 0x00, 0x02};
const uint8_t kUnknown[8] = {0x21, 0x00, 0x00, 0x1b, 0x9e, 0xff, 0xff, 0xff};

// One adapter at instance 3, FCF 5 (VLAN 55); the hardware port table and
// the local nodes are the test's.
std::string Small(const std::string& ports, const std::string& lnodes) {
    return R"({"adapters":[{"instance":3,
      "hw":{"model":"MVF-S","word_192":3192,"ports":[)" +
           ports + R"(]},
      "fcfs":[{"fcf_index":5,"vlan":55}],
      "lnodes":[)" +
           lnodes + "]}]}";
}
const char* kTwoPorts = R"({"speed":8,"mac":"00:1b:9e:00:03:00"},{"speed":16,"mac":"00:1b:9e:00:03:01"})";
const char* kNode0 = R"({"port_num":0,"port_wwn":"2000000000000300","fcf_index":5,"lnode_id":30,
   "words":[1,2,3,4,5,6,7,8],"quads":[10,11,12,13]})";
const char* kNode1 = R"({"port_num":1,"port_wwn":"2000000000000301","fcf_index":5,"lnode_id":31})";
const uint8_t kSmall0[8] = {0x20, 0, 0, 0, 0, 0, 0x03, 0x00};
const uint8_t kSmall1[8] = {0x20, 0, 0, 0, 0, 0, 0x03, 0x01};

port_info Key(const char* name, const uint8_t* wwn = nullptr, uint32_t port = 0) {
    port_info key;
    std::memset(&key, 0, sizeof key);
    std::strcpy(key.adapter_name, name);
    key.port_num = port;
    if (wwn) std::memcpy(key.attributes.PortWWN.wwn, wwn, 8);
    return key;
}

// The records as the standard face and the extended interface give them,
// put together by hand on a handle of the test's own.
struct Reference {
    explicit Reference(const char* name) : name(name), handle(mirvak_OpenAdapter(name)) {}
    ~Reference() {
        if (handle != 0xFFFFFFFFu) mirvak_CloseAdapter(handle);
    }
    adapter_info Adapter() {
        HBA_ADAPTERATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        EXPECT_EQ(mirvak_GetAdapterAttributes(handle, &attr), 0u);
        adapter_info rec;
        std::memset(&rec, 0, sizeof rec);
        rec.instance = static_cast<uint32_t>(getAssignedInstance(name));
        std::strcpy(rec.adapter_name, name);
        std::memcpy(&rec.attributes, &attr, sizeof attr);
        EXPECT_EQ(mirvak_GetKXAdapterAttributes(handle, &rec), 0u);
        return rec;
    }
    // Through the all-ports reader, one zeroed attribute record per port.
    std::vector<port_info> AllPorts(uint32_t n) {
        std::vector<HBA_PORTATTRIBUTES> attrs(n);
        std::memset(attrs.data(), 0, n * sizeof(HBA_PORTATTRIBUTES));
        EXPECT_EQ(mirvak_GetAllAdapterPortsAttributes(handle, attrs.data(), n), 0u);
        std::vector<port_info> recs(n);
        for (uint32_t i = 0; i < n; ++i) Fill(recs[i], i, attrs[i]);
        return recs;
    }
    // Through the one-port reader, one working attribute record for all.
    std::vector<port_info> EachPort(uint32_t n) {
        HBA_PORTATTRIBUTES attr;
        std::memset(&attr, 0, sizeof attr);
        std::vector<port_info> recs(n);
        for (uint32_t i = 0; i < n; ++i) {
            EXPECT_EQ(mirvak_GetAdapterPortAttributes(handle, i, &attr), 0u);
            Fill(recs[i], i, attr);
        }
        return recs;
    }
    port_stats Stats(const port_info& key) {
        port_stats stats;
        std::memset(&stats, 0, sizeof stats);
        EXPECT_EQ(mirvak_GetKXPortStatistics(handle, &key, &stats), 0u);
        return stats;
    }
    void Fill(port_info& rec, uint32_t i, const HBA_PORTATTRIBUTES& attr) {
        std::memset(&rec, 0, sizeof rec);
        std::strcpy(rec.adapter_name, name);
        rec.port_num = i;
        std::memcpy(&rec.attributes, &attr, sizeof attr);
        EXPECT_EQ(mirvak_GetKXAdapterPortAttributes(handle, i, &rec), 0u);
    }
    const char* name;
    HBA_HANDLE handle;
};

class FacadePortsTest : public testenv::SimTest {
protected:
    void Start(const std::string& fabric = "") {
        if (fabric.empty()) UseDefaultFabric(); else UseFabric(fabric);
        fcoe.emplace();
        testenv::ResetCalls();
        Fill(buf.data(), buf.size());
    }
    void TearDown() override {
        fcoe.reset();
        SimTest::TearDown();
    }
    // Run a method and keep what it printed.
    template <class Fn>
    int Run(Fn fn) {
        int rc = -12345;
        out = CaptureOut([&] { rc = fn(); });
        return rc;
    }
    // The request opened one adapter and closed it again.
    void ExpectOpenedAndClosedOnce() {
        EXPECT_EQ(Calls("open_adapter_str"), 1u);
        EXPECT_EQ(Calls("close_adapter"), 1u);
        EXPECT_EQ(tusksim_open_handles(), 0u);
    }
    // Nothing written to the agent's memory.
    void ExpectNothingWritten() {
        EXPECT_EQ(size, kSizePattern);
        EXPECT_TRUE(Untouched(buf.data(), buf.size()));
    }
    const uint8_t* At(std::size_t off) const { return buf.data() + off; }
    template <class T>
    T Rec(std::size_t index) const {
        T rec;
        std::memcpy(&rec, buf.data() + index * sizeof(T), sizeof rec);
        return rec;
    }

    std::optional<MvFCoEIni> fcoe;
    std::vector<uint8_t> buf = std::vector<uint8_t>(8 * sizeof(adapter_info));
    unsigned int size = kSizePattern;
    std::string out;
};

// ---------------------------------------------------------------- adapters

TEST_F(FacadePortsTest, AdaptersAnswerOneRecordPerAdapterInIndexOrder) {
    Start();
    EXPECT_EQ(Run([&] { return fcoe->GetFCoEAdapters(buf.data(), &size); }), 0);
    EXPECT_EQ(size, 2 * 2680u);
    const auto a0 = Rec<adapter_info>(0);
    const auto a1 = Rec<adapter_info>(1);
    EXPECT_EQ(a0.instance, 0u);
    EXPECT_EQ(a1.instance, 1u);
    EXPECT_STREQ(a0.adapter_name, "/dev/tuskstor1");
    EXPECT_STREQ(a1.adapter_name, "/dev/tuskstor4");
    EXPECT_STREQ(a0.attributes.Model, "MVF-2210");
    EXPECT_STREQ(a1.attributes.Model, "MVF-4420");
    EXPECT_EQ(a0.attributes.NumberOfPorts, 2u);
    EXPECT_EQ(a0.hw_word_192, 101000192u);
    EXPECT_EQ(a1.hw_word_192, 401000192u);
    EXPECT_STREQ(a0.hw_text_246, "BOOT 2.14.3");
    EXPECT_TRUE(Untouched(At(2 * 2680), buf.size() - 2 * 2680));
    EXPECT_EQ(Calls("open_adapter_str"), 2u);
    EXPECT_EQ(tusksim_open_handles(), 0u);

    Reference r1("/dev/tuskstor1"), r4("/dev/tuskstor4");
    const adapter_info want[2] = {r1.Adapter(), r4.Adapter()};
    EXPECT_EQ(std::memcmp(buf.data(), want, sizeof want), 0);
}

TEST_F(FacadePortsTest, AdaptersWithoutAnyAdapterAnswer285AndSizeZero) {
    Start(R"({"adapters":[]})");
    EXPECT_EQ(fcoe->GetFCoEAdapters(buf.data(), &size), 285);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(Untouched(buf.data(), buf.size()));
    EXPECT_EQ(Calls("open_adapter_str"), 0u);
}

TEST_F(FacadePortsTest, AdapterWhoseAttributesFailKeepsAZeroSlotAndTheOthersAreAnswered) {
    Start();
    adapter_info second;
    {
        Reference r4("/dev/tuskstor4");
        second = r4.Adapter();
    }
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, -5, 0), 0);  // the first adapter's attributes
    EXPECT_EQ(fcoe->GetFCoEAdapters(buf.data(), &size), 0);
    EXPECT_EQ(size, 2 * 2680u);
    std::vector<uint8_t> zero(2680, 0);
    EXPECT_EQ(std::memcmp(buf.data(), zero.data(), 2680), 0);
    EXPECT_EQ(std::memcmp(At(2680), &second, 2680), 0);
    EXPECT_EQ(tusksim_open_handles(), 0u);  // the failed adapter's handle is closed too
}

TEST_F(FacadePortsTest, AdapterThatCannotBeOpenedKeepsAZeroSlot) {
    Start();
    adapter_info first;
    {
        Reference r1("/dev/tuskstor1");
        first = r1.Adapter();
    }
    testenv::ResetCalls();
    ASSERT_EQ(tusksim_add_fault("open_adapter_str", 2, -1, 0), 0);
    EXPECT_EQ(fcoe->GetFCoEAdapters(buf.data(), &size), 0);
    EXPECT_EQ(size, 2 * 2680u);
    EXPECT_EQ(std::memcmp(buf.data(), &first, 2680), 0);
    std::vector<uint8_t> zero(2680, 0);
    EXPECT_EQ(std::memcmp(At(2680), zero.data(), 2680), 0);
    EXPECT_EQ(Calls("tusk_get_hw_info"), 2u);  // the second adapter's handle is never asked
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadePortsTest, AdaptersIgnoreTheExtendedAttributesStatus) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 2, -5, 0), 0);  // the first adapter's extended fields
    EXPECT_EQ(fcoe->GetFCoEAdapters(buf.data(), &size), 0);
    const auto a0 = Rec<adapter_info>(0);
    EXPECT_STREQ(a0.adapter_name, "/dev/tuskstor1");
    EXPECT_STREQ(a0.attributes.Model, "MVF-2210");
    EXPECT_EQ(a0.hw_word_192, 0u);
    EXPECT_EQ(a0.hw_text_246[0], 0);
    EXPECT_EQ(Rec<adapter_info>(1).hw_word_192, 401000192u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadePortsTest, AdaptersWithNullPointersAnswerBadArgument) {
    Start();
    EXPECT_EQ(fcoe->GetFCoEAdapters(nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetFCoEAdapters(buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ------------------------------------------------------------ one adapter

TEST_F(FacadePortsTest, AdapterStatsAnswerTheAdaptersInformationRecord) {
    Start();
    EXPECT_EQ(Run([&] { return fcoe->GetFCoEAdapterStats("/dev/tuskstor4", buf.data(), &size); }), 0);
    EXPECT_EQ(size, 2680u);
    const auto a = Rec<adapter_info>(0);
    EXPECT_EQ(a.instance, 1u);
    EXPECT_STREQ(a.adapter_name, "/dev/tuskstor4");
    EXPECT_STREQ(a.attributes.Model, "MVF-4420");
    EXPECT_EQ(a.hw_word_332, 401000332u);
    EXPECT_TRUE(Untouched(At(2680), buf.size() - 2680));
    EXPECT_EQ(out, "");
    ExpectOpenedAndClosedOnce();
    Reference r4("/dev/tuskstor4");
    const adapter_info want = r4.Adapter();
    EXPECT_EQ(std::memcmp(buf.data(), &want, sizeof want), 0);
}

TEST_F(FacadePortsTest, AdapterStatsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    EXPECT_EQ(fcoe->GetFCoEAdapterStats("/dev/tuskstor9", buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadePortsTest, AdapterStatsMapAttributeFailuresAsAnAdapterRequest) {
    const struct {
        int status, want;
    } cases[] = {{5, 293}, {6, 293}, {100, 295}, {1, 1}, {2, 1}, {3, 6}, {4, 6}, {-5, 1}, {42, 1}};
    Start();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        testenv::ResetCalls();
        tusksim_clear_faults();
        ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, c.status, 0), 0);
        EXPECT_EQ(fcoe->GetFCoEAdapterStats("/dev/tuskstor1", buf.data(), &size), c.want);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadePortsTest, AdapterStatsIgnoreTheExtendedAttributesStatus) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 2, -5, 0), 0);
    EXPECT_EQ(fcoe->GetFCoEAdapterStats("/dev/tuskstor1", buf.data(), &size), 0);
    EXPECT_EQ(size, 2680u);
    const auto a = Rec<adapter_info>(0);
    EXPECT_STREQ(a.adapter_name, "/dev/tuskstor1");
    EXPECT_STREQ(a.attributes.Model, "MVF-2210");
    EXPECT_EQ(a.hw_word_192, 0u);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, AdapterStatsNeverReadANamePastItsFirst256Bytes) {
    Start();
    // Exactly 256 bytes, no NUL: a read past them is caught by the
    // sanitizer build.
    char* name = static_cast<char*>(std::malloc(256));
    std::memcpy(name, "/dev/tuskstor1", 14);
    std::memset(name + 14, 'x', 256 - 14);
    EXPECT_EQ(fcoe->GetFCoEAdapterStats(name, buf.data(), &size), 286);
    std::memset(name, 'A', 256);
    EXPECT_EQ(fcoe->GetFCoEAdapterStats(name, buf.data(), &size), 286);
    std::free(name);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadePortsTest, AdapterStatsWithNullPointersAnswerBadArgument) {
    Start();
    EXPECT_EQ(fcoe->GetFCoEAdapterStats(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetFCoEAdapterStats("/dev/tuskstor1", nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetFCoEAdapterStats("/dev/tuskstor1", buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

// ---------------------------------------------------------------- all ports

TEST_F(FacadePortsTest, AllPortsWithoutAWwnAnswerEveryPortInOrder) {
    Start();
    port_info key = Key("/dev/tuskstor1");
    EXPECT_EQ(Run([&] { return fcoe->GetAllPortsInfo(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 2 * 972u);
    const auto p0 = Rec<port_info>(0);
    const auto p1 = Rec<port_info>(1);
    EXPECT_STREQ(p0.adapter_name, "/dev/tuskstor1");
    EXPECT_STREQ(p1.adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(p0.port_num, 0u);
    EXPECT_EQ(p1.port_num, 1u);
    EXPECT_EQ(std::memcmp(p0.attributes.PortWWN.wwn, kA1Port0, 8), 0);
    EXPECT_EQ(std::memcmp(p1.attributes.PortWWN.wwn, kA1Port1, 8), 0);
    EXPECT_EQ(p0.lnode_id, 11u);
    EXPECT_EQ(p1.lnode_id, 12u);  // the live entry beside the stale one
    // The all-ports reader leaves the last port's state (the stale entry's
    // "OFFLINE") in entry 0, so port 0 gets no VLAN lookup here.
    EXPECT_EQ(p0.attributes.PortState, 3u);
    EXPECT_EQ(p0.vlan_id, 0);
    EXPECT_TRUE(Untouched(At(2 * 972), buf.size() - 2 * 972));
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    const auto want = r.AllPorts(2);
    EXPECT_EQ(std::memcmp(buf.data(), want.data(), 2 * 972), 0);
}

TEST_F(FacadePortsTest, AllPortsWithTheWwnOfOnePortOfTwoAnswer292) {
    Start();
    // Port 0 differs, port 1 matches: the mismatch is never cleared.
    port_info key = Key("/dev/tuskstor1", kA1Port1);
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 292);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
    key = Key("/dev/tuskstor1", kA1Port0);
    testenv::ResetCalls();
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 292);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, AllPortsWithAWwnEveryPortCarriesAnswerAllOfThem) {
    Start(Small(kTwoPorts, std::string(kNode0) + "," +
                               R"({"port_num":1,"port_wwn":"2000000000000300","fcf_index":5,"lnode_id":31})"));
    port_info key = Key("/dev/tuskstor3", kSmall0);
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 2 * 972u);
    EXPECT_EQ(Rec<port_info>(1).lnode_id, 31u);
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, AllPortsOfASinglePortAdapterWithItsWwnAnswerIt) {
    Start(Small(R"({"speed":8})", kNode0));
    port_info key = Key("/dev/tuskstor3", kSmall0);
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 972u);
    EXPECT_EQ(std::memcmp(Rec<port_info>(0).attributes.PortWWN.wwn, kSmall0, 8), 0);
    EXPECT_TRUE(Untouched(At(972), buf.size() - 972));
}

TEST_F(FacadePortsTest, AllPortsTakeAKeyWwnWithAZeroFirstByteAsNone) {
    Start();
    const uint8_t wwn[8] = {0x00, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99, 0x99};
    port_info key = Key("/dev/tuskstor1", wwn);
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 2 * 972u);
}

TEST_F(FacadePortsTest, AllPortsOfAnAdapterWithoutPortsAnswer289) {
    Start(Small("", kNode0));
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 289);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, AllPortsAnswer287WhenTheAdapterAttributesFailWhateverTheStatus) {
    Start();
    for (int status : {5, 100, -5}) {
        SCOPED_TRACE(status);
        testenv::ResetCalls();
        tusksim_clear_faults();
        ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, status, 0), 0);
        port_info key = Key("/dev/tuskstor1");
        EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 287);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadePortsTest, AllPortsMapAFailureOfThePortReaderAsAPortRequest) {
    const struct {
        int status, want;
    } cases[] = {{5, 291}, {6, 291}, {100, 294}, {3, 6}, {2, 1}, {-5, 291}, {99, 291}};
    Start(Small(kTwoPorts, std::string(kNode0) + "," + kNode1));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        testenv::ResetCalls();
        tusksim_clear_faults();
        ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, c.status, 0), 0);
        port_info key = Key("/dev/tuskstor3");
        EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), c.want);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadePortsTest, AllPortsMapAFailureOfTheExtendedPortFieldsAsAPortRequest) {
    // Two ports in the hardware table, one local node: the extended fields
    // of port 1 cannot be had (6).
    Start(Small(kTwoPorts, kNode0));
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, AllPortsAnswerAFlaggedPortAsItIs) {
    Start();
    port_info key = Key("/dev/tuskstor4");
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 3 * 972u);
    EXPECT_EQ(Rec<port_info>(1).lnode_flag, 1);
    EXPECT_EQ(Rec<port_info>(2).attributes.PortFcId, 0u);  // each port has its own attribute record
}

TEST_F(FacadePortsTest, AllPortsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    port_info key = Key("/dev/tuskstor2");
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
    EXPECT_EQ(Calls("tusk_get_hw_info"), 0u);
}

// ------------------------------------------------------------------ one port

TEST_F(FacadePortsTest, PortWithoutAWwnAnswersEveryPort) {
    Start();
    port_info key = Key("/dev/tuskstor1");
    EXPECT_EQ(Run([&] { return fcoe->GetPortInfo(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 2 * 972u);
    EXPECT_EQ(out, "");
    const auto p1 = Rec<port_info>(1);
    EXPECT_STREQ(p1.adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(p1.port_num, 1u);
    EXPECT_EQ(std::memcmp(p1.attributes.PortWWN.wwn, kA1Port1, 8), 0);
    EXPECT_EQ(p1.lnode_id, 12u);
    EXPECT_EQ(p1.vlan_id, 102);
    EXPECT_TRUE(Untouched(At(2 * 972), buf.size() - 2 * 972));
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    const auto want = r.EachPort(2);
    EXPECT_EQ(std::memcmp(buf.data(), want.data(), 2 * 972), 0);
}

TEST_F(FacadePortsTest, PortWithTheWwnOfPortOneAnswersOnlyItsRecord) {
    Start();
    port_info key = Key("/dev/tuskstor1", kA1Port1);
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 972u);
    EXPECT_TRUE(Untouched(At(972), buf.size() - 972));
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor1");
    const auto want = r.EachPort(2);
    EXPECT_EQ(std::memcmp(buf.data(), &want[1], 972), 0);
}

TEST_F(FacadePortsTest, PortStopsAtTheFirstMatch) {
    // Port 1 would fail (no local node for it); the match at port 0 ends the
    // loop before it.
    Start(Small(kTwoPorts, kNode0));
    port_info key = Key("/dev/tuskstor3", kSmall0);
    EXPECT_EQ(Run([&] { return fcoe->GetPortInfo(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 972u);
    EXPECT_EQ(Rec<port_info>(0).lnode_id, 30u);
    EXPECT_EQ(out, "");
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, PortWithAnUnknownWwnAnswers292) {
    Start();
    port_info key = Key("/dev/tuskstor1", kUnknown);
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 292);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, PortRecordsShareOneWorkingAttributeRecord) {
    // Port 2 is "UNINIT": the port reader writes only its WWNs and state, so
    // its record carries port 1's other attributes (port 1: fcid 0x020c01).
    Start();
    port_info key = Key("/dev/tuskstor4");
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 3 * 972u);
    const auto p2 = Rec<port_info>(2);
    EXPECT_EQ(std::memcmp(p2.attributes.PortWWN.wwn, kA4Port2, 8), 0);
    EXPECT_EQ(p2.attributes.PortState, 6u);
    EXPECT_EQ(p2.attributes.PortFcId, 0x020c01u);
    EXPECT_STREQ(p2.attributes.OSDeviceName, Rec<port_info>(1).attributes.OSDeviceName);
}

TEST_F(FacadePortsTest, PortAnswersAFlaggedPortAsItIs) {
    Start();
    port_info key = Key("/dev/tuskstor4", kA4Port1);
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 972u);
    EXPECT_EQ(Rec<port_info>(0).lnode_flag, 1);
    EXPECT_EQ(Rec<port_info>(0).port_num, 1u);
}

TEST_F(FacadePortsTest, PortOfAnAdapterWithoutPortsAnswers289) {
    Start(Small("", kNode0));
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 289);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, PortAnswers287WhenTheAdapterAttributesFail) {
    Start();
    ASSERT_EQ(tusksim_add_fault("tusk_get_hw_info", 1, 100, 0), 0);
    port_info key = Key("/dev/tuskstor1");
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 287);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, PortReaderFailurePrintsItsLineAndMapsAsAPortRequest) {
    Start(Small(kTwoPorts, std::string(kNode0) + "," + kNode1));
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);  // the reader answers 6
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(Run([&] { return fcoe->GetPortInfo(&key, buf.data(), &size); }), 291);
    EXPECT_EQ(out, "Failed to Get Adapter Port Attributes\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, ExtendedPortFieldsFailurePrintsItsLineAndMapsAsAPortRequest) {
    Start(Small(kTwoPorts, kNode0));
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(Run([&] { return fcoe->GetPortInfo(&key, buf.data(), &size); }), 291);
    EXPECT_EQ(out, "Failed to get KX Adapter Port Attributes\n");
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, PortOfAnAdapterThatCannotBeOpenedAnswers286) {
    Start();
    port_info key = Key("/dev/tuskstor");
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
}

// ------------------------------------------------------------ statistics

TEST_F(FacadePortsTest, StatisticsOfAPortByNumber) {
    Start(Small(kTwoPorts, std::string(kNode0) + "," + kNode1));
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(Run([&] { return fcoe->GetPortStatistics(&key, buf.data(), &size); }), 0);
    EXPECT_EQ(size, 432u);
    const auto s = Rec<port_stats>(0);
    EXPECT_EQ(s.counter4, 1u);  // node words at 1409, 1413, 1417 ...
    EXPECT_EQ(s.counter0, 3u);
    EXPECT_EQ(s.hba_stats.TxWords, 10u);
    EXPECT_EQ(s.hba_stats.TxFrames, 11u);
    EXPECT_EQ(s.hba_stats.RxWords, 12u);
    EXPECT_EQ(s.hba_stats.RxFrames, 13u);
    EXPECT_TRUE(Untouched(At(432), buf.size() - 432));
    ExpectOpenedAndClosedOnce();
    Reference r("/dev/tuskstor3");
    const port_stats want = r.Stats(key);
    EXPECT_EQ(std::memcmp(buf.data(), &want, 432), 0);
}

TEST_F(FacadePortsTest, StatisticsOfAPortByWwnComeFromItsLiveEntry) {
    Start();
    // The key as GetPortInfo answers it: the WWN and the port's number.
    port_info key = Key("/dev/tuskstor1", kA1Port1, 1);
    EXPECT_EQ(fcoe->GetPortStatistics(&key, buf.data(), &size), 0);
    EXPECT_EQ(size, 432u);
    EXPECT_EQ(Rec<port_stats>(0).hba_stats.TxFrames, 1003000001641u);
    std::vector<uint8_t> zero(256, 0);
    EXPECT_EQ(std::memcmp(buf.data(), zero.data(), 256), 0);  // the record was zeroed first
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, StatisticsOfAnOfflineOrUninitialisedPortAnswer294) {
    Start();
    for (const uint8_t* wwn : {kA4Port1, kA4Port2}) {
        testenv::ResetCalls();
        port_info key = Key("/dev/tuskstor4", wwn);
        EXPECT_EQ(fcoe->GetPortStatistics(&key, buf.data(), &size), 294);
        ExpectNothingWritten();
        ExpectOpenedAndClosedOnce();
    }
}

TEST_F(FacadePortsTest, StatisticsWhoseDriverFailsBeforeAPortIsSelectedAnswer291) {
    Start(Small(kTwoPorts, kNode0));
    ASSERT_EQ(tusksim_add_fault("tusk_get_lnode_info", 1, -5, 0), 0);
    port_info key = Key("/dev/tuskstor3");
    EXPECT_EQ(fcoe->GetPortStatistics(&key, buf.data(), &size), 291);
    ExpectNothingWritten();
    ExpectOpenedAndClosedOnce();
}

TEST_F(FacadePortsTest, StatisticsOfAnAdapterThatCannotBeOpenedAnswer286) {
    Start();
    ASSERT_EQ(tusksim_add_fault("open_adapter_str", 1, -1, 0), 0);
    port_info key = Key("/dev/tuskstor1");
    EXPECT_EQ(fcoe->GetPortStatistics(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("close_adapter"), 0u);
    EXPECT_EQ(Calls("tusk_get_lnode_info"), 0u);
}

// ---------------------------------------------------------- keys and nulls

TEST_F(FacadePortsTest, KeysWhoseNameHasNoNulAnswer286) {
    Start();
    port_info key = Key("/dev/tuskstor1");
    std::memset(key.adapter_name + 14, '1', sizeof key.adapter_name - 14);
    key.port_num = 0x31313131;  // more digits right behind the field
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), &size), 286);
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 286);
    EXPECT_EQ(fcoe->GetPortStatistics(&key, buf.data(), &size), 286);
    ExpectNothingWritten();
    EXPECT_EQ(Calls("open_adapter_str"), 3u);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadePortsTest, NameFieldsInTheAnswerAreCopiedUpToTheirNul) {
    Start();
    port_info key = Key("/dev/tuskstor1", kA1Port0);
    std::memset(key.adapter_name + 15, 'z', sizeof key.adapter_name - 15);  // behind the NUL
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), &size), 0);
    const auto p = Rec<port_info>(0);
    EXPECT_STREQ(p.adapter_name, "/dev/tuskstor1");
    EXPECT_EQ(p.adapter_name[15], 0);  // the record was zeroed, not the key's tail copied
}

TEST_F(FacadePortsTest, PortMethodsWithNullPointersAnswerBadArgument) {
    Start();
    port_info key = Key("/dev/tuskstor1");
    EXPECT_EQ(fcoe->GetAllPortsInfo(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetAllPortsInfo(&key, buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetPortInfo(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetPortInfo(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetPortInfo(&key, buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetPortStatistics(nullptr, buf.data(), &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetPortStatistics(&key, nullptr, &size), FCOE_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fcoe->GetPortStatistics(&key, buf.data(), nullptr), FCOE_ERR_BAD_ARGUMENT);
    ExpectNothingWritten();
    EXPECT_EQ(tusksim_call_total(), 0u);
}

}  // namespace
