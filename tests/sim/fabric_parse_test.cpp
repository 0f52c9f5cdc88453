// Reading and writing fabric descriptions.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fabric.h"

namespace {

using sim::Fabric;
using sim::FabricError;
using sim::parse_fabric_text;

// The message of the error that reading `json` as "fabric.json" gives, or
// "no error".
std::string ErrorOf(const std::string& json) {
    try {
        parse_fabric_text(json, "fabric.json");
    } catch (const FabricError& e) {
        return e.what();
    }
    return "no error";
}

// One adapter at instance 1 with the given members added.
std::string OneAdapter(const std::string& members) {
    return R"({"adapters":[{"instance":1)" + (members.empty() ? "" : "," + members) + "}]}";
}

TEST(FabricParse, BadWwnNamesTheSourceAndTheFieldPath) {
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":1},
        {"instance":2,"lnodes":[{"port_wwn":"20:00:00:07:43:00:1a"}]}]})"),
              "fabric.json: adapters[1].lnodes[0].port_wwn: expected 16 hex digits");
}

TEST(FabricParse, WwnWithAStrayCharacterIsRefused) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"node_wwn":"2000000743001a2g"}])")),
              "fabric.json: adapters[0].lnodes[0].node_wwn: expected 16 hex digits");
}

TEST(FabricParse, BadMacNamesItsField) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"ports":[{},{"mac":"00:1b:9e:a1:00"}]})")),
              "fabric.json: adapters[0].hw.ports[1].mac: expected 12 hex digits");
}

TEST(FabricParse, UnknownKeyIsRefused) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"colour":"blue"})")), "fabric.json: adapters[0].hw.colour: unknown key");
    EXPECT_EQ(ErrorOf(R"({"adapter":[]})"), "fabric.json: adapter: unknown key");
}

TEST(FabricParse, WrongTypesAreRefused) {
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":"one"}]})"),
              "fabric.json: adapters[0].instance: expected an integer (a number or a \"0x...\" string)");
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":1.5}]})"),
              "fabric.json: adapters[0].instance: expected an integer (a number or a \"0x...\" string)");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"rnodes":[{"in_sysfs":1}]}])")),
              "fabric.json: adapters[0].lnodes[0].rnodes[0].in_sysfs: expected true or false");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"state":7}])")),
              "fabric.json: adapters[0].lnodes[0].state: expected a string");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("fcfs":{})")), "fabric.json: adapters[0].fcfs: expected a list");
    EXPECT_EQ(ErrorOf(R"([])"), "fabric.json: expected an object");
}

TEST(FabricParse, NumbersOutOfTheirRangeAreRefused) {
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":32}]})"),
              "fabric.json: adapters[0].instance: value 32 out of range 0..31");
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":-1}]})"),
              "fabric.json: adapters[0].instance: value -1 out of range 0..31");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"port_num":256}])")),
              "fabric.json: adapters[0].lnodes[0].port_num: value 256 out of range 0..255");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"vendor_id":"0x10000"})")),
              "fabric.json: adapters[0].hw.vendor_id: value 65536 out of range 0..65535");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"fcid":"0x1000000"}])")),
              "fabric.json: adapters[0].lnodes[0].fcid: value 16777216 out of range 0..16777215");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"scsi_host":-2}])")),
              "fabric.json: adapters[0].lnodes[0].scsi_host: value -2 out of range -1..2147483647");
    EXPECT_EQ(ErrorOf(R"({"faults":[{"op":"close_adapter","nth":0}]})"),
              "fabric.json: faults[0].nth: value 0 out of range 1..4294967295");
}

