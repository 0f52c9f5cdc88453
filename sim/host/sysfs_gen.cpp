// Writes the host's view of a fabric in the shape the kernel publishes for
// FC and FCoE hosts: the device tree, the class and bus views, the older
// entry names beside the newer ones, plus the HBA API front library's
// configuration file.
//
// For a local node that got SCSI host H and a published remote node with
// ordinal M (target T, LUN L, block device sdX, generic device sgN):
//
//   sys/class/fc_host/hostH/{port_name,node_name,port_id,port_type,
//       port_state,speed,supported_speeds,supported_classes,fabric_name,
//       symbolic_name,maxframe_size,max_npiv_vports,npiv_vports_inuse,
//       dev_loss_tmo,tgtid_bind_type,manufacturer,model,serial_number,
//       hardware_version,driver_version,firmware_version,<extra attrs>,
//       statistics/}
//   sys/class/fc_host/hostH/device/                  the SCSI host's folder
//       fc_host/hostH -> the class entry above
//       scsi_host/hostH/{proc_name,unique_id,state,device->}
//       rport-H:0-M/fc_remote_ports/rport-H:0-M/{port_name,node_name,
//           port_id,port_state,roles,scsi_target_id,supported_classes,
//           dev_loss_tmo,fast_io_fail_tmo,maxframe_size,device->}
//       rport-H:0-M/fc_remote_ports:rport-H:0-M -> fc_remote_ports/rport-H:0-M
//       rport-H:0-M/targetH:0:T/H:0:T:L/{vendor,model,rev,type,state}
//           .../H:0:T:L/scsi_device/H:0:T:L/
//           .../H:0:T:L/scsi_generic/sgN/dev, generic -> scsi_generic/sgN
//           .../H:0:T:L/block/sdX/{dev,size,ro,removable,queue/,device->}
//           .../H:0:T:L/block:sdX -> block/sdX   (unless block_link is false)
//           .../H:0:T:L/block/size               (when block_dir)
//   sys/devices/pci0000:00/0000:BB:DD.F/hostH -> the SCSI host's folder
//       (one PCI function per adapter port: BB = 0x10 + the adapter's
//       instance, DD.F the port number); a virtual port's host is
//       .../hostP/vport-P:0-K/hostH below its physical port's host P
//   sys/class/{scsi_host,fc_remote_ports,scsi_device,scsi_generic,block}/
//       <name>, sys/block/sdX, sys/bus/scsi/devices/{hostH,targetH:0:T,
//       H:0:T:L} -> the folders above
//   sys/class/fc_transport/targetH:0:T/{port_name,node_name,port_id,device->}
//   sys/devices/pci0000:00/0000:BB:DD.F/{vendor,device,subsystem_vendor,
//       subsystem_device,class,revision,config,resource,irq,enable,driver->,
//       net/enpBsDfF/{address,ifindex,iflink,...,device->}}
//       (every port of the adapter; the fc_host's symbolic_name ends in
//       "over enpBsDfF"), sys/class/net/enpBsDfF, sys/bus/pci/devices/
//       0000:BB:DD.F, sys/bus/pci/drivers/tuskstor/{0000:BB:DD.F,module->},
//       sys/module/tuskstor/version
//   sys/devices/pci0000:00/0000:BB:DD.F/net/enpBsDfF/ctlr_N/   (a physical
//       port's FCoE controller){enabled,mode,fcf_dev_loss_tmo,r_a_tov,
//       e_d_tov,fip_vlan_responder,lesb/,hostH->, fcf_M/{fabric_name,
//       switch_name,mac,fc_map,vfid,priority,fka_period,selected,state,
//       vlan_id,dev_loss_tmo}}, sys/bus/fcoe/{ctlr_create,ctlr_destroy,
//       devices/{ctlr_N,fcf_M}->}; the class views of remote ports and SCSI
//       devices link through .../ctlr_N/hostH/..., as the kernel's do
//   etc/hba.conf
//   sim/sg.json        (the SCSI device index, see sg_index.h)
//   sim/bsg.json       (the remote ports' bsg nodes, likewise)
//   sim/sg.stamp       (the index's length and hashes)
//
// The kernel keeps the real folders in the device tree and makes the class
// entries links; here the folders lie where the plug-in walks them
// (/sys/class/fc_host/hostH/device/...), so that every directory it opens
// is the folder itself, and the device tree links to them. Every path the
// kernel publishes resolves to the same folder either way. All links are
// relative. A LUN's sysfs_name replaces H:0:T:L; vendor_text and size_text
// replace the vendor and size files' contents. Where each value comes
// from: sim/FABRIC.md.
#include "sysfs_gen.h"

#include "sg_index.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>

namespace sim {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path& path, const std::string& what, int err) {
    throw std::runtime_error("simulated host: " + what + " " + path.string() + ": " +
                             std::strerror(err));
}

[[noreturn]] void fail(const fs::path& path, const std::string& what, const std::error_code& ec) {
    throw std::runtime_error("simulated host: " + what + " " + path.string() + ": " + ec.message());
}

// A file with exactly this content (no text translation, no terminator).
void write_file(const fs::path& path, const std::string& content) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) fail(path, "cannot create", errno);
    const std::size_t written = std::fwrite(content.data(), 1, content.size(), f);
    const int write_err = errno;
    if (written != content.size()) {
        std::fclose(f);
        fail(path, "cannot write", write_err);
    }
    if (std::fclose(f) != 0) fail(path, "cannot write", errno);
}

// A new directory; an existing one is an error (two entries of the fabric
// claiming the same name).
void make_dir(const fs::path& path) {
    std::error_code ec;
    if (!fs::create_directory(path, ec)) {
        if (ec) fail(path, "cannot create directory", ec);
        fail(path, "cannot create directory", EEXIST);
    }
}

void make_dirs(const fs::path& path) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) fail(path, "cannot create directory", ec);
}

void remove_tree(const fs::path& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec) fail(path, "cannot remove", ec);
}

// Names taken from the fabric become single path components.
void check_name(const std::string& name, const char* what) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos)
        throw std::runtime_error(std::string("simulated host: unusable ") + what + " name \"" +
                                 name + "\"");
}

