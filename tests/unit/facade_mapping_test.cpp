// The facade object's lifetime, its result codes and the status mapping.
#include <climits>
#include <cstring>
#include <optional>
#include <string>

#include "mirvak/instance_map.h"
#include "mirvak/mv_fcoe_ini.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;

class FacadeMappingTest : public testenv::SimTest {
protected:
    void TearDown() override {
        fcoe.reset();
        SimTest::TearDown();
    }
    int Map(int status, int kind) { return fcoe->MapHBAStatusCodeToErrCode(status, kind); }
    std::optional<MvFCoEIni> fcoe{std::in_place};
};

TEST(FacadeCodes, HaveTheirFixedValues) {
    EXPECT_EQ(FCOE_OK, 0);
    EXPECT_EQ(FCOE_ERR_FAILED, 1);
    EXPECT_EQ(FCOE_ERR_NO_MEMORY, 2);
    EXPECT_EQ(FCOE_ERR_BAD_ARGUMENT, 6);
    EXPECT_EQ(FCOE_ERR_NO_ADAPTERS, 285);
    EXPECT_EQ(FCOE_ERR_ADAPTER_OPEN, 286);
    EXPECT_EQ(FCOE_ERR_ADAPTER_ATTRIBUTES, 287);
    EXPECT_EQ(FCOE_ERR_NO_PORTS, 289);
    EXPECT_EQ(FCOE_ERR_NO_REMOTE_PORTS, 290);
    EXPECT_EQ(FCOE_ERR_PORT, 291);
    EXPECT_EQ(FCOE_ERR_PORT_NOT_FOUND, 292);
    EXPECT_EQ(FCOE_ERR_REMOTE_PORT, 293);
    EXPECT_EQ(FCOE_ERR_PORT_OFFLINE, 294);
    EXPECT_EQ(FCOE_ERR_REMOTE_PORT_OFFLINE, 295);
    EXPECT_EQ(FCOE_ERR_VIRTUAL_PORT, 296);
    EXPECT_EQ(FCOE_ERR_NO_LUNS, 297);
    EXPECT_EQ(FCOE_ERR_LUN_INFO, 298);
    EXPECT_EQ(FCOE_ERR_NPIV_FAILED, 299);
    EXPECT_EQ(FCOE_ERR_NPIV_REFUSED, 300);
    EXPECT_EQ(FCOE_KIND_PORT, 0);
    EXPECT_EQ(FCOE_KIND_REMOTE_PORT, 1);
    EXPECT_EQ(FCOE_KIND_VIRTUAL_PORT, 2);
    EXPECT_EQ(FCOE_KIND_ADAPTER, -1);
}

// One row of the table: the answers for kinds 0, 1, 2 and two other kinds.
struct Row {
    int status;
    int port, remote, virt, other;
};

const Row kTable[] = {
    {0, 0, 0, 0, 0},
    {1, 1, 1, 1, 1},
    {2, 1, 1, 1, 1},
    {3, 6, 6, 6, 6},
    {4, 6, 6, 6, 6},
    {5, 291, 293, 291, 293},
    {6, 291, 293, 291, 293},
    {100, 294, 295, 294, 295},
    {-1, 291, 293, 296, 1},
    {INT_MIN, 291, 293, 296, 1},
    {7, 291, 293, 296, 1},
    {40, 291, 293, 296, 1},
    {99, 291, 293, 296, 1},
    {101, 291, 293, 296, 1},
    {285, 291, 293, 296, 1},
    {INT_MAX, 291, 293, 296, 1},
};

TEST_F(FacadeMappingTest, EveryRowOfTheTableForEveryKind) {
    for (const Row& r : kTable) {
        SCOPED_TRACE("status " + std::to_string(r.status));
        EXPECT_EQ(Map(r.status, 0), r.port);
        EXPECT_EQ(Map(r.status, 1), r.remote);
        EXPECT_EQ(Map(r.status, 2), r.virt);
        for (int kind : {-1, 3, 7, -100, INT_MIN, INT_MAX}) {
            SCOPED_TRACE("kind " + std::to_string(kind));
            EXPECT_EQ(Map(r.status, kind), r.other);
        }
    }
}

TEST_F(FacadeMappingTest, MinusOneGivesTheKindsOwnCode) {
    EXPECT_EQ(Map(-1, 0), 291);
    EXPECT_EQ(Map(-1, 1), 293);
    EXPECT_EQ(Map(-1, 2), 296);
    EXPECT_EQ(Map(-1, 7), 1);
}