TEST(FabricParse, NumbersMayBeHexStrings) {
    const Fabric f = parse_fabric_text(OneAdapter(R"("probe_status":"-0x5",
        "hw":{"fw_version":"0xF1020304","vendor_id":"0x1E5F"},
        "lnodes":[{"lnode_handle":"0x7f5a00000100","lnode_id":4294967295}])"),
                                       "t");
    const sim::Adapter& a = f.adapters.at(0);
    EXPECT_EQ(a.probe_status, -5);
    EXPECT_EQ(a.hw.fw_version, 0xF1020304u);
    EXPECT_EQ(a.hw.vendor_id, 0x1E5Fu);
    EXPECT_EQ(a.lnodes.at(0).lnode_handle, std::optional<uint64_t>(0x7f5a00000100ull));
    EXPECT_EQ(a.lnodes.at(0).lnode_id, 0xFFFFFFFFu);
}

TEST(FabricParse, TextLongerThanItsRecordFieldIsRefused) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"model":")" + std::string(32, 'M') + R"("})")),
              "fabric.json: adapters[0].hw.model: text longer than 31 characters");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"model":")" + std::string(31, 'M') + R"("})")), "no error");
}

TEST(FabricParse, InstanceGivenTwiceIsRefused) {
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":4},{"instance":1},{"instance":4}]})"),
              "fabric.json: adapters[2].instance: 4 already used by adapters[0]");
}

TEST(FabricParse, CursorValuesGivenTwiceAreRefused) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"lnode_handle":16},{},{"lnode_handle":16}])")),
              "fabric.json: adapters[0].lnodes[2].lnode_handle: 16 already used by lnodes[0]");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("fcfs":[{"fcf_index":3},{"fcf_index":3}])")),
              "fabric.json: adapters[0].fcfs[1].fcf_index: 3 already used by fcfs[0]");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"rnodes":[{"rnode_index":5},{"rnode_index":5}]}])")),
              "fabric.json: adapters[0].lnodes[0].rnodes[1].rnode_index: 5 already used by rnodes[0]");
}

TEST(FabricParse, ParentMustBeAPhysicalPortOfTheSameAdapter) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"port_wwn":"2100000000000001"},
        {"port_wwn":"2800000000000001","parent":"2100000000000009"}])")),
              "fabric.json: adapters[0].lnodes[1].parent: no physical port with WWPN 2100000000000009 on this "
              "adapter");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"port_wwn":"2100000000000001"},
        {"port_wwn":"2800000000000001","parent":"2100000000000001"},
        {"port_wwn":"2800000000000002","parent":"2800000000000001"}])")),
              "fabric.json: adapters[0].lnodes[2].parent: no physical port with WWPN 2800000000000001 on this "
              "adapter");
}

TEST(FabricParse, RawPatchPastItsRecordIsRefused) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("fcfs":[{"raw":[{"offset":133,"hex":"01 02 03"}]}])")),
              "fabric.json: adapters[0].fcfs[0].raw[0].offset: 3 bytes at offset 133 run past the 135-byte record");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("closing_lnode":[{"offset":1729,"hex":"01"}])")),
              "fabric.json: adapters[0].closing_lnode[0].offset: 1 bytes at offset 1729 run past the 1729-byte "
              "record");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"raw":[{"offset":1015,"hex":"0102"}]})")),
              "fabric.json: adapters[0].hw.raw[0].offset: 2 bytes at offset 1015 run past the 1016-byte record");
    // The last bytes of a record may be patched.
    const Fabric f = parse_fabric_text(OneAdapter(R"("fcfs":[{"raw":[{"offset":132,"hex":"01:02:03"}]}])"), "t");
    EXPECT_EQ(f.adapters[0].fcfs[0].raw.at(0).bytes, (std::vector<uint8_t>{1, 2, 3}));
}

TEST(FabricParse, RawPatchNeedsOffsetAndHexBytes) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"raw":[{"offset":4}]})")),
              "fabric.json: adapters[0].hw.raw[0]: expected \"offset\" and \"hex\"");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"raw":[{"offset":4,"hex":"abc"}]})")),
              "fabric.json: adapters[0].hw.raw[0].hex: expected hex bytes such as \"de ad be ef\"");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("hw":{"raw":[{"offset":4,"hex":"ab","size":1}]})")),
              "fabric.json: adapters[0].hw.raw[0].size: unknown key");
}