// "0x" and 16 lower-case hex digits and a line end, as the FC transport
// class prints a WWN.
unsigned long long wwn_value(const Wwn& w) {
    unsigned long long v = 0;
    for (uint8_t b : w) v = (v << 8) | b;
    return v;
}

std::string wwn_text(const Wwn& w) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%016llx\n", wwn_value(w));
    return buf;
}

// The driver's state word as the transport class names port states.
std::string port_state_text(const std::string& state) {
    if (state == "READY") return "Online\n";
    if (state == "OFFLINE") return "Offline\n";
    if (state == "UNINIT") return "Linkdown\n";
    return "Unknown\n";
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) {
        return static_cast<char>((c >= 'A' && c <= 'Z') ? c - 'A' + 'a' : c);
    });
    return s;
}

std::string roles_text(const std::string& role) {
    const std::string r = lower(role);
    if (r == "target") return "FCP Target\n";
    if (r == "initiator") return "FCP Initiator\n";
    return "unknown\n";
}

// SCSI inquiry strings as the SCSI layer publishes them: blank-padded to
// the field width, then a line end.
std::string padded(const std::string& text, std::size_t width) {
    std::string s = text;
    if (s.size() < width) s.append(width - s.size(), ' ');
    s += '\n';
    return s;
}

std::string decimal_line(unsigned long long v) { return std::to_string(v) + "\n"; }

// A relative symbolic link at `link` to `target` (both below the root), as
// the kernel's links are: they resolve inside whatever folder holds the tree.
void make_link(const fs::path& link, const fs::path& target) {
    std::error_code ec;
    fs::create_directories(link.parent_path(), ec);
    if (ec) fail(link.parent_path(), "cannot create directory", ec);
    // Relative to where the link really lies (its folder may be reached
    // through another link).
    const fs::path from = fs::canonical(link.parent_path(), ec);
    if (ec) fail(link.parent_path(), "cannot resolve", ec);
    const fs::path to = fs::weakly_canonical(target, ec);
    if (ec) fail(target, "cannot resolve", ec);
    fs::create_symlink(to.lexically_relative(from), link, ec);
    if (ec) fail(link, "cannot create link", ec);
}

// A link of a class or bus view (below root/sys/class, block or bus). Two
// entries of the fabric may claim one name there (the same block device
// name twice, the same LUN directory name below two targets): the first
// keeps it, as the device index keeps the first device of a name.
void view_link(const fs::path& link, const fs::path& target) {
    std::error_code ec;
    if (fs::symlink_status(link, ec).type() != fs::file_type::not_found) return;
    make_link(link, target);
}

// A link of a class view whose text is the path to target as written, not
// resolved: the kernel names a class device through the device tree, and
// readers take parts of the link's text (its "/net/" and controller). The
// link's folder holds no link itself, so the lexical path resolves. The
// first entry of a name keeps it, as in view_link.
void written_link(const fs::path& link, const fs::path& target) {
    std::error_code ec;
    if (fs::symlink_status(link, ec).type() != fs::file_type::not_found) return;
    make_dirs(link.parent_path());
    fs::create_symlink(target.lexically_relative(link.parent_path()), link, ec);
    if (ec) fail(link, "cannot create link", ec);
}

// A class device directory with its "device" link back to the device it
// belongs to.
fs::path class_device(const fs::path& device, const std::string& cls, const std::string& name) {
    const fs::path dir = device / cls / name;
    make_dirs(dir);
    make_link(dir / "device", device);
    return dir;
}

std::string hex_line(unsigned long long v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%llx\n", v);
    return buf;
}

std::string fcid_text(uint32_t fcid) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%06x\n", fcid & 0xFFFFFFu);
    return buf;
}

// The classes of service whose block has its top bit set, as the FC
// transport class lists them.
std::string classes_text(const std::array<uint8_t, 4>& cos) {
    std::string s;
    for (std::size_t i = 0; i < cos.size(); ++i) {
        if ((cos[i] & 0x80) == 0) continue;
        if (!s.empty()) s += ", ";
        s += "Class " + std::to_string(i + 1);
    }
    return (s.empty() ? "Unspecified" : s) + "\n";
}

// The FC-4 types bitmap as the transport class prints it: 32 bytes, each
// "0x%02x ", then a line end; FCP (type 8) is bit 0 of byte 2.
std::string fc4s_text(bool fcp) {
    std::string s;
    for (int i = 0; i < 32; ++i) s += (fcp && i == 2) ? "0x01 " : "0x00 ";
    return s + "\n";
}

// The hardware record's port speed (Gbit/s) as the transport class names
// it; "Unknown" for a code it has no name for.
std::string speed_name(uint16_t gbit) {
    switch (gbit) {
        case 1: case 2: case 4: case 8: case 10: case 16: case 20: case 25: case 32: case 40: case 50:
        case 64: case 100: case 128:
            return std::to_string(gbit) + " Gbit";
        default: return "Unknown";
    }
}

// Major and minor numbers of a block device named like the SCSI disk
// driver names them (sda = 8:0, sdb = 8:16, ..., sdq = 65:0, ...); other
// names take the extended block major 259 and their ordinal.
std::string block_dev(const std::string& name, unsigned ordinal) {
    unsigned long n = 0;
    bool disk = name.size() > 2 && name.compare(0, 2, "sd") == 0;
    for (std::size_t i = 2; disk && i < name.size(); ++i) {
        if (name[i] < 'a' || name[i] > 'z') disk = false;
        else n = n * 26 + static_cast<unsigned long>(name[i] - 'a' + 1);
    }
    if (disk) --n;
    if (disk && n < 128) {
        const unsigned long major = n < 16 ? 8 : 64 + n / 16;
        return std::to_string(major) + ":" + std::to_string((n % 16) * 16) + "\n";
    }
    return "259:" + std::to_string(ordinal) + "\n";
}

// The PCI function of an adapter port: bus 0x10 + the adapter's instance,
// eight functions per device.
std::string pci_function(uint32_t instance, uint8_t port) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0000:%02x:%02x.%x", 0x10 + instance, port / 8, port % 8);
    return buf;
}

