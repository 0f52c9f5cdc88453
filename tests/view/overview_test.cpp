// The overview tree and the topology graph of a decoded snapshot, from
// hand-written trees: what each line says, what is marked, and how a long
// list is cut.
#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "overview.h"

namespace {

using nlohmann::json;

json Lun(int i) {
    return {{"index", i},
            {"hctl", "5:0:0:" + std::to_string(i)},
            {"device", "/dev/sd" + std::string(1, static_cast<char>('a' + i))},
            {"vendor", "KESTREL"},
            {"size", 2097152},
            {"size_name", "1.0 GiB"}};
}

json Remote(int index, const std::string& wwn, int luns, int state = 2) {
    json r = {{"index", index}, {"port_wwn", wwn}, {"state", state},
              {"state_name", state == 2 ? "online" : "offline"}, {"role", state == 2 ? "target" : ""},
              {"lun_count", luns}, {"luns", json::array()}};
    for (int i = 0; i < luns; ++i) r["luns"].push_back(Lun(i));
    return r;
}

json Tree() {
    json port = {{"index", 0},
                 {"port_wwn", "21:00:00:00:00:00:00:01"},
                 {"state", 2},
                 {"state_name", "online"},
                 {"speed", 4},
                 {"speed_name", "10 Gbit/s"},
                 {"os_device_name", "/sys/class/fc_host/host5"},
                 {"fcoe", {{"vlan_id", 300}, {"fcf_index", 2}, {"port_error", false}}},
                 {"remote_ports",
                  {Remote(0, "50:00:00:00:00:00:00:01", 14), Remote(1, "50:00:00:00:00:00:00:02", 0, 3),
                   Remote(2, "00:00:00:00:00:00:00:00", 1, 0)}},
                 {"virtual_ports_listed", true},
                 {"virtual_ports", json::array()}};
    json offline = {{"index", 1},
                    {"port_wwn", "21:00:00:00:00:00:00:02"},
                    {"state", 6},
                    {"state_name", "link down"},
                    {"speed", 0},
                    {"speed_name", "unknown"},
                    {"os_device_name", ""},
                    {"remote_ports", json::array()},
                    {"virtual_ports_listed", false},
                    {"virtual_ports", json::array()}};
    return {{"adapters",
             {{{"index", 0},
               {"name", "/dev/tuskstor5"},
               {"manufacturer", "Mirvak"},
               {"model", "MVF-1"},
               {"serial_number", "SN1"},
               {"firmware_version", "1.0.0.1"},
               {"node_wwn", "20:00:00:00:00:00:00:01"},
               {"port_count", 2},
               {"repeat", false},
               {"ports", {port, offline}}}}}};
}

TEST(Overview, OneLineAThingAndLongListsCounted) {
    const std::string text = mv::tool::overview_text(Tree());
    std::string want =
        "1 adapter, 2 ports, 0 virtual ports, 3 remote ports, 15 LUNs\n"
        "Adapter 0  /dev/tuskstor5  Mirvak MVF-1  serial SN1  firmware 1.0.0.1  node 20:00:00:00:00:00:00:01  2 ports\n"
        "  Port 0  21:00:00:00:00:00:00:01  online     10 Gbit/s  VLAN 300  FCF 2  host5\n"
        "    Remote port 0  50:00:00:00:00:00:00:01  online     target  14 LUNs\n";
    for (int i = 0; i < 12; ++i)
        want += "      LUN 5:0:0:" + std::to_string(i) + std::string(i < 10 ? "    " : "   ") + "/dev/sd" +
                std::string(1, static_cast<char>('a' + i)) + "  KESTREL   1.0 GiB\n";
    want +=
        "      ... 2 more LUNs\n"
        "    Remote port 1  50:00:00:00:00:00:00:02  offline    0 LUNs\n"
        "    Remote port 2  (vanished: listed without WWN)  1 LUN\n"
        "      LUN 5:0:0:0    /dev/sda  KESTREL   1.0 GiB\n"
        "  Port 1  21:00:00:00:00:00:00:02  link down  speed unknown\n"
        "    Virtual ports: the library could not list them\n";
    EXPECT_EQ(text, want);
}

TEST(Overview, NothingDecodedIsNoAdapters) {
    EXPECT_EQ(mv::tool::overview_text(json{{"adapters", json::array()}}),
              "0 adapters, 0 ports, 0 virtual ports, 0 remote ports, 0 LUNs\n");
}

TEST(Topology, MarksOfflineAndVanishedAndEscapesTexts) {
    json tree = Tree();
    tree["adapters"][0]["model"] = "MVF \"1\" \\ x";
    const std::string dot = mv::tool::topology_dot(tree);
    EXPECT_EQ(dot.rfind("digraph mirvak_hba {\n", 0), 0u);
    EXPECT_NE(dot.find("a0 [label=\"/dev/tuskstor5\\nMirvak MVF \\\"1\\\" \\\\ x\\nnode 20:00:00:00:00:00:00:01\""),
              std::string::npos)
        << dot;
    EXPECT_NE(dot.find("  a0_p0_r2 [label=\"remote port 2\\nvanished (no WWN)\", shape=ellipse, style=dotted, "
                       "color=red, fontcolor=red];\n"),
              std::string::npos)
        << dot;
    EXPECT_NE(dot.find("  a0_p1 [label=\"port 1\\n21:00:00:00:00:00:00:02\\nlink down, speed unknown\", shape=box, "
                       "style=dashed, color=gray40, fontcolor=gray30];\n"),
              std::string::npos)
        << dot;
    EXPECT_NE(dot.find("  a0_p0_r0_l13 [label=\"/dev/sdn\\n5:0:0:13\\nKESTREL, 1.0 GiB\", shape=cylinder];\n"),
              std::string::npos)
        << dot;
    EXPECT_NE(dot.find("  a0 -> a0_p1;\n"), std::string::npos);
    EXPECT_EQ(dot.substr(dot.size() - 2), "}\n");
}

}  // namespace