TEST(FabricParse, UnknownFaultOperationIsRefused) {
    EXPECT_EQ(ErrorOf(R"({"faults":[{"op":"tusk_frobnicate"}]})"),
              "fabric.json: faults[0].op: unknown operation \"tusk_frobnicate\"");
}

TEST(FabricParse, BlockAndAttributeNamesMustBePlainFileNames) {
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"rnodes":[{"luns":[{"block":"../sda"}]}]}])")),
              "fabric.json: adapters[0].lnodes[0].rnodes[0].luns[0].block: expected a file name (letters, digits, "
              "'.', '_', '-')");
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"sysfs_attrs":[{"name":"..","value":"x"}]}])")),
              "fabric.json: adapters[0].lnodes[0].sysfs_attrs[0].name: expected a file name (letters, digits, '.', "
              "'_', '-')");
}

TEST(FabricParse, JsonSyntaxErrorNamesTheSource) {
    const std::string e = ErrorOf("{\"adapters\": [\n  {\"instance\": 1,}\n]}");
    EXPECT_EQ(e.rfind("fabric.json: parse error at line 2, column 18: ", 0), 0u) << e;
}

// Found by fuzzing: a number too large for any JSON number type escaped the
// parser as the JSON library's own exception.
TEST(FabricParse, NumberTooLargeForJsonIsRefusedWithTheSource) {
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":1E400}]})"),
              "fabric.json: number overflow parsing '1E400'");
}

TEST(FabricParse, KeyGivenTwiceIsRefused) {
    EXPECT_EQ(ErrorOf(R"({"adapters":[{"instance":1,"instance":2}]})"), "fabric.json: key \"instance\" given twice");
}

TEST(FabricParse, CommentsAreAllowed) {
    const Fabric f = parse_fabric_text("{\n// two adapters\n\"adapters\": [{\"instance\": 3 /* first */}]}", "t");
    EXPECT_EQ(f.adapters.at(0).instance, 3u);
}

TEST(FabricParse, MissingKeysKeepTheirDefaults) {
    const Fabric f = parse_fabric_text(OneAdapter(R"("lnodes":[{"rnodes":[{}]}],"hw":{"ports":[{}]})"), "t");
    const sim::LocalNode& n = f.adapters[0].lnodes.at(0);
    EXPECT_EQ(n.state, "READY");
    EXPECT_FALSE(n.lnode_handle.has_value());
    EXPECT_FALSE(n.word_28.has_value());
    EXPECT_EQ(n.rnodes.at(0).role, "target");
    EXPECT_EQ(f.adapters[0].hw.ports.at(0).speed, 10u);
    EXPECT_EQ(f.adapters[0].npiv.max_vports, 128u);
}

TEST(FabricParse, NullLeavesAnOptionalFieldUnset) {
    const Fabric f = parse_fabric_text(OneAdapter(R"("lnodes":[{"num_rnodes":null,"word_28":3}])"), "t");
    EXPECT_FALSE(f.adapters[0].lnodes[0].num_rnodes.has_value());
    EXPECT_EQ(f.adapters[0].lnodes[0].word_28, std::optional<uint32_t>(3));
}

