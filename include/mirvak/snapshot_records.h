// Records of the whole-system snapshot that MvFCoEIni::GetFCoEAll hands to
// the agent: one byte stream, a 4-byte header then fixed-size records back to
// back in traversal order, each parent record carrying the count of the child
// records that follow it.
//
//   header          uint32: the number of adapters the library reported
//                   (adapters skipped later are still counted)
//   adapter record  5368 bytes, then for each physical port:
//     port record   1416 bytes, then its remote ports, then its virtual ports
//       remote      1412 bytes (a remote port of the physical port), then
//         LUN       1044 bytes per LUN behind it
//       virtual     1412 bytes (a virtual port), then its remote ports:
//         remote    1412 bytes, then
//           LUN     1044 bytes per LUN
//
// The stream leaves the library, so this layout is a wire format: packed, no
// padding, integers in host (little-endian) order. The management records
// inside (adapter_info, port_info, port_stats, lun_info of
// mirvak/mgmt_records.h) stand at offsets that do not suit their alignment,
// so they are declared here as byte areas: copy one out into a record of its
// own type (mv::load<port_info>(rec.info)) before reading its fields, and
// copy a filled record in with memcpy. The offsets of the fields that readers
// of the stream use directly are named below, relative to the record.
#ifndef MIRVAK_SNAPSHOT_RECORDS_H
#define MIRVAK_SNAPSHOT_RECORDS_H

#include <cstddef>
#include <cstdint>

#include "mirvak/mgmt_records.h"

namespace mv::snapshot {

// uint32 at offset 0 of the stream: adapters counted, not records present.
constexpr std::size_t kHeaderBytes = 4;

// One adapter. A later port whose standard query fails makes the library
// append the same adapter's record a second time, with port_count 0.
struct MV_PACKED adapter_record {
    uint32_t index;                             // 0: adapter index, 0-based
    uint32_t port_count;                        // 4: NumberOfPorts; 0 when a port query failed
    uint8_t info[sizeof(adapter_info)];         // 8: adapter_info
    uint8_t info_copy[sizeof(adapter_info)];    // 2688: the same 2680 bytes again
};

// One physical port.
struct MV_PACKED port_record {
    uint32_t index;                             // 0: port index
    uint32_t remote_count;                      // 4: remote-port records that follow
    uint32_t vport_count;                       // 8: virtual-port records that follow them
    uint8_t info[sizeof(port_info)];            // 12: port_info
    uint8_t stats[sizeof(port_stats)];          // 984: port_stats; zero when not obtained
};

// A remote port of a physical port, a virtual port, or a remote port of a
// virtual port: the same shape for all three.
struct MV_PACKED remote_record {
    uint32_t index;                             // 0: index within its parent
    uint32_t child_count;                       // 4: LUN records (remote port) or remote-port records (virtual port)
    uint8_t info[sizeof(port_info)];            // 8: port_info, the adapter name over its name field
    uint8_t stats[sizeof(port_stats)];          // 980: port_stats, the adapter name over its first 256 bytes
};

// One LUN behind a remote port.
struct MV_PACKED lun_record {
    uint32_t index;                             // 0: LUN index within its remote port
    uint8_t lun[sizeof(lun_info)];              // 4: lun_info; its first 8 bytes replaced by two indexes
};

static_assert(sizeof(adapter_record) == 5368, "adapter record size");
static_assert(sizeof(port_record) == 1416, "port record size");
static_assert(sizeof(remote_record) == 1412, "remote-port record size");
static_assert(sizeof(lun_record) == 1044, "LUN record size");
static_assert(offsetof(adapter_record, port_count) == 4 && offsetof(adapter_record, info) == 8 &&
                  offsetof(adapter_record, info_copy) == 2688,
              "adapter record layout");
static_assert(offsetof(port_record, remote_count) == 4 && offsetof(port_record, vport_count) == 8 &&
                  offsetof(port_record, info) == 12 && offsetof(port_record, stats) == 984,
              "port record layout");
static_assert(offsetof(remote_record, child_count) == 4 && offsetof(remote_record, info) == 8 &&
                  offsetof(remote_record, stats) == 980,
              "remote-port record layout");
static_assert(offsetof(lun_record, lun) == 4, "LUN record layout");

// ---- Field offsets within the records ----

// Adapter record.
constexpr std::size_t kAdapterInstanceAt = offsetof(adapter_record, info) + offsetof(adapter_info, instance);
constexpr std::size_t kAdapterNameAt = offsetof(adapter_record, info) + offsetof(adapter_info, adapter_name);
constexpr std::size_t kAdapterAttributesAt = offsetof(adapter_record, info) + offsetof(adapter_info, attributes);
static_assert(kAdapterInstanceAt == 8 && kAdapterNameAt == 104 && kAdapterAttributesAt == 360, "adapter fields");

// Port record: the port_info at 12 and its HBA_PORTATTRIBUTES at 276.
constexpr std::size_t kPortInfoAt = offsetof(port_record, info);
constexpr std::size_t kPortNameAt = kPortInfoAt + offsetof(port_info, adapter_name);
constexpr std::size_t kPortIndexAt = kPortInfoAt + offsetof(port_info, port_num);
constexpr std::size_t kPortAttributesAt = kPortInfoAt + offsetof(port_info, attributes);
constexpr std::size_t kPortWwnAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortWWN);
constexpr std::size_t kPortStateAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortState);
constexpr std::size_t kPortOsDeviceNameAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, OSDeviceName);
constexpr std::size_t kPortSpeedAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortSpeed);
constexpr std::size_t kPortMaxFrameSizeAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortMaxFrameSize);
constexpr std::size_t kPortFabricNameAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, FabricName);
constexpr std::size_t kPortDiscoveredAt = kPortAttributesAt + offsetof(HBA_PORTATTRIBUTES, NumberofDiscoveredPorts);
constexpr std::size_t kPortFlagAt = kPortInfoAt + offsetof(port_info, lnode_flag);          // one byte
constexpr std::size_t kPortVportWordAt = kPortInfoAt + offsetof(port_info, lnode_word_28);  // unaligned uint32
constexpr std::size_t kPortVlanAt = kPortInfoAt + offsetof(port_info, vlan_id);             // one byte
constexpr std::size_t kPortStatsAt = offsetof(port_record, stats);
static_assert(kPortNameAt == 12 && kPortIndexAt == 268 && kPortAttributesAt == 276 && kPortWwnAt == 284 &&
                  kPortStateAt == 300 && kPortOsDeviceNameAt == 628 && kPortSpeedAt == 888 &&
                  kPortMaxFrameSizeAt == 892 && kPortFabricNameAt == 896 && kPortDiscoveredAt == 904 &&
                  kPortFlagAt == 938 && kPortVportWordAt == 939 && kPortVlanAt == 943 && kPortStatsAt == 984,
              "port fields");