// The network interface of an adapter port, named as udev names the
// interface of a PCI function (enp<bus>s<slot>f<function>).
std::string net_interface(uint32_t instance, uint8_t port) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "enp%us%uf%u", 0x10 + instance, port / 8, port % 8);
    return buf;
}

// What the writer of one SCSI view counts across hosts.
struct ViewState {
    fs::path sys;                  // root/sys
    unsigned next_sg = 0;          // sgN, in the order LUNs are written
    unsigned next_extended = 0;    // minor numbers of major 259
    std::vector<sg::Device> index;
    std::vector<sg::RemotePort> rports;  // the remote ports' bsg nodes
};

// A LUN of the target folder target_dir, which the kernel would place at
// kernel_target.
void write_lun(ViewState& v, const fs::path& target_dir, const fs::path& kernel_target, const std::string& btl,
               const Lun& lun, const RemoteNode& rn) {
    const std::string name = lun.sysfs_name ? *lun.sysfs_name : btl;
    check_name(name, "LUN");
    const fs::path dir = target_dir / name;
    make_dir(dir);
    if (lun.has_vendor) write_file(dir / "vendor", lun.vendor_text ? *lun.vendor_text : padded(lun.vendor, 8));
    write_file(dir / "model", padded(lun.product, 16));
    write_file(dir / "rev", padded(lun.revision, 4));
    write_file(dir / "type", "0\n");  // direct-access block device, as INQUIRY answers
    write_file(dir / "state", rn.state.find("READY") != std::string::npos ? "running\n" : "offline\n");
    view_link(v.sys / "bus" / "scsi" / "devices" / name, dir);
    class_device(dir, "scsi_device", name);
    // Through the device tree, as the kernel's link reads: FCoE tools take
    // the SCSI host from its text.
    written_link(v.sys / "class" / "scsi_device" / name, kernel_target / name / "scsi_device" / name);
    const std::string sg_name = "sg" + std::to_string(v.next_sg);
    const fs::path sg_dir = class_device(dir, "scsi_generic", sg_name);
    write_file(sg_dir / "dev", "21:" + std::to_string(v.next_sg++) + "\n");
    make_link(dir / "generic", sg_dir);
    view_link(v.sys / "class" / "scsi_generic" / sg_name, sg_dir);
    if (lun.block.empty()) return;
    check_name(lun.block, "block device");
    const std::string size = lun.size_text ? *lun.size_text : decimal_line(lun.size);
    const fs::path disk = class_device(dir, "block", lun.block);
    write_file(disk / "dev", block_dev(lun.block, v.next_extended++));
    write_file(disk / "size", size);
    write_file(disk / "ro", "0\n");
    write_file(disk / "removable", "0\n");
    // 512-byte blocks, as READ CAPACITY answers.
    make_dir(disk / "queue");
    for (const char* block_size : {"hw_sector_size", "logical_block_size", "physical_block_size"})
        write_file(disk / "queue" / block_size, "512\n");
    view_link(v.sys / "class" / "block" / lun.block, disk);
    view_link(v.sys / "block" / lun.block, disk);
    // The older name of the same directory.
    if (lun.block_link) make_link(dir / ("block:" + lun.block), disk);
    // block/size is what readers that cut "block:sdX" to "block" look for.
    if (lun.block_dir) write_file(dir / "block" / "size", size);
}

// The device nodes of a target's LUNs for the SCSI device index, with the
// defaults resolved: serial "SIM" + the remote port's WWPN + "L" + the LUN
// number; one NAA designator 60 00 00 00, the WWPN, the LUN (32 bits,
// big-endian). REPORT LUNS lists every LUN of the target.
void add_devices(std::vector<sg::Device>& index, const std::string& ht, const RemoteNode& rn, unsigned first_sg) {
    std::vector<uint32_t> numbers;
    for (const Lun& lun : rn.luns) numbers.push_back(lun.lun);
    unsigned sg_number = first_sg;  // every LUN took the next generic device, in order
    for (const Lun& lun : rn.luns) {
        const unsigned generic = sg_number++;
        if (lun.block.empty()) continue;
        sg::Device d;
        d.path = "/dev/" + lun.block;
        d.generic = "/dev/sg" + std::to_string(generic);
        d.hctl = ht + ":" + std::to_string(lun.lun);
        d.lun = lun.lun;
        d.vendor = lun.vendor;
        d.product = lun.product;
        d.revision = lun.revision;
        d.serial = lun.serial.empty() ? "SIM" + wwn_to_hex(rn.port_wwn) + "L" + std::to_string(lun.lun)
                                      : lun.serial;
        d.size = lun.size;
        for (const Designator& x : lun.designators)
            d.designators.push_back({x.code_set, x.type, x.association, x.id});
        if (d.designators.empty()) {
            sg::Designator naa;  // binary, NAA, associated with the LUN
            naa.id = {0x60, 0x00, 0x00, 0x00};
            naa.id.insert(naa.id.end(), rn.port_wwn.begin(), rn.port_wwn.end());
            for (int shift = 24; shift >= 0; shift -= 8) naa.id.push_back(static_cast<uint8_t>(lun.lun >> shift));
            d.designators.push_back(naa);
        }
        d.vpd83_raw = lun.vpd83_raw;
        d.sg_fail = lun.sg_fail;
        d.sg_version = lun.sg_version;
        d.no_device = lun.no_device;
        d.target_luns = numbers;
        index.push_back(std::move(d));
    }
}

// The FCF a local node logged in through; all zero (frame size 0) when the
// adapter lists none of that index.
Fcf fcf_of(const Adapter& a, const LocalNode& ln) {
    for (const Fcf& f : a.fcfs)
        if (f.fcf_index == ln.fcf_index) return f;
    Fcf none;
    none.max_frame_size = 0;
    return none;
}

