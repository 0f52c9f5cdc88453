// The adapter instance map and the small byte and text helpers.
#include <cstring>
#include <string>

#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::CaptureOut;
using testenv::Calls;

std::string AdaptersAt(std::initializer_list<int> instances) {
    std::string json = R"({"adapters":[)";
    bool first = true;
    for (int i : instances) {
        if (!first) json += ",";
        first = false;
        json += R"({"instance":)" + std::to_string(i) + R"(,"hw":{"manufacturer":"Mirvak","ports":[{}]}})";
    }
    return json + "]}";
}

class InstanceMapTest : public testenv::SimTest {
protected:
    void TearDown() override {
        mirvak_FreeLibrary();
        SimTest::TearDown();
    }
};

TEST_F(InstanceMapTest, MapsAdaptersAtSparseInstancesToDenseIndexes) {
    UseFabric(AdaptersAt({0, 3, 7}));
    mirvak_LoadLibrary();
    ASSERT_NE(InstanceMap, nullptr);
    EXPECT_EQ(adapCnt, 3u);
    const char* names[] = {"/dev/tuskstor0", "/dev/tuskstor3", "/dev/tuskstor7"};
    const uint32_t instances[] = {0, 3, 7};
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(InstanceMap[i].instance, instances[i]);
        EXPECT_EQ(InstanceMap[i].index, i);
        EXPECT_STREQ(InstanceMap[i].name, names[i]);
    }
    for (uint32_t i = 3; i < kInstanceMapEntries; ++i) {
        EXPECT_EQ(InstanceMap[i].instance, 0u);
        EXPECT_EQ(InstanceMap[i].index, 0u);
        EXPECT_STREQ(InstanceMap[i].name, "");
    }
}

TEST_F(InstanceMapTest, MappingProbesEveryInstanceAndClosesEveryHandle) {
    UseFabric(AdaptersAt({0, 3, 7}));
    mirvak_LoadLibrary();
    EXPECT_EQ(Calls("open_adapter"), 32u);
    EXPECT_EQ(Calls("tusk_probe_adapter"), 3u);
    EXPECT_EQ(Calls("close_adapter"), 3u);
}

TEST_F(InstanceMapTest, AdapterThatFailsTheProbeIsLeftOut) {
    UseFabric(R"({"adapters":[{"instance":2,"probe_status":1,"hw":{"ports":[{}]}},
                              {"instance":5,"hw":{"ports":[{}]}}]})");
    mirvak_LoadLibrary();
    EXPECT_EQ(adapCnt, 1u);
    EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor5");
    // The failed probe's handle is closed all the same.
    EXPECT_EQ(Calls("close_adapter"), 2u);
}

TEST_F(InstanceMapTest, EntriesPastTheNewCountKeepAnEarlierMapping) {
    UseFabric(AdaptersAt({1, 2, 6}));
    mirvak_LoadLibrary();
    UseFabric(AdaptersAt({9}));
    getMapping();
    EXPECT_EQ(adapCnt, 1u);
    EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor9");
    EXPECT_STREQ(InstanceMap[1].name, "/dev/tuskstor2");
    EXPECT_STREQ(InstanceMap[2].name, "/dev/tuskstor6");
    EXPECT_EQ(InstanceMap[2].index, 2u);
}

TEST_F(InstanceMapTest, AssignedInstanceOfAnUnknownNameIsTheFirstUnusedEntry) {
    UseFabric(AdaptersAt({0, 3}));
    mirvak_LoadLibrary();
    EXPECT_EQ(getAssignedInstance("/dev/tuskstor3"), 1);
    EXPECT_EQ(getAssignedInstance("/dev/tuskstor0"), 0);
    EXPECT_EQ(getAssignedInstance("/dev/nothing"), 0);
}

TEST_F(InstanceMapTest, AssignedInstanceMatchesAnEarlierEntryThatIsAPrefix) {
    UseFabric(AdaptersAt({1, 12}));
    mirvak_LoadLibrary();
    EXPECT_STREQ(InstanceMap[1].name, "/dev/tuskstor12");
    EXPECT_EQ(getAssignedInstance("/dev/tuskstor12"), 0);
}

TEST_F(InstanceMapTest, ActualInstanceByIndex) {
    UseFabric(AdaptersAt({4, 9}));
    mirvak_LoadLibrary();
    EXPECT_EQ(getActualDeviceInstance(0), 4);
    EXPECT_EQ(getActualDeviceInstance(1), 9);
    // Unused entries carry index 0, so indexes at or past the count find none.
    EXPECT_EQ(getActualDeviceInstance(2), -1);
    EXPECT_EQ(getActualDeviceInstance(31), -1);
}

