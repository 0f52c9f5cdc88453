// Registration with the front library and the library's lifecycle.
#include <cstring>

#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

constexpr int kSlots = 64;

struct Table {
    void* slot[kSlots];
    Table() { std::memset(slot, 0xA5, sizeof slot); }
    bool untouched(int i) const { return testenv::Untouched(&slot[i], sizeof(void*)); }
    template <class Fn>
    bool holds(int i, Fn fn) const { return slot[i] == reinterpret_cast<void*>(fn); }
};

void ExpectStandardSlots(const Table& t) {
    EXPECT_TRUE(t.holds(0, mirvak_GetVersion));
    EXPECT_TRUE(t.holds(1, mirvak_LoadLibrary));
    EXPECT_TRUE(t.holds(2, mirvak_FreeLibrary));
    EXPECT_TRUE(t.holds(3, mirvak_GetNumberOfAdapters));
    EXPECT_TRUE(t.holds(4, mirvak_GetAdapterName));
    EXPECT_TRUE(t.holds(5, mirvak_OpenAdapter));
    EXPECT_TRUE(t.holds(6, mirvak_CloseAdapter));
    EXPECT_TRUE(t.holds(7, mirvak_GetAdapterAttributes));
    EXPECT_TRUE(t.holds(8, mirvak_GetAdapterPortAttributes));
    EXPECT_TRUE(t.holds(9, mirvak_GetAllAdapterPortsAttributes));
    EXPECT_TRUE(t.holds(10, mirvak_GetPortStatistics));
    EXPECT_TRUE(t.holds(11, mirvak_GetDiscoveredPortAttributes));
    EXPECT_TRUE(t.holds(12, mirvak_GetPortAttributesByWWN));
    EXPECT_EQ(t.slot[13], nullptr);
    EXPECT_TRUE(t.holds(14, mirvak_RefreshInformation));
    EXPECT_EQ(t.slot[15], nullptr);
    EXPECT_TRUE(t.holds(16, mirvak_GetFCPTargetMappingv1));
    for (int i = 17; i <= 21; ++i) EXPECT_EQ(t.slot[i], nullptr) << "slot " << i;
    EXPECT_TRUE(t.holds(22, mirvak_SendScsiInquiry));
    EXPECT_TRUE(t.holds(23, mirvak_SendReportLUNs));
    EXPECT_TRUE(t.holds(24, mirvak_SendReadCapacity));
}

TEST(Registration, FillsTheTableBySlot) {
    Table t;
    EXPECT_EQ(HBA_RegisterLibrary(reinterpret_cast<HBA_ENTRYPOINTS*>(t.slot)), 0u);
    ExpectStandardSlots(t);
    for (int i = 25; i < kSlots; ++i) EXPECT_TRUE(t.untouched(i)) << "slot " << i;
}

TEST(Registration, V2AlsoClearsSlot27AndNothingElse) {
    Table t;
    EXPECT_EQ(HBA_RegisterLibraryV2(reinterpret_cast<HBA_ENTRYPOINTSV2*>(t.slot)), 0u);
    ExpectStandardSlots(t);
    EXPECT_TRUE(t.untouched(25));
    EXPECT_TRUE(t.untouched(26));
    EXPECT_EQ(t.slot[27], nullptr);
    for (int i = 28; i < kSlots; ++i) EXPECT_TRUE(t.untouched(i)) << "slot " << i;
}

TEST(Lifecycle, VersionIsTwoEvenBeforeLoading) {
    ASSERT_EQ(InstanceMap, nullptr);
    EXPECT_EQ(mirvak_GetVersion(), 2u);
}

TEST(Lifecycle, FreeWithoutLoadReturnsZero) {
    ASSERT_EQ(InstanceMap, nullptr);
    EXPECT_EQ(mirvak_FreeLibrary(), 0u);
    EXPECT_EQ(InstanceMap, nullptr);
}

TEST(Lifecycle, PortStatisticsAreZeroAndSecondsSinceResetIsLeftAlone) {
    HBA_PORTSTATISTICS stats;
    static_assert(sizeof stats == 120, "HBA_PORTSTATISTICS");
    testenv::Fill(&stats, sizeof stats, 0xFF);
    EXPECT_EQ(mirvak_GetPortStatistics(0xFFFFFFFFu, 77, &stats), 0u);
    EXPECT_TRUE(testenv::Untouched(&stats, 8, 0xFF));
    const auto* bytes = reinterpret_cast<const uint8_t*>(&stats);
    for (std::size_t i = 8; i < sizeof stats; ++i) EXPECT_EQ(bytes[i], 0) << "byte " << i;
}

TEST(Lifecycle, RefreshInformationDoesNothing) {
    testenv::ResetCalls();
    mirvak_RefreshInformation(0x1234);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

class LifecycleSim : public testenv::SimTest {
protected:
    void TearDown() override {
        mirvak_FreeLibrary();
        SimTest::TearDown();
    }
};

TEST_F(LifecycleSim, LoadBuildsTheMapAndFreeReleasesIt) {
    UseFabric(R"({"adapters":[{"instance":6,"hw":{"ports":[{}]}}]})");
    EXPECT_EQ(mirvak_LoadLibrary(), 0u);
    ASSERT_NE(InstanceMap, nullptr);
    EXPECT_EQ(adapCnt, 1u);
    EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor6");
    EXPECT_EQ(mirvak_FreeLibrary(), 0u);
    EXPECT_EQ(InstanceMap, nullptr);
}

TEST_F(LifecycleSim, LoadingTwiceRebuildsTheMap) {
    UseFabric(R"({"adapters":[{"instance":6,"hw":{"ports":[{}]}}]})");
    mirvak_LoadLibrary();
    UseFabric(R"({"adapters":[{"instance":2,"hw":{"ports":[{}]}}]})");
    mirvak_LoadLibrary();
    EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor2");
    EXPECT_EQ(adapCnt, 1u);
}

TEST_F(LifecycleSim, OpenPassesTheDriverHandleThrough) {
    UseFabric(R"({"adapters":[{"instance":6,"hw":{"ports":[{}]}}]})");
    const HBA_HANDLE h = mirvak_OpenAdapter("/dev/tuskstor6");
    EXPECT_NE(h, 0xFFFFFFFFu);
    EXPECT_EQ(testenv::Calls("open_adapter_str"), 1u);
    EXPECT_EQ(mirvak_CloseAdapter(h), 0u);
    EXPECT_EQ(testenv::Calls("close_adapter"), 1u);
}

TEST_F(LifecycleSim, OpenOfAnUnknownNameGivesTheDriversFailureHandle) {
    UseFabric(R"({"adapters":[{"instance":6,"hw":{"ports":[{}]}}]})");
    EXPECT_EQ(mirvak_OpenAdapter("/dev/tuskstor5"), 0xFFFFFFFFu);
    EXPECT_EQ(mirvak_OpenAdapter("/dev/sda"), 0xFFFFFFFFu);
}

TEST_F(LifecycleSim, CloseReturnsTheDriversResultUnchanged) {
    UseFabric(R"({"adapters":[{"instance":6,"hw":{"ports":[{}]}}]})");
    const HBA_HANDLE h = mirvak_OpenAdapter("/dev/tuskstor6");
    tusksim_add_fault("close_adapter", 1, 77, 0);
    EXPECT_EQ(mirvak_CloseAdapter(h), 77u);
}

}  // namespace