// The fc_host attributes and statistics of a local node, from the driver's
// records for the same port (sim/FABRIC.md lists each source).
void write_fc_host_attrs(const fs::path& dir, const Adapter& a, const LocalNode& ln) {
    const bool live = ln.state == "READY";
    const bool virtual_port = ln.parent.has_value();
    write_file(dir / "port_name", ln.sysfs_port_name ? *ln.sysfs_port_name : wwn_text(ln.port_wwn));
    write_file(dir / "node_name", wwn_text(ln.node_wwn));
    write_file(dir / "port_id", fcid_text(ln.fcid));
    write_file(dir / "port_type", !live           ? "Unknown\n"
                                  : virtual_port ? "NPIV VPORT\n"
                                                 : "NPort (fabric via point-to-point)\n");
    write_file(dir / "port_state", port_state_text(ln.state));
    std::string speed = "Unknown";
    if (ln.port_num < a.hw.ports.size() && a.hw.ports[ln.port_num].enabled != 0)
        speed = speed_name(a.hw.ports[ln.port_num].speed);
    write_file(dir / "supported_speeds", speed + "\n");
    write_file(dir / "speed", (live ? speed : std::string("Unknown")) + "\n");
    write_file(dir / "supported_classes", classes_text(ln.cos));
    write_file(dir / "supported_fc4s", fc4s_text(true));
    write_file(dir / "active_fc4s", fc4s_text(live));
    const Fcf fcf = fcf_of(a, ln);
    write_file(dir / "fabric_name", wwn_text(fcf.fabric_name));
    write_file(dir / "maxframe_size", std::to_string(fcf.max_frame_size) + " bytes\n");
    char fw[16];
    std::snprintf(fw, sizeof fw, "%08X", a.hw.fw_version);
    // As a software FCoE host names itself: "... over <network interface>"
    // (a virtual port names its physical port's interface).
    write_file(dir / "symbolic_name", a.hw.model + " FW:" + fw + " DVR:" + a.hw.drv_version + " over " +
                                          net_interface(a.instance, ln.port_num) + "\n");
    std::size_t vports = 0;
    for (const LocalNode& other : a.lnodes)
        if (other.parent && *other.parent == ln.port_wwn) ++vports;
    write_file(dir / "max_npiv_vports", decimal_line(virtual_port ? 0 : a.npiv.max_vports));
    write_file(dir / "npiv_vports_inuse", decimal_line(virtual_port ? 0 : vports));
    write_file(dir / "dev_loss_tmo", "60\n");
    write_file(dir / "tgtid_bind_type", "wwpn (World Wide Port Name)\n");
    write_file(dir / "manufacturer", a.hw.manufacturer + "\n");
    write_file(dir / "model", a.hw.model + "\n");
    write_file(dir / "serial_number", a.hw.serial_num + "\n");
    write_file(dir / "hardware_version", a.hw.hw_version + "\n");
    write_file(dir / "driver_version", a.hw.drv_version + "\n");
    write_file(dir / "firmware_version", hex_line(a.hw.fw_version));
    for (const auto& [name, content] : ln.sysfs_attrs) {
        check_name(name, "fc_host attribute");
        write_file(dir / name, content);
    }

    // The frame and word counters are the local-node record's; the driver
    // keeps no other counter the transport class names.
    const fs::path stats = dir / "statistics";
    make_dir(stats);
    const std::pair<const char*, uint64_t> counters[] = {
        {"tx_frames", ln.quads[1]}, {"tx_words", ln.quads[0]},
        {"rx_frames", ln.quads[3]}, {"rx_words", ln.quads[2]},
        {"lip_count", 0}, {"nos_count", 0}, {"error_frames", 0}, {"dumped_frames", 0},
        {"link_failure_count", 0}, {"loss_of_sync_count", 0}, {"loss_of_signal_count", 0},
        {"prim_seq_protocol_err_count", 0}, {"invalid_tx_word_count", 0}, {"invalid_crc_count", 0},
        {"seconds_since_last_reset", 0}, {"fcp_input_requests", 0}, {"fcp_output_requests", 0},
        {"fcp_control_requests", 0}, {"fcp_input_megabytes", 0}, {"fcp_output_megabytes", 0},
        {"fcp_packet_alloc_failures", 0}, {"fcp_packet_aborts", 0}, {"fcp_frame_alloc_failures", 0},
    };
    for (const auto& [name, value] : counters) write_file(stats / name, hex_line(value));
}

// max_frame: the frame size the local port's FCF allows, which its logins
// to remote ports keep to.
void write_rport_attrs(const fs::path& dir, const RemoteNode& rn, std::optional<uint32_t> target, uint16_t max_frame) {
    write_file(dir / "port_name", rn.sysfs_port_name ? *rn.sysfs_port_name : wwn_text(rn.port_wwn));
    write_file(dir / "node_name", wwn_text(rn.node_wwn));
    write_file(dir / "port_id", fcid_text(rn.fcid));
    write_file(dir / "port_state", port_state_text(rn.state));
    write_file(dir / "roles", roles_text(rn.role));
    write_file(dir / "scsi_target_id", target ? decimal_line(*target) : "-1\n");
    write_file(dir / "supported_classes", classes_text(rn.cos));
    write_file(dir / "dev_loss_tmo", "60\n");
    write_file(dir / "fast_io_fail_tmo", "off\n");
    write_file(dir / "maxframe_size", std::to_string(max_frame) + " bytes\n");
}

