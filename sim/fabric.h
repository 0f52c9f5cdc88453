// The simulated fabric: adapters, their local ports (physical and virtual),
// the remote ports each local port sees, and the LUNs behind them.
//
// One description (JSON, see sim/FABRIC.md) drives both the simulated driver
// library (libtuskstor.so) and the simulated host (the sysfs tree and, later,
// the SCSI generic devices), so the two always agree.
#ifndef MIRVAK_SIM_FABRIC_H
#define MIRVAK_SIM_FABRIC_H

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {

using Wwn = std::array<uint8_t, 8>;
using Mac = std::array<uint8_t, 6>;

// Raw bytes written over a built record at a byte offset, after every named
// field: lets a description put anything anywhere (a state without a NUL, a
// num_ports larger than the table, ...).
struct RawPatch {
    std::size_t offset = 0;
    std::vector<uint8_t> bytes;
};

// One designator of the device identification page (VPD 0x83).
struct Designator {
    uint8_t code_set = 1;      // 1 binary, 2 ASCII, 3 UTF-8
    uint8_t type = 3;          // low four bits of byte 1 (3 = NAA)
    uint8_t association = 0;   // bits 4-5 of byte 1
    std::vector<uint8_t> id;   // identifier bytes
};

struct Lun {
    uint32_t lun = 0;
    bool has_vendor = true;          // sysfs "vendor" file present
    std::string vendor = "MIRVSIM";  // written as the vendor file's text
    std::string product = "SIMDISK";
    std::string revision = "0001";
    std::string serial;              // VPD 0x80; default derived from the address
    std::string block;               // block device name ("sdb"); empty: no block link
    uint64_t size = 2097152;         // block device size in 512-byte sectors
    bool block_dir = false;          // also publish the newer "block/" directory
    bool block_link = true;          // publish the "block:<block>" link (when block is set)
    std::optional<std::string> sysfs_name;   // LUN directory name instead of "H:0:T:L"
    std::optional<std::string> vendor_text;  // vendor file's exact contents
    std::optional<std::string> size_text;    // size files' exact contents
    std::vector<Designator> designators;  // VPD 0x83; a default NAA one when empty
    // The device node /dev/<block> (SCSI generic emulation of the host).
    std::optional<std::vector<uint8_t>> vpd83_raw;  // VPD 0x83 answered verbatim
    bool sg_fail = false;            // SG_IO fails with EIO
    int32_t sg_version = 30527;      // what SG_GET_VERSION_NUM answers
    bool no_device = false;          // opening the node fails with ENOENT
};

struct RemoteNode {
    std::optional<uint32_t> rnode_index;  // cursor value; default: ordinal in its list
    uint32_t word_4 = 0;
    uint32_t fcid = 0;
    uint8_t byte_12 = 0;
    std::string role = "target";
    Wwn port_wwn{};
    Wwn node_wwn{};
    std::array<uint8_t, 4> cos{};         // first byte of each class's block
    std::string state = "READY";
    std::array<uint32_t, 9> words{};      // uint32 at 1408, 1412, ..., 1440
    std::vector<RawPatch> raw;
    // Host side.
    bool in_sysfs = true;                 // publish an rport entry for it
    std::optional<uint32_t> scsi_target;  // T of targetH:0:T; default: ordinal among targets
    std::optional<std::string> sysfs_port_name;  // port_name text override
    std::vector<Lun> luns;
};

struct LocalNode {
    uint8_t port_num = 0;
    std::optional<uint32_t> num_rnodes;   // default: number of remote nodes
    uint32_t word_5 = 0;
    std::optional<uint64_t> lnode_handle; // cursor value; default generated, non-zero
    Mac mac{};
    uint32_t fcid = 0;
    uint8_t flag = 0;                     // byte at 27
    // Value at 28: the number of virtual ports of this port. Default: the
    // count tusk_list_npiv_port reports for its WWPN (0 for a virtual port).
    std::optional<uint32_t> word_28;
    Wwn port_wwn{};
    Wwn node_wwn{};
    std::array<uint8_t, 4> cos{};
    uint32_t fcf_index = 0;
    uint32_t word_148 = 0;
    uint32_t lnode_id = 0;
    std::array<uint32_t, 8> words{};      // uint32 at 1409, 1413, ..., 1437
    std::array<uint64_t, 4> quads{};      // uint64 at 1633, 1641, 1649, 1657
    std::string state = "READY";
    std::vector<RawPatch> raw;
    std::optional<Wwn> parent;            // set: a virtual port of the physical port with this WWPN
    // Host side: SCSI host number of its fc_host entry; default assigned in
    // order to every port whose WWPN was not seen before; -1: no fc_host.
    std::optional<int> scsi_host;
    std::optional<std::string> sysfs_port_name;  // port_name text override
    // Further attribute files of the fc_host entry, name and exact contents
    // (e.g. a second attribute whose name ends in "port_name").
    std::vector<std::pair<std::string, std::string>> sysfs_attrs;
    std::vector<RemoteNode> rnodes;
    // Physical port only: the count tusk_list_npiv_port reports, whatever
    // the number of entries it writes; default: the number of virtual ports.
    std::optional<uint32_t> npiv_reported_count;
    // Physical port only: the remote nodes a virtual port created on it
    // sees; when empty, the adapter's npiv_template is used.
    std::vector<RemoteNode> npiv_template;
};

struct Fcf {
    uint32_t fcf_index = 0;
    Wwn fabric_name{};
    uint16_t max_frame_size = 2112;
    uint8_t vlan = 0;
    std::vector<RawPatch> raw;
};

struct HwPort {
    uint8_t enabled = 1;
    uint16_t speed = 10;
    Mac mac{};
};

struct Hw {
    std::string manufacturer, model, serial_num, hw_version, drv_version;
    uint16_t vendor_id = 0;
    uint32_t optrom_version = 0;
    uint32_t fw_version = 0;
    std::optional<uint8_t> num_ports;     // default: ports.size()
    uint8_t byte_191 = 0;
    uint32_t word_192 = 0, word_284 = 0, word_288 = 0, word_292 = 0, word_332 = 0;
    std::string text_246, text_296;
    std::vector<uint8_t> block_336;       // up to 136 bytes
    std::vector<HwPort> ports;
    std::vector<RawPatch> raw;
};

struct NpivPolicy {
    int create_status = 0;                // non-zero: refuse every create with this
    int delete_status = 0;
    bool refused_marker = false;          // on refusal leave -5 at request offset 32
    uint32_t max_vports = 128;            // per physical port
};

struct Adapter {
    uint32_t instance = 0;                // 0..31
    int probe_status = 0;                 // tusk_probe_adapter's answer
    Hw hw;
    std::vector<Fcf> fcfs;
    std::vector<LocalNode> lnodes;        // the local-node chain, in order
    std::vector<RawPatch> closing_lnode;  // bytes of the record that closes the chain
    NpivPolicy npiv;
    // Remote nodes of a virtual port created on a physical port that has no
    // npiv_template of its own.
    std::vector<RemoteNode> npiv_template;
};

// The twelve operations of the driver library, by name: the names that call
// counts and faults use.
inline constexpr std::array<const char*, 12> kOperationNames = {
    "open_adapter", "open_adapter_str", "close_adapter", "tusk_probe_adapter",
    "tusk_get_hw_info", "tusk_get_lnode_info", "tusk_get_lnode_info_by_fcid",
    "tusk_get_rnode_info", "tusk_get_fcf_info", "tusk_list_npiv_port",
    "tusk_create_npiv_port", "tusk_delete_npiv_port"};

struct Fault {
    std::string op;       // operation name, e.g. "tusk_get_lnode_info"
    uint32_t nth = 1;     // the n-th call (counting from 1) of that operation
    int status = 1;       // ... returns this
    bool every = false;   // every call from the n-th on
    std::string hang;     // non-empty: instead of failing, that call blocks until this file exists,
                          // then does its work as usual (a driver stuck in an ioctl)
};

struct Fabric {
    std::vector<Adapter> adapters;
    std::vector<Fault> faults;
};

// A description that cannot be used. what() names the source (file name or
// "<default>") and the field path, e.g.
//   "fabric.json: adapters[1].lnodes[0].port_wwn: expected 16 hex digits".
struct FabricError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Field-by-field equality (a description and its round trip compare equal).
#define MV_SIM_EQUALITY(T)                       \
    bool operator==(const T& a, const T& b);     \
    inline bool operator!=(const T& a, const T& b) { return !(a == b); }
MV_SIM_EQUALITY(RawPatch)
MV_SIM_EQUALITY(Designator)
MV_SIM_EQUALITY(Lun)
MV_SIM_EQUALITY(RemoteNode)
MV_SIM_EQUALITY(LocalNode)
MV_SIM_EQUALITY(Fcf)
MV_SIM_EQUALITY(HwPort)
MV_SIM_EQUALITY(Hw)
MV_SIM_EQUALITY(NpivPolicy)
MV_SIM_EQUALITY(Adapter)
MV_SIM_EQUALITY(Fault)
MV_SIM_EQUALITY(Fabric)
#undef MV_SIM_EQUALITY

// Largest description file load_fabric_file reads.
constexpr std::size_t kMaxFabricFileBytes = 16u << 20;

Fabric parse_fabric(const nlohmann::json& doc, const std::string& source);
Fabric parse_fabric_text(const std::string& text, const std::string& source);
Fabric load_fabric_file(const std::string& path);
nlohmann::json fabric_to_json(const Fabric& f);
const char* default_fabric_text();   // sim/default_fabric.json, built in

std::string wwn_to_hex(const Wwn& w);             // "2000000743001a2b"
std::optional<Wwn> parse_wwn(const std::string& text);  // 16 hex digits, colons allowed

}  // namespace sim

#endif
