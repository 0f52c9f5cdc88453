// How the driver's port records are read: state words, speed codes, the
// class-of-service bytes, and the stale entry the driver may list beside a
// port's live one. Every function that reports a port uses these.
#ifndef MIRVAK_DRIVER_PORT_RULES_H
#define MIRVAK_DRIVER_PORT_RULES_H

#include <cstdint>
#include <string_view>

#include "mirvak/driver_records.h"

namespace mv {

// "OFFLINE" and "UNINIT" entries are not live (exact comparison).
bool lnode_not_live(const lnode_info& rec);

// A remote node whose state is "OFFLINE" or "DISAPPEARED" (exact words)
// is gone from the fabric.
bool rnode_gone(const rnode_info& rec);

// A remote node reports online when its state contains "READY" anywhere
// (a substring test, unlike the local-port words): 2, else 3.
uint32_t rnode_port_state(const rnode_info& rec);
// The same rule over any state text (a virtual port's state is read so too).
uint32_t ready_port_state(std::string_view state);

// Local-port state word to the standard port state: "READY" 2 (online),
// "OFFLINE" 3, "UNINIT" 6 (link down), anything else 3.
uint32_t lnode_port_state(const lnode_info& rec);

// Driver speed code to the speed value agents expect: 1->18, 2->1, 4->2,
// 8->4, 16->19, 32->20, others 0. The values 18, 19 and 20 are the agents'
// own codes, not standard constants, and must stay as they are.
uint32_t port_speed_code(uint16_t driver_speed);

// Class of service: for each class i (0..3) whose block's top bit is set,
// OR the number i + 1 into the field. Agents read the arithmetic OR of the
// class numbers, not one bit per class; the field is not cleared first.
void or_class_of_service(uint32_t& field, const cos_block (&cos)[4]);

// The physical port's entry of the hardware record, or null when port_num is
// not below num_ports or lies past the table the record can hold.
const hw_port* hw_port_entry(const hw_info& hw, uint8_t port_num);

// When `rec` is an "OFFLINE" or "UNINIT" entry, look along the chain after
// it (from `next_cursor`) for a live entry with the same port WWN and put
// that in its place. The look-ahead counts the records it examines from 0
// and passes over the one whose count equals `skip` (callers pass the port
// index they were asked for; agents depend on that comparison as it is).
// The caller's own walk goes on from its cursor, unchanged.
void replace_stale_entry(uint32_t handle, lnode_info& rec, uint64_t next_cursor, uint32_t skip);

}  // namespace mv

#endif