// One SCSI host: `kernel_device` is where the kernel would place it in the
// device tree (below its FCoE controller, see host_places).
// The SCSI host's device directory lies below its fc_host class entry, as
// class/fc_host/hostH/device, and the device tree's hostH is a link to it:
// the plug-in's readers meet real directories on the paths they walk (the
// kernel has it the other way round; every path resolves the same).
void write_host(ViewState& v, int h, const Adapter& a, const LocalNode& ln, const fs::path& kernel_device) {
    const std::string hs = std::to_string(h);
    const std::string host_name = "host" + hs;
    const fs::path fc_host = v.sys / "class" / "fc_host" / host_name;
    const fs::path device = fc_host / "device";
    make_dir(fc_host);
    make_dir(device);
    view_link(v.sys / "bus" / "scsi" / "devices" / host_name, device);

    const fs::path scsi_host = class_device(device, "scsi_host", host_name);
    write_file(scsi_host / "proc_name", "tuskstor\n");
    write_file(scsi_host / "unique_id", decimal_line(static_cast<unsigned>(h)));
    write_file(scsi_host / "state", "running\n");
    view_link(v.sys / "class" / "scsi_host" / host_name, scsi_host);

    write_fc_host_attrs(fc_host, a, ln);
    make_link(device / "fc_host" / host_name, fc_host);

    uint32_t rport_ordinal = 0;
    uint32_t target_ordinal = 0;
    for (const RemoteNode& rn : ln.rnodes) {
        if (!rn.in_sysfs) continue;
        const std::string rport_name = "rport-" + hs + ":0-" + std::to_string(rport_ordinal++);
        const fs::path rport = device / rport_name;
        make_dir(rport);
        const bool target = lower(rn.role) == "target";
        std::optional<uint32_t> t;
        if (target) {
            t = rn.scsi_target ? *rn.scsi_target : target_ordinal;
            ++target_ordinal;  // an explicit number takes an ordinal too
        }
        const fs::path remote = class_device(rport, "fc_remote_ports", rport_name);
        write_rport_attrs(remote, rn, t, fcf_of(a, ln).max_frame_size);
        make_link(rport / ("fc_remote_ports:" + rport_name), remote);
        v.rports.push_back({"/dev/bsg/" + rport_name, rn.state == "READY"});
        // Named through the device tree, as the kernel's link reads: FCoE
        // tools tell an FCoE remote port by the "/net/" in its text.
        written_link(v.sys / "class" / "fc_remote_ports" / rport_name,
                     kernel_device / rport_name / "fc_remote_ports" / rport_name);

        if (!target) continue;
        const std::string ht = hs + ":0:" + std::to_string(*t);
        const fs::path target_dir = rport / ("target" + ht);
        make_dir(target_dir);
        view_link(v.sys / "bus" / "scsi" / "devices" / ("target" + ht), target_dir);
        // The kernel keeps this class device in the target's directory; here
        // it lives in the class folder itself (with its "device" link to
        // the target), since readers of the target's directory take every
        // entry in it for a LUN.
        const fs::path transport = v.sys / "class" / "fc_transport" / ("target" + ht);
        std::error_code ec;
        if (!fs::exists(transport, ec)) {
            make_dirs(transport);
            make_link(transport / "device", target_dir);
            write_file(transport / "port_name", wwn_text(rn.port_wwn));
            write_file(transport / "node_name", wwn_text(rn.node_wwn));
            write_file(transport / "port_id", fcid_text(rn.fcid));
        }
        const unsigned first_sg = v.next_sg;
        const fs::path kernel_target = kernel_device / rport_name / target_dir.filename();
        for (const Lun& lun : rn.luns)
            write_lun(v, target_dir, kernel_target, ht + ":" + std::to_string(lun.lun), lun, rn);
        add_devices(v.index, ht, rn, first_sg);
    }
}

void write_hba_conf(const fs::path& etc, const HostOptions& opt) {
    std::string text = "# HBA API plug-in libraries of the simulated host: name, tab, path\n";
    if (!opt.plugin_path.empty()) text += opt.plugin_name + "\t" + opt.plugin_path + "\n";
    write_file(etc / "hba.conf", text);
}

}  // namespace

std::vector<HostAssignment> assign_hosts(const Fabric& f) {
    long long next = 0;
    for (const Adapter& a : f.adapters)
        for (const LocalNode& ln : a.lnodes)
            if (ln.scsi_host && *ln.scsi_host >= 0) next = std::max(next, *ln.scsi_host + 1LL);

    std::vector<HostAssignment> out;
    std::set<Wwn> wwns_given;
    std::set<int> hosts_used;
    for (std::size_t ai = 0; ai < f.adapters.size(); ++ai) {
        const auto& lnodes = f.adapters[ai].lnodes;
        for (std::size_t li = 0; li < lnodes.size(); ++li) {
            const LocalNode& ln = lnodes[li];
            int host = 0;
            if (ln.scsi_host) {
                if (*ln.scsi_host < 0) continue;
                host = *ln.scsi_host;
            } else {
                if (wwns_given.count(ln.port_wwn) != 0) continue;
                if (next > INT_MAX)
                    throw std::runtime_error("simulated host: no SCSI host number left for adapters[" +
                                             std::to_string(ai) + "].lnodes[" + std::to_string(li) + "]");
                host = static_cast<int>(next++);
            }
            if (!hosts_used.insert(host).second)
                throw std::runtime_error("simulated host: SCSI host number " + std::to_string(host) +
                                         " claimed twice (again by adapters[" + std::to_string(ai) +
                                         "].lnodes[" + std::to_string(li) + "])");
            wwns_given.insert(ln.port_wwn);
            out.push_back({ai, li, host});
        }
    }
    return out;
}