TEST(FabricParse, FixedListsMayBeShorterButNotLonger) {
    const Fabric f = parse_fabric_text(OneAdapter(R"("lnodes":[{"words":[7,8]}])"), "t");
    EXPECT_EQ(f.adapters[0].lnodes[0].words, (std::array<uint32_t, 8>{7, 8, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(ErrorOf(OneAdapter(R"("lnodes":[{"cos":[1,2,3,4,5]}])")),
              "fabric.json: adapters[0].lnodes[0].cos: more than 4 items");
}

TEST(FabricParse, WwnHelpers) {
    const sim::Wwn expected{0x20, 0x00, 0x00, 0x07, 0x43, 0x00, 0x1a, 0x2b};
    EXPECT_EQ(sim::parse_wwn("2000000743001a2b"), expected);
    EXPECT_EQ(sim::parse_wwn("20:00:00:07:43:00:1A:2B"), expected);
    EXPECT_EQ(sim::parse_wwn("0x2000000743001a2b"), expected);
    EXPECT_FALSE(sim::parse_wwn("2000000743001a2"));
    EXPECT_FALSE(sim::parse_wwn("2000000743001a2b00"));
    EXPECT_FALSE(sim::parse_wwn("20:00:00:07:43:00:1a:2b:"));
    EXPECT_FALSE(sim::parse_wwn("2:000000743001a2b"));
    EXPECT_EQ(sim::wwn_to_hex(expected), "2000000743001a2b");
}

// A description that sets every kind of field away from its default.
const char* kEveryField = R"({
  "adapters": [{
    "instance": 6, "probe_status": -3,
    "hw": {"manufacturer": "M", "model": "Mo", "serial_num": "S", "hw_version": "H", "drv_version": "D",
           "vendor_id": 7, "optrom_version": 8, "fw_version": "0x01020304", "num_ports": 5, "byte_191": 9,
           "word_192": 10, "word_284": 11, "word_288": 12, "word_292": 13, "word_332": 14,
           "text_246": "t246", "text_296": "t296", "block_336": "01 02",
           "ports": [{"enabled": 0, "speed": 32, "mac": "00:11:22:33:44:55"}],
           "raw": [{"offset": 500, "hex": "ff"}]},
    "fcfs": [{"fcf_index": 2, "fabric_name": "1000000000000002", "max_frame_size": 1024, "vlan": 12,
              "raw": [{"offset": 0, "hex": "aa"}]}],
    "lnodes": [
      {"port_num": 1, "num_rnodes": 9, "word_5": 5, "lnode_handle": 4096, "mac": "0e:fc:00:01:02:03",
       "fcid": 66051, "flag": 1, "word_28": 28, "port_wwn": "2100000000000001", "node_wwn": "2000000000000001",
       "cos": [128, 0, 128, 0], "fcf_index": 2, "word_148": 148, "lnode_id": 21,
       "words": [1, 2, 3, 4, 5, 6, 7, 8], "quads": [9, 10, 11, 12], "state": "OFFLINE",
       "raw": [{"offset": 1700, "hex": "01"}], "scsi_host": 9, "sysfs_port_name": "0xabc",
       "sysfs_attrs": [{"name": "b_port_name", "value": "x\n"}, {"name": "a_attr", "value": "y"}],
       "npiv_reported_count": 3,
       "npiv_template": [{"port_wwn": "5000000000000009"}],
       "rnodes": [{"rnode_index": 77, "word_4": 4, "fcid": 3, "byte_12": 12, "role": "Initiator",
                   "port_wwn": "5000000000000001", "node_wwn": "5000000000000000", "cos": [0, 0, 0, 128],
                   "state": "DISAPPEARED", "words": [1, 2, 3, 4, 5, 6, 7, 8, 9],
                   "raw": [{"offset": 1783, "hex": "01"}], "in_sysfs": false, "scsi_target": 4,
                   "sysfs_port_name": "0x5",
                   "luns": [{"lun": 3, "has_vendor": false, "vendor": "V", "product": "P", "revision": "R",
                             "serial": "SER", "block": "sdq", "size": 99, "block_dir": true,
                             "block_link": false, "sysfs_name": "lun x:1", "vendor_text": "two words",
                             "size_text": "",
                             "designators": [{"code_set": 2, "type": 8, "association": 1, "id": "41 42"}]}]}]},
      {"port_wwn": "2800000000000001", "parent": "2100000000000001"}],
    "closing_lnode": [{"offset": 1601, "hex": "45 4e 44"}],
    "npiv": {"create_status": 1, "delete_status": 2, "refused_marker": true, "max_vports": 3},
    "npiv_template": [{"port_wwn": "5000000000000008", "role": "TARGET"}]
  }],
  "faults": [{"op": "tusk_get_hw_info", "nth": 2, "status": -7, "every": true}]
})";

TEST(FabricRoundTrip, EveryFieldSurvivesWritingAndReading) {
    const Fabric f = parse_fabric_text(kEveryField, "t");
    const Fabric back = sim::parse_fabric(sim::fabric_to_json(f), "round trip");
    EXPECT_TRUE(back == f);
    EXPECT_EQ(sim::fabric_to_json(back), sim::fabric_to_json(f));
}

TEST(FabricRoundTrip, TheDefaultFabricSurvivesWritingAndReading) {
    const Fabric f = parse_fabric_text(sim::default_fabric_text(), "<default>");
    EXPECT_TRUE(sim::parse_fabric(sim::fabric_to_json(f), "round trip") == f);
}

TEST(FabricRoundTrip, WritingLeavesDefaultsOut) {
    EXPECT_EQ(sim::fabric_to_json(Fabric{}).dump(), R"({"adapters":[]})");
    const Fabric f = parse_fabric_text(R"({"adapters":[{"instance":2,"hw":{"ports":[{},{"speed":8}]}}]})", "t");
    EXPECT_EQ(sim::fabric_to_json(f).dump(), R"({"adapters":[{"hw":{"ports":[{},{"speed":8}]},"instance":2}]})");
}

TEST(FabricRoundTrip, WritesWwnsMacsAndBytesAsText) {
    const Fabric f = parse_fabric_text(OneAdapter(R"("lnodes":[{"port_wwn":"21:00:00:1B:9E:A1:00:00",
        "mac":"0e:fc:00:01:0A:01","raw":[{"offset":3,"hex":"DEADBEEF"}]}])"),
                                       "t");
    const auto n = sim::fabric_to_json(f)["adapters"][0]["lnodes"][0];
    EXPECT_EQ(n["port_wwn"], "2100001b9ea10000");
    EXPECT_EQ(n["mac"], "0e:fc:00:01:0a:01");
    EXPECT_EQ(n["raw"][0]["hex"], "de ad be ef");
    EXPECT_EQ(n["raw"][0]["offset"], 3);
}

