// The walks over the driver's local-node, remote-node and FCF lists.
#include <string>
#include <vector>

#include "driver/walks.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using mv::WalkEnd;

class WalksTest : public testenv::SimTest {
protected:
    void Open() {
        handle = open_adapter_str("/dev/tuskstor2");
        ASSERT_NE(handle, mv::kBadHandle);
    }
    void TearDown() override {
        if (handle != mv::kBadHandle) close_adapter(handle);
        SimTest::TearDown();
    }
    std::vector<std::string> LocalStates(mv::WalkResult* result = nullptr) {
        std::vector<std::string> states;
        lnode_info rec;
        const auto r = mv::walk_lnodes(handle, rec, [&](lnode_info& n, uint64_t, uint32_t pos) {
            EXPECT_EQ(pos, states.size());
            states.emplace_back(field_text(n.state));
            return true;
        });
        if (result != nullptr) *result = r;
        return states;
    }
    uint32_t handle = mv::kBadHandle;
};

const char* kThreeNodes = R"({"adapters":[{"instance":2,"hw":{"ports":[{}]},
  "fcfs":[{"fcf_index":7,"vlan":10},{"fcf_index":9,"vlan":20}],
  "lnodes":[
    {"port_wwn":"2000000000000001","state":"READY","lnode_id":11,
     "rnodes":[{"port_wwn":"5000000000000001","role":"TARGET"},
               {"port_wwn":"5000000000000002","role":"targets"},
               {"port_wwn":"5000000000000003","role":"Initiator"}]},
    {"port_wwn":"2000000000000002","state":"OFFLINE","lnode_id":12},
    {"port_wwn":"2000000000000003","state":"UNINIT","lnode_id":13}]}]})";

TEST_F(WalksTest, LocalNodesAreShownUntilTheClosingRecord) {
    UseFabric(kThreeNodes);
    Open();
    mv::WalkResult r{};
    EXPECT_EQ(LocalStates(&r), (std::vector<std::string>{"READY", "OFFLINE", "UNINIT"}));
    EXPECT_EQ(r.end, WalkEnd::ChainEnd);
    EXPECT_EQ(r.status, 0);
    // Three nodes and the record that closes the chain.
    EXPECT_EQ(testenv::Calls("tusk_get_lnode_info"), 4u);
}

TEST_F(WalksTest, AChainThatStartsWithTheClosingRecordHasNoNodes) {
    UseFabric(R"({"adapters":[{"instance":2,"hw":{"ports":[{}]},
      "closing_lnode":[{"offset":1601,"hex":"52 45 41 44 59 00"}]}]})");
    Open();
    mv::WalkResult r{};
    EXPECT_TRUE(LocalStates(&r).empty());
    EXPECT_EQ(r.end, WalkEnd::ChainEnd);
}

TEST_F(WalksTest, AFailedQueryEndsTheWalkWithItsStatus) {
    UseFabric(kThreeNodes);
    Open();
    tusksim_add_fault("tusk_get_lnode_info", 2, 31, 0);
    mv::WalkResult r{};
    EXPECT_EQ(LocalStates(&r), (std::vector<std::string>{"READY"}));
    EXPECT_EQ(r.end, WalkEnd::DriverFailed);
    EXPECT_EQ(r.status, 31);
}

TEST_F(WalksTest, TheVisitorCanStopTheWalk) {
    UseFabric(kThreeNodes);
    Open();
    lnode_info rec;
    const auto r = mv::walk_lnodes(handle, rec, [](lnode_info& n, uint64_t, uint32_t) {
        return field_text(n.state) != "OFFLINE";
    });
    EXPECT_EQ(r.end, WalkEnd::Stopped);
    EXPECT_EQ(field_text(rec.state), "OFFLINE");
}

TEST_F(WalksTest, RemoteNodesOfOneLocalNode) {
    UseFabric(kThreeNodes);
    Open();
    rnode_info rec;
    std::vector<bool> targets;
    const auto r = mv::walk_rnodes(handle, 11, rec, [&](rnode_info& n) {
        targets.push_back(mv::is_target(n));
        return true;
    });
    EXPECT_EQ(r.end, WalkEnd::ChainEnd);
    // Letter case does not matter; a longer word does.
    EXPECT_EQ(targets, (std::vector<bool>{true, false, false}));
    EXPECT_EQ(field_text(rec.role), "");
}

TEST_F(WalksTest, RoleIsLowerCasedInPlace) {
    UseFabric(kThreeNodes);
    Open();
    rnode_info rec;
    std::string first;
    mv::walk_rnodes(handle, 11, rec, [&](rnode_info& n) {
        mv::is_target(n);
        first = std::string(field_text(n.role));
        return false;
    });
    EXPECT_EQ(first, "target");
}

TEST_F(WalksTest, ARemoteChainThatStartsWithTheClosingRecordHasNoNodes) {
    UseFabric(kThreeNodes);
    Open();
    rnode_info rec;
    int seen = 0;
    const auto r = mv::walk_rnodes(handle, 12, rec, [&](rnode_info&) { return ++seen, true; });
    EXPECT_EQ(r.end, WalkEnd::ChainEnd);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(testenv::Calls("tusk_get_rnode_info"), 1u);
}

TEST_F(WalksTest, RoleWithoutNulStaysInsideItsField) {
    // 48 'T's fill the role field with no terminating NUL.
    std::string hex;
    for (int i = 0; i < 48; ++i) hex += i == 0 ? "54" : " 54";
    UseFabric(std::string(R"({"adapters":[{"instance":2,"hw":{"ports":[{}]},"lnodes":[{"lnode_id":5,
      "rnodes":[{"raw":[{"offset":13,"hex":")") + hex + R"("}]}]}]}]})");
    Open();
    rnode_info rec;
    bool target = true;
    mv::walk_rnodes(handle, 5, rec, [&](rnode_info& n) {
        target = mv::is_target(n);
        EXPECT_EQ(field_text(n.role), std::string(48, 't'));
        EXPECT_EQ(n.port_wwn[0], 0);
        return false;
    });
    EXPECT_FALSE(target);
}

TEST_F(WalksTest, FindFcfStopsAtTheWantedIndex) {
    UseFabric(kThreeNodes);
    Open();
    fcf_info rec{};
    uint32_t cursor = mv::kEndCursor;
    EXPECT_EQ(mv::find_fcf(handle, 9, rec, cursor).found, mv::FcfFound::Found);
    EXPECT_EQ(rec.vlan_id, 20);
    EXPECT_EQ(cursor, 9u);
}

TEST_F(WalksTest, FindFcfRunsOutAtTheClosingRecord) {
    UseFabric(kThreeNodes);
    Open();
    fcf_info rec{};
    uint32_t cursor = mv::kEndCursor;
    EXPECT_EQ(mv::find_fcf(handle, 3, rec, cursor).found, mv::FcfFound::Exhausted);
    EXPECT_EQ(cursor, mv::kEndCursor);
    EXPECT_EQ(testenv::Calls("tusk_get_fcf_info"), 3u);
}

TEST_F(WalksTest, FindFcfKeepsTheLastRecordAfterAFailedQuery) {
    UseFabric(kThreeNodes);
    Open();
    tusksim_add_fault("tusk_get_fcf_info", 2, 4, 0);
    fcf_info rec{};
    uint32_t cursor = mv::kEndCursor;
    const mv::FcfResult r = mv::find_fcf(handle, 9, rec, cursor);
    EXPECT_EQ(r.found, mv::FcfFound::DriverFailed);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(rec.vlan_id, 10);
    EXPECT_EQ(cursor, 7u);
}

}  // namespace