namespace {

// The index's stamp: its length and two 64-bit hashes of its text (FNV-1a
// and djb2), so that a reader can tell a changed index from its stamp
// alone; an index written again with the same contents keeps its stamp.
std::string index_stamp(const std::string& text) {
    unsigned long long fnv = 14695981039346656037ull, djb = 5381;
    for (const unsigned char c : text) {
        fnv = (fnv ^ c) * 1099511628211ull;
        djb = djb * 33 + c;
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%zu-%016llx-%016llx\n", text.size(), fnv, djb);
    return buf;
}

// The root folder as given, refusing the machine's own "/" (the tree
// replaces folders below it).
fs::path checked_root(const std::string& root) {
    if (root.empty()) throw std::runtime_error("simulated host: empty root folder name");
    const fs::path base(root);
    std::error_code ec;
    const fs::path canon = fs::weakly_canonical(base, ec);
    if (ec) fail(base, "cannot resolve", ec);
    if (canon == canon.root_path())
        throw std::runtime_error("simulated host: refusing to write into " + canon.string());
    return base;
}

// Where every SCSI host lies in the device tree. `device`: a physical
// port's below the PCI function of its adapter port, a virtual port's below
// its physical port's host (vport-P:0-K/hostH). `kernel`: the same host on
// the path the kernel gives an FCoE host, below its controller
// (.../net/<interface>/ctlr_N/hostH, a virtual port's .../ctlr_N/hostP/
// vport-P:0-K/hostH); the class views of its remote ports name this path.
// Every physical port gets a controller, numbered in chain order.
struct HostPlace {
    fs::path device;
    fs::path kernel;
    std::optional<unsigned> controller;  // physical ports only
    fs::path interface;                  // the port's network device folder
};

std::vector<HostPlace> host_places(const Fabric& f, const fs::path& sys, const std::vector<HostAssignment>& hosts) {
    std::vector<HostPlace> out(hosts.size());
    std::map<std::pair<std::size_t, Wwn>, std::size_t> physical;  // (adapter, WWPN) -> position in hosts
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        const LocalNode& ln = f.adapters[hosts[i].adapter].lnodes[hosts[i].lnode];
        if (!ln.parent) physical.emplace(std::make_pair(hosts[i].adapter, ln.port_wwn), i);
    }
    const fs::path pci = sys / "devices" / "pci0000:00";
    unsigned controllers = 0;
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        const Adapter& a = f.adapters[hosts[i].adapter];
        const LocalNode& ln = a.lnodes[hosts[i].lnode];
        if (ln.parent) continue;
        const std::string name = "host" + std::to_string(hosts[i].host);
        out[i].device = pci / pci_function(a.instance, ln.port_num) / name;
        out[i].interface = pci / pci_function(a.instance, ln.port_num) / "net" / net_interface(a.instance, ln.port_num);
        out[i].controller = controllers++;
        out[i].kernel = out[i].interface / ("ctlr_" + std::to_string(*out[i].controller)) / name;
    }
    std::map<std::size_t, unsigned> vports;  // physical host position -> virtual ports placed
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        const Adapter& a = f.adapters[hosts[i].adapter];
        const LocalNode& ln = a.lnodes[hosts[i].lnode];
        if (!ln.parent) continue;
        const std::string name = "host" + std::to_string(hosts[i].host);
        const auto parent = physical.find({hosts[i].adapter, *ln.parent});
        if (parent == physical.end()) {  // no physical port to sit below
            out[i].device = out[i].kernel = pci / pci_function(a.instance, ln.port_num) / name;
            continue;
        }
        const std::size_t p = parent->second;
        const fs::path vport = "vport-" + std::to_string(hosts[p].host) + ":0-" + std::to_string(vports[p]++);
        out[i].device = out[p].device / vport / name;
        out[i].kernel = out[p].kernel / vport / name;
    }
    return out;
}

// The PCI identity of every simulated adapter port: the fabric's vendor,
// a device and subsystem of our own, an Ethernet controller (the port's
// network function, which carries the FCoE traffic).
constexpr uint16_t kPciDevice = 0x0fc0;
constexpr uint16_t kPciSubsystemDevice = 0x0001;
constexpr uint32_t kPciClass = 0x020000;
constexpr const char* kDriverName = "tuskstor";

// The hardware version as the PCI revision when it is one hex byte ("C1"),
// else 0.
uint8_t pci_revision(const std::string& hw_version) {
    if (hw_version.empty() || hw_version.size() > 2) return 0;
    unsigned v = 0;
    for (const char c : hw_version) {
        const int d = (c >= '0' && c <= '9') ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                     : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
        if (d < 0) return 0;
        v = v * 16 + static_cast<unsigned>(d);
    }
    return static_cast<uint8_t>(v);
}

// BAR 0 of a function: 64 KiB of memory at an address taken from its bus
// and function number.
unsigned long long bar0(uint32_t instance, uint8_t port) {
    return 0xe0000000ull + (static_cast<unsigned long long>(0x10 + instance) << 20) +
           (static_cast<unsigned long long>(port) << 16);
}

// The function's configuration space as the "config" file gives it (4096
// bytes, little-endian): identity, class, revision, BAR 0, subsystem, a
// PCI Express capability and the Device Serial Number extended capability
// holding the EUI-64 made from the port's MAC address.
std::string pci_config(const Adapter& a, uint8_t port, const Mac& mac) {
    std::string c(4096, '\0');
    const auto put = [&c](std::size_t at, unsigned long long v, int bytes) {
        for (int i = 0; i < bytes; ++i) c[at + static_cast<std::size_t>(i)] = static_cast<char>((v >> (8 * i)) & 0xFF);
    };
    put(0x00, a.hw.vendor_id, 2);
    put(0x02, kPciDevice, 2);
    put(0x04, 0x0006, 2);  // memory space, bus master
    put(0x06, 0x0010, 2);  // capability list present
    put(0x08, pci_revision(a.hw.hw_version), 1);
    put(0x09, kPciClass, 3);
    put(0x10, bar0(a.instance, port), 4);
    put(0x2c, a.hw.vendor_id, 2);
    put(0x2e, kPciSubsystemDevice, 2);
    put(0x34, 0x40, 1);
    put(0x40, 0x10, 1);    // PCI Express, last in the list
    put(0x42, 0x0002, 2);  // version 2, endpoint
    put(0x100, 0x00010003, 4);  // Device Serial Number, version 1, last
    unsigned long long eui = 0;
    for (const unsigned v : {unsigned{mac[0]}, unsigned{mac[1]}, unsigned{mac[2]}, 0xFFu, 0xFEu, unsigned{mac[3]},
                             unsigned{mac[4]}, unsigned{mac[5]}})
        eui = (eui << 8) | v;
    put(0x104, eui, 8);
    return c;
}

std::string mac_text(const Mac& m) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x\n", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