TEST_F(FacadeMappingTest, IllegalWwnAndIndexOfAVirtualPortGiveThePortCode) {
    EXPECT_EQ(Map(6, 2), 291);
    EXPECT_EQ(Map(5, 2), 291);
}

TEST_F(FacadeMappingTest, IllegalWwnOfAnAdapterRequestGivesTheRemotePortCode) {
    EXPECT_EQ(Map(5, -1), 293);
    EXPECT_EQ(Map(6, -1), 293);
}

TEST_F(FacadeMappingTest, OfflineOfAVirtualPortGivesThePortOfflineCode) {
    EXPECT_EQ(Map(100, 2), 294);
    EXPECT_EQ(Map(100, -1), 295);
    EXPECT_EQ(Map(100, 1), 295);
    EXPECT_EQ(Map(100, 0), 294);
}

TEST_F(FacadeMappingTest, StatusesBesideOneHundred) {
    EXPECT_EQ(Map(99, 2), 296);
    EXPECT_EQ(Map(101, 1), 293);
    EXPECT_EQ(Map(101, 0), 291);
    EXPECT_EQ(Map(99, -1), 1);
}

TEST_F(FacadeMappingTest, ThreeAndFourAreBadArgumentsAndTwoAFailure) {
    EXPECT_EQ(Map(3, 1), 6);
    EXPECT_EQ(Map(4, 2), 6);
    EXPECT_EQ(Map(2, 0), 1);
    EXPECT_EQ(Map(1, 1), 1);
}

TEST_F(FacadeMappingTest, TheFailedHandleValueCountsAsBelowZero) {
    EXPECT_EQ(Map(static_cast<int>(0xFFFFFFFFu), 0), 291);
    EXPECT_EQ(Map(static_cast<int>(0xFFFFFFFFu), 2), 296);
    EXPECT_EQ(Map(static_cast<int>(0xFFFFFFFFu), -1), 1);
}

TEST_F(FacadeMappingTest, MappingMakesNoDriverCall) {
    testenv::ResetCalls();
    for (const Row& r : kTable) Map(r.status, 0);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(FacadeMappingTest, RefreshReturnsZeroAndDoesNothing) {
    UseDefaultFabric();
    testenv::ResetCalls();
    EXPECT_EQ(fcoe->RefreshFCoESystem(), 0);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(FacadeMappingTest, RefreshReturnsZeroWithoutAdaptersOrWithAFailingDriver) {
    UseFabric(R"({"adapters":[]})");
    EXPECT_EQ(fcoe->RefreshFCoESystem(), 0);
    UseDefaultFabric();
    for (const char* op : {"open_adapter", "open_adapter_str", "tusk_get_hw_info", "tusk_get_lnode_info"})
        ASSERT_EQ(tusksim_add_fault(op, 1, -5, 1), 0);
    EXPECT_EQ(fcoe->RefreshFCoESystem(), 0);
    EXPECT_EQ(tusksim_call_total(), 0u);
}

class FacadeLifetimeTest : public testenv::SimTest {};

TEST_F(FacadeLifetimeTest, ConstructionBuildsTheMapAndDestructionReleasesIt) {
    UseDefaultFabric();
    {
        MvFCoEIni fcoe;
        ASSERT_NE(InstanceMap, nullptr);
        EXPECT_EQ(adapCnt, 2u);
        EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor1");
        EXPECT_STREQ(InstanceMap[1].name, "/dev/tuskstor4");
        EXPECT_EQ(Calls("tusk_probe_adapter"), 2u);
    }
    EXPECT_EQ(InstanceMap, nullptr);
    EXPECT_EQ(tusksim_open_handles(), 0u);
}

TEST_F(FacadeLifetimeTest, EachConstructionRebuildsTheMap) {
    UseDefaultFabric();
    MvFCoEIni first;
    EXPECT_EQ(adapCnt, 2u);
    UseFabric(R"({"adapters":[{"instance":7}]})");
    {
        MvFCoEIni second;  // no count of live objects: the map is rebuilt
        EXPECT_EQ(adapCnt, 1u);
        EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor7");
    }
    // ... and the second destruction released it under the first object.
    EXPECT_EQ(InstanceMap, nullptr);
}

}  // namespace