// Remote-port / virtual-port record: the port_info at 8, its
// HBA_PORTATTRIBUTES at 272, the port_stats at 980.
constexpr std::size_t kRemoteInfoAt = offsetof(remote_record, info);
constexpr std::size_t kRemoteParentAt = kRemoteInfoAt + offsetof(port_info, port_num);      // virtual ports and their remote ports
constexpr std::size_t kRemoteSelfAt = kRemoteInfoAt + offsetof(port_info, rport_index);     // the same cases
constexpr std::size_t kRemoteAttributesAt = kRemoteInfoAt + offsetof(port_info, attributes);
constexpr std::size_t kRemoteWwnAt = kRemoteAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortWWN);
constexpr std::size_t kRemoteOsDeviceNameAt = kRemoteAttributesAt + offsetof(HBA_PORTATTRIBUTES, OSDeviceName);
constexpr std::size_t kRemoteSpeedAt = kRemoteAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortSpeed);
constexpr std::size_t kRemoteMaxFrameSizeAt = kRemoteAttributesAt + offsetof(HBA_PORTATTRIBUTES, PortMaxFrameSize);
constexpr std::size_t kRemoteFabricNameAt = kRemoteAttributesAt + offsetof(HBA_PORTATTRIBUTES, FabricName);
constexpr std::size_t kRemoteVlanAt = kRemoteInfoAt + offsetof(port_info, vlan_id);
constexpr std::size_t kRemoteStatsAt = offsetof(remote_record, stats);
constexpr std::size_t kRemoteStatsParentAt = kRemoteStatsAt + offsetof(port_stats, port_num);
constexpr std::size_t kRemoteStatsSelfAt = kRemoteStatsAt + offsetof(port_stats, rport_index);
static_assert(kRemoteParentAt == 264 && kRemoteSelfAt == 268 && kRemoteAttributesAt == 272 && kRemoteWwnAt == 280 &&
                  kRemoteOsDeviceNameAt == 624 && kRemoteSpeedAt == 884 && kRemoteMaxFrameSizeAt == 888 &&
                  kRemoteFabricNameAt == 892 && kRemoteVlanAt == 939 && kRemoteStatsAt == 980 &&
                  kRemoteStatsParentAt == 1236 && kRemoteStatsSelfAt == 1240,
              "remote-port fields");

// LUN record: the lun_info at 4; its reserved first 8 bytes carry the parent
// port index (physical or virtual) and the remote-port index; the adapter
// name stands in the second half of its device-path field.
constexpr std::size_t kLunInfoAt = offsetof(lun_record, lun);
constexpr std::size_t kLunParentAt = kLunInfoAt;
constexpr std::size_t kLunRemoteAt = kLunInfoAt + 4;
constexpr std::size_t kLunDeviceAt = kLunInfoAt + offsetof(lun_info, device);
constexpr std::size_t kLunNameAt = kLunDeviceAt + 256;
constexpr std::size_t kLunNameBytes = 256;
static_assert(kLunParentAt == 4 && kLunRemoteAt == 8 && kLunNameAt == 532 &&
                  kLunNameAt + kLunNameBytes == kLunInfoAt + offsetof(lun_info, vendor),
              "LUN fields");

}  // namespace mv::snapshot

#endif