// Every adapter port's PCI function, with the network device below it and
// the views of both: sys/devices/pci0000:00/<function>/{vendor,device,
// subsystem_vendor,subsystem_device,class,revision,config,resource,irq,
// enable,driver->, net/<interface>/{address,ifindex,iflink,...,device->}},
// sys/bus/pci/devices/<function>, sys/bus/pci/drivers/tuskstor/{<function>,
// module->}, sys/module/tuskstor/version, sys/class/net/<interface>. The
// ports are the hardware record's, and any other port a local node names.
void write_adapter_functions(const Fabric& f, const fs::path& sys) {
    const fs::path driver = sys / "bus" / "pci" / "drivers" / kDriverName;
    const fs::path module = sys / "module" / kDriverName;
    make_dirs(driver);
    make_dirs(module);
    make_dirs(sys / "bus" / "pci" / "devices");
    make_dirs(sys / "class" / "net");
    make_link(driver / "module", module);
    write_file(module / "version", (f.adapters.empty() ? std::string() : f.adapters.front().hw.drv_version) + "\n");
    unsigned ifindex = 2;  // 1 is the loopback interface
    std::set<std::string> written;  // two adapters of one instance: the first keeps the function
    for (const Adapter& a : f.adapters) {
        std::set<uint8_t> ports;
        for (std::size_t p = 0; p < a.hw.ports.size() && p < 256; ++p) ports.insert(static_cast<uint8_t>(p));
        for (const LocalNode& ln : a.lnodes) ports.insert(ln.port_num);
        for (const uint8_t p : ports) {
            const HwPort hw = p < a.hw.ports.size() ? a.hw.ports[p] : HwPort{0, 0, {}};
            const std::string bdf = pci_function(a.instance, p);
            if (!written.insert(bdf).second) continue;
            const fs::path fn = sys / "devices" / "pci0000:00" / bdf;
            make_dirs(fn);
            char id[16];
            std::snprintf(id, sizeof id, "0x%04x\n", a.hw.vendor_id);
            write_file(fn / "vendor", id);
            write_file(fn / "subsystem_vendor", id);
            std::snprintf(id, sizeof id, "0x%04x\n", kPciDevice);
            write_file(fn / "device", id);
            std::snprintf(id, sizeof id, "0x%04x\n", kPciSubsystemDevice);
            write_file(fn / "subsystem_device", id);
            std::snprintf(id, sizeof id, "0x%06x\n", kPciClass);
            write_file(fn / "class", id);
            std::snprintf(id, sizeof id, "0x%02x\n", pci_revision(a.hw.hw_version));
            write_file(fn / "revision", id);
            write_file(fn / "config", pci_config(a, p, hw.mac));
            std::string resource;
            char line[80];
            std::snprintf(line, sizeof line, "0x%016llx 0x%016llx 0x%016llx\n", bar0(a.instance, p),
                          bar0(a.instance, p) + 0xFFFF, 0x40200ull);
            resource += line;
            for (int i = 1; i < 13; ++i) resource += "0x0000000000000000 0x0000000000000000 0x0000000000000000\n";
            write_file(fn / "resource", resource);
            write_file(fn / "irq", "0\n");
            write_file(fn / "enable", "1\n");
            make_link(fn / "driver", driver);
            make_link(driver / bdf, fn);
            make_link(sys / "bus" / "pci" / "devices" / bdf, fn);

            const std::string ifname = net_interface(a.instance, p);
            const fs::path net = fn / "net" / ifname;
            make_dirs(net);
            const std::string index = decimal_line(ifindex++);
            write_file(net / "ifindex", index);
            write_file(net / "iflink", index);  // not stacked on another interface
            write_file(net / "address", mac_text(hw.mac));
            write_file(net / "addr_len", "6\n");
            write_file(net / "broadcast", "ff:ff:ff:ff:ff:ff\n");
            write_file(net / "type", "1\n");  // Ethernet
            write_file(net / "mtu", "9000\n");
            write_file(net / "operstate", hw.enabled != 0 ? "up\n" : "down\n");
            write_file(net / "carrier", hw.enabled != 0 ? "1\n" : "0\n");
            write_file(net / "speed", hw.enabled != 0 ? decimal_line(hw.speed * 1000ull) : "-1\n");
            write_file(net / "duplex", "full\n");
            // Written as the kernel writes it, ending in the function's
            // name: readers take the PCI address from the link's text.
            std::error_code ec;
            fs::create_symlink(fs::path("../../..") / bdf, net / "device", ec);
            if (ec) fail(net / "device", "cannot create link", ec);
            make_link(sys / "class" / "net" / ifname, net);
        }
    }
}

// What the FIP keep-alive advertisement and the FCoE transport fix for
// every FCF and controller (no driver record holds them).
constexpr unsigned kFcfPriority = 128;
constexpr unsigned kFkaPeriodSeconds = 8;
constexpr unsigned kFcfDevLossTmo = 1800;
constexpr uint32_t kDefaultFcMap = 0x0efc00;

// An FCF as a controller's port discovered it: fcf_N's attributes. The
// switch names itself by the fabric's name (a fabric of one switch) and
// takes its MAC from that name's low six bytes (an IEEE-registered name,
// 10:00 and the MAC); the FC-MAP is the one the port's fabric-provided MAC
// begins with.
void write_fcf(const fs::path& dir, const Fcf& fcf, const LocalNode& port) {
    make_dir(dir);
    write_file(dir / "fabric_name", hex_line(wwn_value(fcf.fabric_name)));
    write_file(dir / "switch_name", hex_line(wwn_value(fcf.fabric_name)));
    const Mac mac{fcf.fabric_name[2], fcf.fabric_name[3], fcf.fabric_name[4],
                  fcf.fabric_name[5], fcf.fabric_name[6], fcf.fabric_name[7]};
    write_file(dir / "mac", mac_text(mac));
    const uint32_t map = (uint32_t{port.mac[0]} << 16) | (uint32_t{port.mac[1]} << 8) | port.mac[2];
    write_file(dir / "fc_map", hex_line(map != 0 ? map : kDefaultFcMap));
    write_file(dir / "vfid", "0\n");
    write_file(dir / "priority", decimal_line(kFcfPriority));
    write_file(dir / "fka_period", decimal_line(kFkaPeriodSeconds));
    const bool selected = fcf.fcf_index == port.fcf_index;
    write_file(dir / "selected", selected ? "1\n" : "0\n");
    write_file(dir / "state", port.state == "READY" ? "Connected\n" : "Disconnected\n");
    write_file(dir / "vlan_id", decimal_line(fcf.vlan));
    write_file(dir / "dev_loss_tmo", decimal_line(kFcfDevLossTmo));
}

