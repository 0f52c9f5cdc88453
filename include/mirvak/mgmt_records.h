// Records of the extended management interface: what the mirvak_...KX...
// functions and the MvFCoEIni facade exchange with the management agent.
//
// They cross the library boundary and are copied whole into the agent's
// buffers, so their byte layout is an external interface: packed, no padding
// anywhere, integers in host (little-endian) order, WWNs as 8 raw bytes most
// significant first, texts as NUL-terminated char arrays. Every offset and
// size the agent relies on is checked at compile time below.
//
// Fields are read and written by name: the compiler emits unaligned-safe
// accesses for members of packed records. Never take the address of a field
// that lies unaligned (port_info::lnode_word_28 at 927, the fields after it,
// vport_in's 16-bit fields); copy it out with load()/store() below or by
// name. The records that embed a standard structure keep that structure's
// own alignment as a whole, so &rec.attributes and &rec.hba_stats may be
// passed to the standard entry points.
#ifndef MIRVAK_MGMT_RECORDS_H
#define MIRVAK_MGMT_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mirvak/hba_plugin.h"

#ifndef MV_PACKED
#define MV_PACKED __attribute__((packed))
#endif

// Extended adapter description: 2680 bytes.
struct MV_PACKED __attribute__((aligned(alignof(HBA_ADAPTERATTRIBUTES)))) adapter_info {
    uint32_t instance;                  // 0: set by the facade
    uint32_t hw_byte_191;               // 4: hw_info byte at 191, zero-extended
    uint32_t hw_word_192;               // 8
    uint32_t hw_word_284;               // 12
    uint32_t hw_word_288;               // 16
    uint32_t hw_word_292;               // 20
    uint32_t hw_word_332;               // 24
    uint8_t reserved_28[4];             // 28: left zero
    char hw_text_246[32];               // 32
    char hw_text_296[32];               // 64
    char adapter_name[256];             // 96: device path, set by the facade
    HBA_ADAPTERATTRIBUTES attributes;   // 352: set by the facade
    uint8_t hw_block_336[136];          // 2544: hw_info bytes 336..471
};

// One port (physical, virtual or remote); also a query key: 972 bytes.
struct MV_PACKED __attribute__((aligned(alignof(HBA_PORTATTRIBUTES)))) port_info {
    char adapter_name[256];             // 0: key
    uint32_t port_num;                  // 256: port number / NPIV list index / key's port
    uint32_t rport_index;               // 260: a remote port's ordinal in its list
    HBA_PORTATTRIBUTES attributes;      // 264: PortWWN at 272 is the key WWN
    uint32_t lnode_id;                  // 896: lnode_info.lnode_id, or rnode_info word at 4
    uint32_t lnode_word_5;              // 900
    uint8_t lnode_mac[6];               // 904: the FCoE port's MAC (lnode_info 17..22)
    uint8_t port_mac[6];                // 910: the physical port's MAC (hw_info port table)
    uint16_t phys_port;                 // 916: lnode_info.port_num
    uint32_t fcf_index;                 // 918
    uint32_t lnode_word_148;            // 922
    uint8_t lnode_flag;                 // 926: non-zero reads as a port error
    uint32_t lnode_word_28;             // 927: unaligned
    uint8_t vlan_id;                    // 931: fcf_info byte at 25 of the port's FCF
    uint32_t rnode_index;               // 932
    char role[32];                      // 936: remote port's role, lower-cased
    uint32_t rnode_byte_12;             // 968
};

// A virtual port and, optionally, one of its remote ports, as a key: 287 bytes.
struct MV_PACKED vport_in {
    char adapter_name[256];             // 0
    uint16_t port_num;                  // 256: physical port number
    uint16_t vport_index;               // 258
    uint16_t rport_index;               // 260
    uint8_t reserved_262;               // 262
    uint8_t vport_wwpn[8];              // 263: given when its first byte is non-zero
    uint8_t reserved_271[8];            // 271
    uint8_t rport_wwpn[8];              // 279: given when its first byte is non-zero
};

