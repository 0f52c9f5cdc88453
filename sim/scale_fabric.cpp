#include "scale_fabric.h"

#include <stdexcept>
#include <utility>

namespace sim {
namespace {

constexpr uint32_t kMaxAdapters = 32;
constexpr uint32_t kMaxPorts = 67;
constexpr uint32_t kMaxVports = 128;
constexpr uint32_t kMaxTargets = 65536;
constexpr uint32_t kMaxLuns = 16384;

Wwn wwn(uint64_t v) {
    Wwn w;
    for (int i = 7; i >= 0; --i, v >>= 8) w[static_cast<std::size_t>(i)] = static_cast<uint8_t>(v & 0xFF);
    return w;
}

Mac mac(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3, uint8_t b4, uint8_t b5) { return {b0, b1, b2, b3, b4, b5}; }

// vslot: 0 for the physical port, v + 1 for its virtual port v.
uint64_t port_wwpn(uint64_t a, uint64_t p, uint64_t vslot) {
    return (vslot == 0 ? 0x2100001b9e000000ull : 0x2800001b9e000000ull | (vslot << 48)) | (a << 16) | p;
}

uint64_t port_wwnn(uint64_t a, uint64_t p, uint64_t vslot) {
    return (vslot == 0 ? 0x2000001b9e000000ull : 0x2900001b9e000000ull | (vslot << 48)) | (a << 16) | p;
}

uint64_t target_wwn(uint64_t prefix, uint64_t a, uint64_t p, uint64_t vslot, uint64_t t) {
    return (prefix << 56) | (a << 32) | (p << 24) | (vslot << 16) | t;
}

void check(const char* name, uint32_t value, uint32_t max) {
    if (value > max)
        throw std::invalid_argument(std::string("scale fabric: ") + name + " " + std::to_string(value) +
                                    " beyond " + std::to_string(max));
}

// The paths: at least one, and the physical ports fall into whole groups.
void check_paths(const ScaleParams& sp) {
    const uint64_t physical = uint64_t{sp.adapters} * sp.ports;
    if (sp.paths == 0) throw std::invalid_argument("scale fabric: paths 0: at least 1");
    if (sp.paths > 1 && physical % sp.paths != 0)
        throw std::invalid_argument("scale fabric: paths " + std::to_string(sp.paths) + " do not divide the " +
                                    std::to_string(physical) + " physical ports (adapters x ports)");
}

// Where a LUN's identity comes from when it has several paths: the group
// of its physical port and the first path of that group.
struct PathGroup {
    uint64_t group = 0;
    uint32_t first_adapter = 0;
    uint32_t first_port = 0;
};

PathGroup path_group(const ScaleParams& sp, uint32_t a, uint32_t p) {
    const uint64_t groups = uint64_t{sp.adapters} * sp.ports / sp.paths;
    PathGroup g;
    g.group = (uint64_t{a} * sp.ports + p) % groups;
    g.first_adapter = static_cast<uint32_t>(g.group / sp.ports);
    g.first_port = static_cast<uint32_t>(g.group % sp.ports);
    return g;
}

// The identity LUN l of target t has through every path of its group: the
// serial and the NAA 5 designator of scale_fabric.h.
void give_identity(const ScaleParams& sp, uint32_t a, uint32_t p, uint32_t vslot, uint32_t t, Lun& lun) {
    const PathGroup g = path_group(sp, a, p);
    const uint64_t first_target = target_wwn(0x50, g.first_adapter, g.first_port, vslot, t);
    lun.serial = "SIM" + wwn_to_hex(wwn(first_target)) + "L" + std::to_string(lun.lun);
    const uint64_t number = ((g.group * (uint64_t{sp.vports} + 1) + vslot) * sp.targets + t) * sp.luns + lun.lun;
    Designator naa;  // binary, NAA, associated with the LUN
    naa.id = {0x5a, 0x06, 0xc5, static_cast<uint8_t>(0xe0 | ((number >> 32) & 0x0F))};
    for (int shift = 24; shift >= 0; shift -= 8) naa.id.push_back(static_cast<uint8_t>(number >> shift));
    lun.designators = {naa};
}

// One local port's targets and their LUNs; next_block counts the block
// devices handed out so far.
std::vector<RemoteNode> targets_of(const ScaleParams& sp, uint32_t a, uint32_t p, uint32_t vslot,
                                   uint64_t& next_block) {
    std::vector<RemoteNode> out;
    out.reserve(sp.targets);
    for (uint32_t t = 0; t < sp.targets; ++t) {
        RemoteNode rn;
        rn.role = "target";
        rn.port_wwn = wwn(target_wwn(0x50, a, p, vslot, t));
        rn.node_wwn = wwn(target_wwn(0x51, a, p, vslot, t));
        rn.fcid = ((0x20u + p) << 16) | (t & 0xFFFFu);
        rn.cos = {0, 0, 128, 0};
        rn.luns.reserve(sp.luns);
        for (uint32_t l = 0; l < sp.luns; ++l) {
            Lun lun;
            lun.lun = l;
            lun.block = block_device_name(next_block++);
            lun.block_dir = true;  // block/size too: every reader finds the size
            if (sp.paths > 1) give_identity(sp, a, p, vslot, t, lun);
            rn.luns.push_back(std::move(lun));
        }
        out.push_back(std::move(rn));
    }
    return out;
}

}  // namespace

ScaleCounts scale_counts(const ScaleParams& p) {
    ScaleCounts c;
    c.physical_ports = uint64_t{p.adapters} * p.ports;
    c.virtual_ports = c.physical_ports * p.vports;
    c.targets = (c.physical_ports + c.virtual_ports) * p.targets;
    c.luns = c.targets * p.luns;
    return c;
}

std::string block_device_name(uint64_t n) {
    // Bijective base 26, as the SCSI disk driver names its disks.
    std::string letters;
    ++n;
    while (n > 0) {
        --n;
        letters.insert(letters.begin(), static_cast<char>('a' + n % 26));
        n /= 26;
    }
    return "sd" + letters;
}

Fabric scale_fabric(const ScaleParams& sp) {
    check("adapters", sp.adapters, kMaxAdapters);
    check("ports", sp.ports, kMaxPorts);
    check("vports", sp.vports, kMaxVports);
    check("targets", sp.targets, kMaxTargets);
    check("luns", sp.luns, kMaxLuns);
    check_paths(sp);
    // Each factor is bounded above, so the products fit in 64 bits.
    if (scale_counts(sp).luns > kMaxScaleLuns)
        throw std::invalid_argument("scale fabric: " + std::to_string(scale_counts(sp).luns) +
                                    " LUNs beyond " + std::to_string(kMaxScaleLuns));

    Fabric f;
    uint64_t next_block = 0;
    for (uint32_t a = 0; a < sp.adapters; ++a) {
        Adapter ad;
        ad.instance = a;
        ad.hw.manufacturer = "Mirvak";
        ad.hw.model = "MVF-SCALE";
        ad.hw.serial_num = "SCALE" + std::to_string(a);
        ad.hw.hw_version = "1.0";
        ad.hw.drv_version = "1.0.0-sim";
        ad.hw.fw_version = 0x01000000;
        for (uint32_t p = 0; p < sp.ports; ++p) {
            HwPort hp;
            hp.speed = 8;
            hp.mac = mac(0x00, 0x1b, 0x9e, static_cast<uint8_t>(a), 0x00, static_cast<uint8_t>(p));
            ad.hw.ports.push_back(hp);
            Fcf fcf;
            fcf.fcf_index = p + 1;
            fcf.fabric_name = wwn(0x1000001b9ef00000ull | (uint64_t{a} << 8) | p);  // its MAC 00:1b:9e:f0:aa:pp
            fcf.vlan = static_cast<uint8_t>(100 + p);
            ad.fcfs.push_back(fcf);
        }

        uint32_t lnode_id = 1;
        const auto local_port = [&](uint32_t p, uint32_t vslot) {
            LocalNode ln;
            ln.port_num = static_cast<uint8_t>(p);
            ln.port_wwn = wwn(port_wwpn(a, p, vslot));
            ln.node_wwn = wwn(port_wwnn(a, p, vslot));
            ln.mac = mac(0x0e, 0xfc, 0x00, static_cast<uint8_t>(a), static_cast<uint8_t>(p), static_cast<uint8_t>(vslot));
            ln.fcid = ((0x10u + a) << 16) | (p << 8) | vslot;
            ln.cos = {0, 0, 128, 0};
            ln.fcf_index = p + 1;
            ln.lnode_id = lnode_id++;
            if (vslot != 0) ln.parent = wwn(port_wwpn(a, p, 0));
            ln.rnodes = targets_of(sp, a, p, vslot, next_block);
            return ln;
        };
        // Physical ports first: the driver's ports are the first nodes of the chain.
        for (uint32_t p = 0; p < sp.ports; ++p) ad.lnodes.push_back(local_port(p, 0));
        for (uint32_t p = 0; p < sp.ports; ++p)
            for (uint32_t v = 0; v < sp.vports; ++v) ad.lnodes.push_back(local_port(p, v + 1));
        f.adapters.push_back(std::move(ad));
    }
    return f;
}

nlohmann::json scale_fabric_json(const ScaleParams& p) { return fabric_to_json(scale_fabric(p)); }

}  // namespace sim
