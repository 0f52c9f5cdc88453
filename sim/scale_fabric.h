// Large fabrics made to measure: every adapter alike, every physical port
// with the same number of virtual ports, every local port (physical or
// virtual) with the same number of targets, every target with the same
// number of LUNs, each LUN with a block device of its own. For benchmarks
// and tests that need a big system without writing it by hand; the program
// mirvak-simscale prints one.
#ifndef MIRVAK_SIM_SCALE_FABRIC_H
#define MIRVAK_SIM_SCALE_FABRIC_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "fabric.h"

namespace sim {

struct ScaleParams {
    uint32_t adapters = 1;        // instances 0, 1, ...; at most 32
    uint32_t ports = 1;           // physical ports per adapter; at most 67
    uint32_t vports = 0;          // virtual ports per physical port; at most 128
    uint32_t targets = 1;         // targets per local port, physical or virtual; at most 65536
    uint32_t luns = 1;            // LUNs per target; at most 16384
    uint32_t paths = 1;           // local ports each LUN is reachable through; divides adapters * ports
};

// Largest number of LUNs in one generated fabric.
constexpr uint64_t kMaxScaleLuns = 1u << 20;

// Local ports, remote ports and LUNs a fabric of these parameters has.
struct ScaleCounts {
    uint64_t physical_ports = 0;
    uint64_t virtual_ports = 0;
    uint64_t targets = 0;
    uint64_t luns = 0;
};
ScaleCounts scale_counts(const ScaleParams& p);

// The fabric. Throws std::invalid_argument naming the parameter when one is
// beyond its limit, or when the fabric would have more than kMaxScaleLuns
// LUNs.
//
// Adapter a (instance a): model "MVF-SCALE", serial "SCALE<a>", one port
// table entry per port (enabled, speed code 8), one FCF per port (index
// p + 1, VLAN 100 + p). Its local-node chain holds the physical ports
// 0..ports-1 first, then the virtual ports of port 0, of port 1, and so on.
// Names (hex digits; a adapter, p port, v virtual port from 1, 0 for the
// physical port itself, t target):
//   physical port     WWPN 2100001b9e<aa>00<pp>   WWNN 2000001b9e<aa>00<pp>
//   virtual port      WWPN 28<vv>001b9e<aa>00<pp> WWNN 29<vv>001b9e<aa>00<pp>
//   target            WWPN 500000<aa><pp><vv><tttt> WWNN 510000<aa><pp><vv><tttt>
// so WWNs are unique across the fabric, and the physical ports of one
// adapter differ in their last byte. LUN l of a target is LUN number l; the
// block devices are named sda, sdb, ..., sdz, sdaa, ... in chain order, and
// each LUN publishes both the block:<name> entry and the block/ directory,
// so that every LUN discovery reader finds its size.
//
// Several paths (paths N > 1): the physical ports of the fabric, numbered
// g = adapter * ports + port, fall into adapters * ports / N groups; port g
// belongs to group g mod (adapters * ports / N), so the N ports of a group
// lie on different adapters when there are at least N of them. The LUNs
// behind the ports of one group, and behind their virtual ports of the same
// slot, are the same LUNs seen through N paths: target t's LUN l has one
// identity through each of them (serial number, designator, vendor, product,
// size), while every path keeps its own local port, target WWPN, SCSI
// address and block device, as on a dual-fabric SAN. The identity is the
// one of the group's first path: serial "SIM" + that path's target WWPN +
// "L" + the LUN number, and one NAA 5 designator (binary, associated with
// the LUN) 5a 06 c5 e followed by 36 bits holding the identity's number
// (0, 1, ... by group, virtual-port slot, target and LUN). The byte after
// the designator's first one is 06, its length less two, so that a reader
// that walks the identification page from two bytes in (as the plug-in's
// LUID does) takes the whole designator too. With one path (the default)
// the LUNs keep the host's made-up identities and nothing else changes.
Fabric scale_fabric(const ScaleParams& p);

// The same as a description (sim/FABRIC.md), as fabric_to_json writes it.
nlohmann::json scale_fabric_json(const ScaleParams& p);

// The n-th block device name, from 0: "sda" ... "sdz", "sdaa", ...
std::string block_device_name(uint64_t n);

}  // namespace sim

#endif