TEST(FabricEquality, ADifferenceDeepDownIsSeen) {
    const Fabric a = parse_fabric_text(kEveryField, "t");
    Fabric b = a;
    EXPECT_TRUE(a == b);
    b.adapters[0].lnodes[0].rnodes[0].luns[0].designators[0].id.push_back(0x43);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a != b);
}

TEST(FabricFile, MissingFileIsNamedInTheError) {
    try {
        sim::load_fabric_file("/nonexistent/fabric.json");
        FAIL() << "no error";
    } catch (const FabricError& e) {
        EXPECT_EQ(std::string(e.what()), "/nonexistent/fabric.json: cannot open: No such file or directory");
    }
}

TEST(FabricFile, ErrorsInsideAFileNameIt) {
    char path[] = "/tmp/mirvak-fabric-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << R"({"adapters":[{"instance":1,"lnodes":[{"port_wwn":"xyz"}]}]})";
    try {
        sim::load_fabric_file(path);
        ADD_FAILURE() << "no error";
    } catch (const FabricError& e) {
        EXPECT_EQ(std::string(e.what()), std::string(path) + ": adapters[0].lnodes[0].port_wwn: expected 16 hex digits");
    }
    std::ofstream(path) << R"({"adapters":[{"instance":9}]})";
    EXPECT_EQ(sim::load_fabric_file(path).adapters.at(0).instance, 9u);
    std::remove(path);
}

}  // namespace
