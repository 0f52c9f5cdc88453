// Writes the host's view of a fabric: the fc_host class tree with the
// remote-port, target, LUN and block entries below each SCSI host, and the
// HBA API front library's configuration file.
//
// Layout for a local node that got SCSI host H and a published remote node
// with ordinal M (target T, LUN L, block device sdX):
//
//   sys/class/fc_host/hostH/{port_name,node_name,port_state,<extra attrs>}
//   sys/class/fc_host/hostH/device/rport-H:0-M/
//       fc_remote_ports:rport-H:0-M/{port_name,node_name,port_state,roles}
//       targetH:0:T/H:0:T:L/{vendor,model,rev}
//       targetH:0:T/H:0:T:L/block:sdX/size        (unless block_link is false)
//       targetH:0:T/H:0:T:L/block/size            (when block_dir)
//       targetH:0:T/H:0:T:L/block/sdX/size        (when block_dir)
//   etc/hba.conf
//   sim/sg.json        (the SCSI device index, see sg_index.h)
//   sim/sg.stamp       (the index's length and hashes)
//
// A LUN's sysfs_name replaces H:0:T:L; vendor_text and size_text replace the
// vendor and size files' contents.
//
// Unlike the kernel's tree, every entry here is a real directory or file
// (no symbolic links), which is all the readers need.
#include "sysfs_gen.h"

#include "sg_index.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
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
std::string wwn_text(const Wwn& w) {
    unsigned long long v = 0;
    for (uint8_t b : w) v = (v << 8) | b;
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%016llx\n", v);
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

void write_lun(const fs::path& target_dir, const std::string& btl, const Lun& lun) {
    const std::string name = lun.sysfs_name ? *lun.sysfs_name : btl;
    check_name(name, "LUN");
    const fs::path dir = target_dir / name;
    make_dir(dir);
    if (lun.has_vendor) write_file(dir / "vendor", lun.vendor_text ? *lun.vendor_text : padded(lun.vendor, 8));
    write_file(dir / "model", padded(lun.product, 16));
    write_file(dir / "rev", padded(lun.revision, 4));
    if (lun.block.empty()) return;
    check_name(lun.block, "block device");
    const std::string size = lun.size_text ? *lun.size_text : decimal_line(lun.size);
    if (lun.block_link) {
        const fs::path link = dir / ("block:" + lun.block);
        make_dir(link);
        write_file(link / "size", size);
    }
    if (lun.block_dir) {
        // The newer layout: block/sdX/size. block/size beside it is what
        // readers that cut "block:sdX" to "block" look for.
        make_dir(dir / "block");
        write_file(dir / "block" / "size", size);
        make_dir(dir / "block" / lun.block);
        write_file(dir / "block" / lun.block / "size", size);
    }
}

// The device nodes of a target's LUNs for the SCSI device index, with the
// defaults resolved: serial "SIM" + the remote port's WWPN + "L" + the LUN
// number; one NAA designator 60 00 00 00, the WWPN, the LUN (32 bits,
// big-endian). REPORT LUNS lists every LUN of the target.
void add_devices(std::vector<sg::Device>& index, const std::string& ht, const RemoteNode& rn) {
    std::vector<uint32_t> numbers;
    for (const Lun& lun : rn.luns) numbers.push_back(lun.lun);
    for (const Lun& lun : rn.luns) {
        if (lun.block.empty()) continue;
        sg::Device d;
        d.path = "/dev/" + lun.block;
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

void write_host(const fs::path& class_dir, int h, const LocalNode& ln, std::vector<sg::Device>& index) {
    const std::string hs = std::to_string(h);
    const fs::path host = class_dir / ("host" + hs);
    make_dir(host);
    write_file(host / "port_name", ln.sysfs_port_name ? *ln.sysfs_port_name : wwn_text(ln.port_wwn));
    write_file(host / "node_name", wwn_text(ln.node_wwn));
    write_file(host / "port_state", port_state_text(ln.state));
    for (const auto& [name, content] : ln.sysfs_attrs) {
        check_name(name, "fc_host attribute");
        write_file(host / name, content);
    }

    const fs::path device = host / "device";
    make_dir(device);
    uint32_t rport_ordinal = 0;
    uint32_t target_ordinal = 0;
    for (const RemoteNode& rn : ln.rnodes) {
        if (!rn.in_sysfs) continue;
        const std::string rport_name = "rport-" + hs + ":0-" + std::to_string(rport_ordinal++);
        const fs::path rport = device / rport_name;
        make_dir(rport);
        const fs::path remote = rport / ("fc_remote_ports:" + rport_name);
        make_dir(remote);
        write_file(remote / "port_name",
                   rn.sysfs_port_name ? *rn.sysfs_port_name : wwn_text(rn.port_wwn));
        write_file(remote / "node_name", wwn_text(rn.node_wwn));
        write_file(remote / "port_state", port_state_text(rn.state));
        write_file(remote / "roles", roles_text(rn.role));

        if (lower(rn.role) != "target") continue;
        const uint32_t t = rn.scsi_target ? *rn.scsi_target : target_ordinal;
        ++target_ordinal;
        const std::string ht = hs + ":0:" + std::to_string(t);
        const fs::path target = rport / ("target" + ht);
        make_dir(target);
        for (const Lun& lun : rn.luns) write_lun(target, ht + ":" + std::to_string(lun.lun), lun);
        add_devices(index, ht, rn);
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

// root/sys/class/fc_host and root/sim, written afresh.
void write_scsi_view(const Fabric& f, const fs::path& base, const std::vector<HostAssignment>& hosts) {
    const fs::path class_dir = base / "sys" / "class" / "fc_host";
    const fs::path sg_dir = base / sg::kIndexDir;
    remove_tree(class_dir);
    remove_tree(sg_dir);
    std::vector<sg::Device> index;

    make_dirs(class_dir);
    for (const HostAssignment& h : hosts)
        write_host(class_dir, h.host, f.adapters[h.adapter].lnodes[h.lnode], index);

    make_dirs(sg_dir);
    const std::string text =
        sg::index_to_json(index).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    write_file(base / sg::kIndexFile, text);
    write_file(base / sg::kStampFile, index_stamp(text));
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