// Statistics of a physical, virtual or remote port: 432 bytes. The counters
// are copied unchanged from the driver's records; agents read them by
// position, so their interleaving over the driver's ranges stays as it is.
struct MV_PACKED __attribute__((aligned(alignof(HBA_PORTSTATISTICS)))) port_stats {
    uint8_t reserved_0[256];            // 0: not written by the extended functions
    uint32_t port_num;                  // 256: remote-port statistics only
    uint32_t rport_index;               // 260: remote-port statistics only
    uint32_t counter0;                  // 264: lnode word at 1417 / rnode word at 1424
    uint32_t counter1;                  // 268: lnode 1421 / rnode 1432
    uint32_t counter2;                  // 272: lnode 1429 / rnode 1436
    uint32_t counter3;                  // 276: lnode 1433 / rnode 1440
    HBA_PORTSTATISTICS hba_stats;       // 280: frame and word counts of a physical port
    uint32_t counter4;                  // 400: lnode 1409
    uint32_t counter5;                  // 404: lnode 1413
    uint32_t counter6;                  // 408: lnode 1425
    uint32_t counter7;                  // 412: lnode 1437
    uint32_t rcounter0;                 // 416: rnode 1408
    uint32_t rcounter1;                 // 420: rnode 1412
    uint32_t rcounter2;                 // 424: rnode 1416
    uint32_t rcounter3;                 // 428: rnode 1420
};

// One logical unit as the host's SCSI layer shows it: 1040 bytes.
struct MV_PACKED __attribute__((aligned(8))) lun_info {
    uint8_t reserved_0[8];              // 0
    uint64_t size;                      // 8: block device size, 512-byte sectors
    char hctl[256];                     // 16: "host:channel:target:lun"
    char device[512];                   // 272: "/dev/<block device>"
    char vendor[256];                   // 784
};

#define MV_MGMT_AT(rec, field, off) static_assert(offsetof(rec, field) == (off), #rec "." #field)

MV_MGMT_AT(adapter_info, instance, 0);
MV_MGMT_AT(adapter_info, hw_byte_191, 4);
MV_MGMT_AT(adapter_info, hw_word_192, 8);
MV_MGMT_AT(adapter_info, hw_word_284, 12);
MV_MGMT_AT(adapter_info, hw_word_288, 16);
MV_MGMT_AT(adapter_info, hw_word_292, 20);
MV_MGMT_AT(adapter_info, hw_word_332, 24);
MV_MGMT_AT(adapter_info, reserved_28, 28);
MV_MGMT_AT(adapter_info, hw_text_246, 32);
MV_MGMT_AT(adapter_info, hw_text_296, 64);
MV_MGMT_AT(adapter_info, adapter_name, 96);
MV_MGMT_AT(adapter_info, attributes, 352);
MV_MGMT_AT(adapter_info, hw_block_336, 2544);
static_assert(sizeof(HBA_ADAPTERATTRIBUTES) == 2192, "HBA_ADAPTERATTRIBUTES size");
static_assert(sizeof(adapter_info) == 2680, "adapter_info size");

