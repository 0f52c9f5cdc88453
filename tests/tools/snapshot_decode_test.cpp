// The snapshot decoder: the default fabric's snapshot as a tree, and
// streams that are cut short or do not add up.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "mirvak/mv_fcoe_ini.h"
#include "sim_env.h"
#include "snapshot_decode.h"

namespace {

using nlohmann::json;
using Bytes = std::vector<unsigned char>;

// "2100001b9ea10000" as "21:00:00:1b:9e:a1:00:00".
std::string Colons(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i < hex.size(); i += 2) out += (i ? ":" : "") + hex.substr(i, 2);
    return out;
}

class Decode : public testenv::SimTest {
protected:
    Bytes TakeDefault() {
        UseDefaultFabric();
        unsigned int size = 0;
        void* p = nullptr;
        testenv::CaptureOut([&] {
            MvFCoEIni ini;
            p = ini.GetFCoEAll(nullptr, &size);
        });
        EXPECT_NE(p, nullptr);
        Bytes b(static_cast<unsigned char*>(p), static_cast<unsigned char*>(p) + size);
        std::free(p);
        return b;
    }

    static json Fabric() {
        std::ifstream in(MIRVAK_DEFAULT_FABRIC);
        return json::parse(in);
    }

    // The byte offset of every record in the tree.
    static void Offsets(const json& node, std::set<std::size_t>& out) {
        if (node.is_object()) {
            if (node.contains("offset") && node["offset"].is_number()) out.insert(node["offset"].get<std::size_t>());
            for (const auto& [k, v] : node.items()) Offsets(v, out);
        } else if (node.is_array()) {
            for (const auto& v : node) Offsets(v, out);
        }
    }
};

TEST_F(Decode, DefaultFabricGivesItsAdaptersPortsAndVirtualPorts) {
    const Bytes b = TakeDefault();
    const json tree = mv::tool::decode_snapshot(b.data(), b.size());
    const json fabric = Fabric();

    EXPECT_EQ(tree["size"], b.size());
    ASSERT_EQ(tree["adapters"].size(), fabric["adapters"].size());
    EXPECT_EQ(tree["adapter_count"], fabric["adapters"].size());
    for (std::size_t a = 0; a < fabric["adapters"].size(); ++a) {
        const json& fa = fabric["adapters"][a];
        const json& ta = tree["adapters"][a];
        EXPECT_EQ(ta["name"], "/dev/tuskstor" + std::to_string(fa["instance"].get<int>()));
        EXPECT_EQ(ta["index"], a);
        EXPECT_EQ(ta["repeat"], false);

        // Physical ports: one per port number, in port order, with the WWN
        // the description gives it (a stale duplicate shares the WWN).
        std::vector<std::string> physical;
        for (const json& l : fa["lnodes"]) {
            if (l.contains("parent")) continue;
            const std::string w = Colons(l["port_wwn"]);
            if (physical.empty() || physical.back() != w) physical.push_back(w);
        }
        ASSERT_EQ(ta["ports"].size(), physical.size()) << ta["name"];
        for (std::size_t p = 0; p < physical.size(); ++p) {
            const json& tp = ta["ports"][p];
            EXPECT_EQ(tp["port_wwn"], physical[p]);
            EXPECT_EQ(tp["index"], p);
            // Virtual ports: those the description hangs under this port,
            // in its order.
            std::vector<std::string> virtuals;
            for (const json& l : fa["lnodes"])
                if (l.contains("parent") && Colons(l["parent"]) == physical[p]) virtuals.push_back(Colons(l["port_wwn"]));
            std::vector<std::string> got;
            if (tp.contains("virtual_ports"))
                for (const json& v : tp["virtual_ports"]) got.push_back(v["port_wwn"]);
            if (!got.empty()) {
                EXPECT_EQ(got, virtuals) << physical[p];
            }
        }
    }
}

