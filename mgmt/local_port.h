// How the extended functions pick a local port and copy its driver fields:
// shared by the attribute, statistics and virtual-port functions.
#ifndef MIRVAK_MGMT_LOCAL_PORT_H
#define MIRVAK_MGMT_LOCAL_PORT_H

#include <cstdint>

#include "mirvak/driver_records.h"
#include "mirvak/mgmt_records.h"

namespace mv {

// A local port named by WWPN (when by_wwn) or by its position in the
// driver's list. The position is also what the stale-entry look-ahead
// passes over, in both cases.
struct PortKey {
    bool by_wwn = false;
    uint8_t wwn[8] = {};
    uint32_t position = 0;
};

// The key a port_info names: attributes.PortWWN when its first byte is
// non-zero, else port_num.
PortKey key_of(const port_info& key);

enum class PortPick {
    Selected,      // rec holds the port
    ChainEnd,      // the driver closed the list first
    DriverFailed,  // a local-node query failed first
};

// Walk the local nodes until the keyed one. Every record walked that is
// "OFFLINE" or "UNINIT" is first replaced by its live duplicate further down
// the list, when there is one.
PortPick pick_local_port(uint32_t handle, const PortKey& key, lnode_info& rec);

// The local node's own fields of a port_info: lnode_mac, phys_port,
// lnode_word_148, lnode_id, lnode_word_5, fcf_index, lnode_flag,
// lnode_word_28.
void copy_lnode_fields(const lnode_info& node, port_info& info);

// counter0..counter7 of a local or virtual port.
void copy_lnode_counters(const lnode_info& node, port_stats& stats);

// counter0..counter3 and rcounter0..rcounter3 of a remote port.
void copy_rnode_counters(const rnode_info& node, port_stats& stats);

}  // namespace mv

#endif