MV_MGMT_AT(port_info, adapter_name, 0);
MV_MGMT_AT(port_info, port_num, 256);
MV_MGMT_AT(port_info, rport_index, 260);
MV_MGMT_AT(port_info, attributes, 264);
MV_MGMT_AT(port_info, attributes.NodeWWN, 264);
MV_MGMT_AT(port_info, attributes.PortWWN, 272);
MV_MGMT_AT(port_info, attributes.PortFcId, 280);
MV_MGMT_AT(port_info, attributes.PortType, 284);
MV_MGMT_AT(port_info, attributes.PortState, 288);
MV_MGMT_AT(port_info, attributes.PortSupportedClassofService, 292);
MV_MGMT_AT(port_info, attributes.PortSpeed, 876);
MV_MGMT_AT(port_info, attributes.NumberofDiscoveredPorts, 892);
MV_MGMT_AT(port_info, lnode_id, 896);
MV_MGMT_AT(port_info, lnode_word_5, 900);
MV_MGMT_AT(port_info, lnode_mac, 904);
MV_MGMT_AT(port_info, port_mac, 910);
MV_MGMT_AT(port_info, phys_port, 916);
MV_MGMT_AT(port_info, fcf_index, 918);
MV_MGMT_AT(port_info, lnode_word_148, 922);
MV_MGMT_AT(port_info, lnode_flag, 926);
MV_MGMT_AT(port_info, lnode_word_28, 927);
MV_MGMT_AT(port_info, vlan_id, 931);
MV_MGMT_AT(port_info, rnode_index, 932);
MV_MGMT_AT(port_info, role, 936);
MV_MGMT_AT(port_info, rnode_byte_12, 968);
static_assert(sizeof(HBA_PORTATTRIBUTES) == 632, "HBA_PORTATTRIBUTES size");
static_assert(sizeof(port_info) == 972, "port_info size");

MV_MGMT_AT(vport_in, adapter_name, 0);
MV_MGMT_AT(vport_in, port_num, 256);
MV_MGMT_AT(vport_in, vport_index, 258);
MV_MGMT_AT(vport_in, rport_index, 260);
MV_MGMT_AT(vport_in, reserved_262, 262);
MV_MGMT_AT(vport_in, vport_wwpn, 263);
MV_MGMT_AT(vport_in, reserved_271, 271);
MV_MGMT_AT(vport_in, rport_wwpn, 279);
static_assert(sizeof(vport_in) == 287, "vport_in size");

MV_MGMT_AT(port_stats, reserved_0, 0);
MV_MGMT_AT(port_stats, port_num, 256);
MV_MGMT_AT(port_stats, rport_index, 260);
MV_MGMT_AT(port_stats, counter0, 264);
MV_MGMT_AT(port_stats, counter1, 268);
MV_MGMT_AT(port_stats, counter2, 272);
MV_MGMT_AT(port_stats, counter3, 276);
MV_MGMT_AT(port_stats, hba_stats, 280);
MV_MGMT_AT(port_stats, counter4, 400);
MV_MGMT_AT(port_stats, counter5, 404);
MV_MGMT_AT(port_stats, counter6, 408);
MV_MGMT_AT(port_stats, counter7, 412);
MV_MGMT_AT(port_stats, rcounter0, 416);
MV_MGMT_AT(port_stats, rcounter1, 420);
MV_MGMT_AT(port_stats, rcounter2, 424);
MV_MGMT_AT(port_stats, rcounter3, 428);
static_assert(sizeof(HBA_PORTSTATISTICS) == 120, "HBA_PORTSTATISTICS size");
static_assert(sizeof(port_stats) == 432, "port_stats size");

MV_MGMT_AT(lun_info, reserved_0, 0);
MV_MGMT_AT(lun_info, size, 8);
MV_MGMT_AT(lun_info, hctl, 16);
MV_MGMT_AT(lun_info, device, 272);
MV_MGMT_AT(lun_info, vendor, 784);
static_assert(sizeof(lun_info) == 1040, "lun_info size");

#undef MV_MGMT_AT

namespace mv {

// A key WWN counts as given when its first byte is non-zero, whatever the
// other seven hold.
inline bool wwn_given(const uint8_t (&wwn)[8]) { return wwn[0] != 0; }
inline bool wwn_given(const HBA_WWN& wwn) { return wwn.wwn[0] != 0; }

// Unaligned loads and stores over raw bytes (a record inside a byte stream,
// a field whose address is not aligned).
template <class T>
inline T load(const void* at) {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
}
template <class T>
inline void store(void* at, T v) {
    std::memcpy(at, &v, sizeof v);
}

}  // namespace mv

#endif