// The controller of a physical port, as the FCoE transport publishes it:
// <interface>/ctlr_N/{enabled,mode,fcf_dev_loss_tmo,r_a_tov,e_d_tov,
// fip_vlan_responder,lesb/,hostH->,fcf_M/} and sys/bus/fcoe/devices/
// {ctlr_N,fcf_M}. Its FCFs are those its port and the port's virtual ports
// logged in through, in the driver's FCF order; fcf_M counts across
// controllers.
void write_controller(const fs::path& sys, const Adapter& a, const LocalNode& port, const HostPlace& place,
                      const std::set<uint32_t>& fcf_indexes, unsigned& next_fcf) {
    const fs::path ctlr = place.kernel.parent_path();
    const fs::path bus = sys / "bus" / "fcoe" / "devices";
    make_dir(ctlr);
    const bool enabled = port.port_num < a.hw.ports.size() && a.hw.ports[port.port_num].enabled != 0;
    write_file(ctlr / "enabled", enabled ? "1\n" : "0\n");
    write_file(ctlr / "mode", "Fabric\n");
    write_file(ctlr / "fcf_dev_loss_tmo", decimal_line(kFcfDevLossTmo));
    write_file(ctlr / "r_a_tov", "10000\n");
    write_file(ctlr / "e_d_tov", "2000\n");
    write_file(ctlr / "fip_vlan_responder", "0\n");
    make_dir(ctlr / "lesb");
    for (const char* counter : {"link_fail", "vlink_fail", "miss_fka", "symb_err", "err_block", "fcs_error"})
        write_file(ctlr / "lesb" / counter, "0\n");  // the driver counts none of them
    make_link(place.kernel, place.device);
    make_link(bus / ctlr.filename(), ctlr);
    for (const Fcf& fcf : a.fcfs) {
        if (fcf_indexes.count(fcf.fcf_index) == 0) continue;
        const std::string name = "fcf_" + std::to_string(next_fcf++);
        write_fcf(ctlr / name, fcf, port);
        make_link(bus / name, ctlr / name);
    }
}

// Every physical port's FCoE controller (see write_controller), and the
// fcoe bus's own ctlr_create and ctlr_destroy.
void write_fcoe_controllers(const Fabric& f, const fs::path& sys, const std::vector<HostAssignment>& hosts,
                            const std::vector<HostPlace>& places) {
    const fs::path bus = sys / "bus" / "fcoe";
    make_dirs(bus / "devices");
    write_file(bus / "ctlr_create", "");
    write_file(bus / "ctlr_destroy", "");
    unsigned next_fcf = 0;
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        if (!places[i].controller) continue;
        const Adapter& a = f.adapters[hosts[i].adapter];
        const LocalNode& port = a.lnodes[hosts[i].lnode];
        std::set<uint32_t> fcf_indexes{port.fcf_index};
        for (const LocalNode& ln : a.lnodes)
            if (ln.parent && *ln.parent == port.port_wwn) fcf_indexes.insert(ln.fcf_index);
        write_controller(sys, a, port, places[i], fcf_indexes, next_fcf);
    }
}

// The views written below root/sys, each removed before it is written again.
constexpr const char* kViews[] = {"devices", "class/fc_host", "class/scsi_host", "class/fc_remote_ports",
                                  "class/fc_transport", "class/scsi_device", "class/scsi_generic",
                                  "class/block", "block", "bus/scsi", "bus/pci", "class/net",
                                  "module/tuskstor", "bus/fcoe"};

// root/sys and root/sim, written afresh.
void write_scsi_view(const Fabric& f, const fs::path& base, const std::vector<HostAssignment>& hosts) {
    ViewState v;
    v.sys = base / "sys";
    const fs::path sg_dir = base / sg::kIndexDir;
    for (const char* view : kViews) remove_tree(v.sys / view);
    remove_tree(sg_dir);

    make_dirs(v.sys / "class" / "fc_host");
    const std::vector<HostPlace> places = host_places(f, v.sys, hosts);
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        const Adapter& a = f.adapters[hosts[i].adapter];
        write_host(v, hosts[i].host, a, a.lnodes[hosts[i].lnode], places[i].kernel);
    }
    write_adapter_functions(f, v.sys);
    // The device tree: physical ports' hosts first, then the virtual ports'
    // below them (their folders are reached through the physical ports'
    // links).
    for (const bool virtual_ports : {false, true})
        for (std::size_t i = 0; i < hosts.size(); ++i) {
            const bool is_virtual = places[i].device.parent_path().filename().string().rfind("vport-", 0) == 0;
            if (is_virtual != virtual_ports) continue;
            make_link(places[i].device, v.sys / "class" / "fc_host" / ("host" + std::to_string(hosts[i].host)) / "device");
        }
    write_fcoe_controllers(f, v.sys, hosts, places);

    make_dirs(sg_dir);
    const std::string text =
        sg::index_to_json(v.index).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    write_file(base / sg::kIndexFile, text);
    write_file(base / sg::kStampFile, index_stamp(text));
    write_file(base / sg::kBsgIndexFile, sg::rports_to_json(v.rports).dump() + "\n");
}

}  // namespace

void generate_host(const Fabric& f, const std::string& root, const HostOptions& opt) {
    const fs::path base = checked_root(root);
    if (opt.plugin_name.empty() || opt.plugin_name.find_first_of(" \t\n") != std::string::npos)
        throw std::runtime_error("simulated host: unusable plug-in name \"" + opt.plugin_name + "\"");
    if (opt.plugin_path.find('\n') != std::string::npos)
        throw std::runtime_error("simulated host: unusable plug-in path \"" + opt.plugin_path + "\"");

    const std::vector<HostAssignment> hosts = assign_hosts(f);  // validate before removing anything

    const fs::path etc = base / "etc";
    remove_tree(etc);
    write_scsi_view(f, base, hosts);

    make_dirs(etc);
    write_hba_conf(etc, opt);
}

void update_scsi_view(const Fabric& f, const std::string& root) {
    const fs::path base = checked_root(root);
    write_scsi_view(f, base, assign_hosts(f));
}

}  // namespace sim