TEST_F(Decode, DefaultFabricsLunsAreTheDevicesBehindTheirRemotePorts) {
    const Bytes b = TakeDefault();
    const json tree = mv::tool::decode_snapshot(b.data(), b.size());
    // Every block device the description puts behind a remote port.
    std::set<std::string> devices;
    const json fabric = Fabric();
    for (const json& a : fabric["adapters"])
        for (const json& l : a["lnodes"])
            for (const json& r : l.value("rnodes", json::array()))
                for (const json& lun : r.value("luns", json::array()))
                    if (lun.contains("block")) devices.insert("/dev/" + lun["block"].get<std::string>());
    std::size_t luns = 0;
    const auto check = [&](const json& rports) {
        for (const json& r : rports) {
            EXPECT_EQ(r["lun_count"], r.value("luns", json::array()).size());
            for (const json& lun : r.value("luns", json::array())) {
                EXPECT_EQ(devices.count(lun["device"].get<std::string>()), 1u) << lun["device"];
                ++luns;
            }
        }
    };
    for (const json& a : tree["adapters"])
        for (const json& p : a["ports"]) {
            check(p.value("remote_ports", json::array()));
            for (const json& v : p.value("virtual_ports", json::array())) check(v.value("remote_ports", json::array()));
        }
    EXPECT_GT(luns, 10u);
}

TEST_F(Decode, TextNamesEveryAdapter) {
    const Bytes b = TakeDefault();
    const std::string text = mv::tool::snapshot_text(mv::tool::decode_snapshot(b.data(), b.size()));
    EXPECT_NE(text.find("Adapter 0:"), std::string::npos);
    EXPECT_NE(text.find("/dev/tuskstor1"), std::string::npos);
    EXPECT_NE(text.find("/dev/tuskstor4"), std::string::npos);
}

TEST_F(Decode, EveryCutEitherEndsAtARecordBoundaryOrNamesWhereItStopped) {
    const Bytes b = TakeDefault();
    std::set<std::size_t> starts;
    Offsets(mv::tool::decode_snapshot(b.data(), b.size()), starts);
    std::set<std::size_t> cuts = {0, 1, 3, 4, 5};
    for (std::size_t o : starts)
        for (std::size_t d : {std::size_t{0}, std::size_t{1}, std::size_t{4}, std::size_t{8}})
            if (o + d < b.size()) cuts.insert(o + d);
    for (std::size_t c = 0; c < b.size(); c += 61) cuts.insert(c);
    std::size_t errors = 0;
    for (std::size_t cut : cuts) {
        // A copy of exactly `cut` bytes, so that a read past it is caught.
        Bytes part(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(cut));
        try {
            const json t = mv::tool::decode_snapshot(part.empty() ? nullptr : part.data(), part.size());
            // Only a stream that ends where a record could end decodes.
            EXPECT_TRUE(cut == 4 || starts.count(cut) == 1) << cut;
            EXPECT_EQ(t["size"], cut);
        } catch (const mv::tool::DecodeError& e) {
            ++errors;
            EXPECT_LE(e.offset, cut) << cut;
            EXPECT_NE(std::string(e.what()).find("byte offset " + std::to_string(e.offset)), std::string::npos)
                << e.what();
        }
    }
    EXPECT_GT(errors, cuts.size() / 2);
}

TEST_F(Decode, EmptyStreamIsAnErrorAtZero) {
    try {
        mv::tool::decode_snapshot(nullptr, 0);
        FAIL() << "no error";
    } catch (const mv::tool::DecodeError& e) {
        EXPECT_EQ(e.offset, 0u);
    }
}

TEST_F(Decode, TrailingBytesThatAreNoWholeRecordAreAnError) {
    Bytes b = TakeDefault();
    const std::size_t end = b.size();
    b.insert(b.end(), {1, 2, 3, 4, 5});
    try {
        mv::tool::decode_snapshot(b.data(), b.size());
        FAIL() << "no error";
    } catch (const mv::tool::DecodeError& e) {
        EXPECT_EQ(e.offset, end);
    }
}

TEST_F(Decode, ACountPointingPastTheEndIsAnError) {
    Bytes b = TakeDefault();
    // The first port record (after the header and the 5368-byte adapter
    // record) says 1000 remote-port records follow: far more than there are.
    const std::size_t port0 = 4 + 5368;
    const uint32_t many = 1000;
    std::memcpy(b.data() + port0 + 4, &many, 4);
    try {
        mv::tool::decode_snapshot(b.data(), b.size());
        FAIL() << "no error";
    } catch (const mv::tool::DecodeError& e) {
        EXPECT_GT(e.offset, port0);
        EXPECT_LE(e.offset, b.size());
    }
}

TEST_F(Decode, HeaderAloneIsNoAdapterRecord) {
    const Bytes b = {2, 0, 0, 0};
    const json t = mv::tool::decode_snapshot(b.data(), b.size());
    EXPECT_EQ(t["adapter_count"], 2);
    EXPECT_EQ(t["adapter_records"], 0);
}

}  // namespace