TEST_F(InstanceMapTest, ActualInstanceByNameIsACaseBlindSubstringMatch) {
    UseFabric(AdaptersAt({4, 12}));
    mirvak_LoadLibrary();
    EXPECT_EQ(getActualDeviceInstance_by_adapName("/DEV/TuskStor12"), 12);
    // A single digit matches the first path that contains it.
    EXPECT_EQ(getActualDeviceInstance_by_adapName("1"), 12);
    EXPECT_EQ(getActualDeviceInstance_by_adapName("4"), 4);
    EXPECT_EQ(getActualDeviceInstance_by_adapName("tuskstor"), 4);
    // Unused entries (empty names) never match.
    EXPECT_EQ(getActualDeviceInstance_by_adapName("/dev/tuskstor7"), -1);
    EXPECT_EQ(getActualDeviceInstance_by_adapName(""), -1);
}

TEST_F(InstanceMapTest, LookupsWithoutALoadedMapAnswerAsAnEmptyMap) {
    UseFabric(AdaptersAt({4}));
    ASSERT_EQ(InstanceMap, nullptr);
    EXPECT_EQ(getAssignedInstance("/dev/tuskstor4"), 0);
    EXPECT_EQ(getActualDeviceInstance(0), 0);
    EXPECT_EQ(getActualDeviceInstance(1), -1);
    EXPECT_EQ(getActualDeviceInstance_by_adapName("tuskstor"), -1);
    getMapping();  // nothing to rebuild, and no crash
    EXPECT_EQ(InstanceMap, nullptr);
}

TEST(MvStrstr, ComparesInUpperCase) {
    const char* hay = "ABCdef";
    EXPECT_EQ(mv_strstr(hay, "cDe"), hay + 2);
    EXPECT_EQ(mv_strstr(hay, "abcdef"), hay);
    EXPECT_EQ(mv_strstr(hay, "efg"), nullptr);
}

TEST(MvStrstr, NullOrEmptyArgumentsGiveNull) {
    EXPECT_EQ(mv_strstr("ABCdef", ""), nullptr);
    EXPECT_EQ(mv_strstr("ABCdef", nullptr), nullptr);
    EXPECT_EQ(mv_strstr(nullptr, "A"), nullptr);
    EXPECT_EQ(mv_strstr("", "A"), nullptr);
}

TEST(CharArrayToLong, FirstByteIsMostSignificant) {
    const unsigned char wwn[8] = {0x20, 0x00, 0x00, 0x25, 0xB5, 0x00, 0x00, 0x01};
    EXPECT_EQ(charArrayToLong(wwn), 0x20000025B5000001ul);
    const unsigned char ones[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(charArrayToLong(ones), 0xFFFFFFFFFFFFFFFFul);
}

TEST(ConvertWWNtoString, BufferEndsWithTheLastByteOnly) {
    const unsigned char wwn[8] = {0x20, 0x00, 0x00, 0x25, 0xB5, 0x00, 0x1a, 0x2b};
    char buf[32];
    std::memset(buf, 'x', sizeof buf);
    const std::string out = CaptureOut([&] { ConvertWWNtoString(wwn, 8, 0, buf); });
    EXPECT_STREQ(buf, "2B");
    EXPECT_EQ(out, "");
    EXPECT_EQ(buf[3], 'x');
}

TEST(ConvertWWNtoString, GroupSpacesGoToStandardOutput) {
    const unsigned char wwn[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    char buf[8] = {};
    const std::string out = CaptureOut([&] { ConvertWWNtoString(wwn, 8, 2, buf); });
    EXPECT_EQ(out, "    ");
    EXPECT_STREQ(buf, "08");
}

TEST(ConvertWWNtoString, TwoWwnsWithTheSameLastByteGiveTheSameText) {
    const unsigned char a[8] = {0x20, 0, 0, 0, 0, 0, 0, 0x44};
    const unsigned char b[8] = {0x10, 9, 9, 9, 9, 9, 9, 0x44};
    char ta[4] = {}, tb[4] = {};
    ConvertWWNtoString(a, 8, 0, ta);
    ConvertWWNtoString(b, 8, 0, tb);
    EXPECT_STREQ(ta, tb);
}

}  // namespace
