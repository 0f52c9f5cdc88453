#include "driver/port_rules.h"

#include "driver/walks.h"

namespace mv {

namespace {
constexpr uint32_t kOnline = 2;    // HBA_PORTSTATE_ONLINE
constexpr uint32_t kOffline = 3;   // HBA_PORTSTATE_OFFLINE
constexpr uint32_t kLinkDown = 6;  // HBA_PORTSTATE_LINKDOWN
}  // namespace

bool lnode_not_live(const lnode_info& rec) {
    const std::string_view state = field_text(rec.state);
    return state == "OFFLINE" || state == "UNINIT";
}

bool rnode_gone(const rnode_info& rec) {
    const std::string_view state = field_text(rec.state);
    return state == "OFFLINE" || state == "DISAPPEARED";
}

uint32_t rnode_port_state(const rnode_info& rec) { return ready_port_state(field_text(rec.state)); }

uint32_t ready_port_state(std::string_view state) {
    return state.find("READY") != std::string_view::npos ? kOnline : kOffline;
}

uint32_t lnode_port_state(const lnode_info& rec) {
    const std::string_view state = field_text(rec.state);
    if (state == "READY") return kOnline;
    if (state == "UNINIT") return kLinkDown;
    return kOffline;
}

uint32_t port_speed_code(uint16_t driver_speed) {
    switch (driver_speed) {
        case 1: return 18;
        case 2: return 1;
        case 4: return 2;
        case 8: return 4;
        case 16: return 19;
        case 32: return 20;
        default: return 0;
    }
}

void or_class_of_service(uint32_t& field, const cos_block (&cos)[4]) {
    for (uint32_t i = 0; i < 4; ++i) {
        if ((cos[i].flags & 0x80) != 0) field |= i + 1;
    }
}

const hw_port* hw_port_entry(const hw_info& hw, uint8_t port_num) {
    if (port_num >= hw.num_ports || port_num >= HW_PORT_TABLE_MAX) return nullptr;
    return &hw.port[port_num];
}

void replace_stale_entry(uint32_t handle, lnode_info& rec, uint64_t next_cursor, uint32_t skip) {
    if (!lnode_not_live(rec)) return;
    lnode_info ahead;
    walk_lnodes(
        handle, ahead,
        [&](lnode_info& candidate, uint64_t, uint32_t count) {
            if (count == skip || !wwn_equal(candidate.port_wwn, rec.port_wwn) || lnode_not_live(candidate)) {
                return true;
            }
            rec = candidate;
            return false;
        },
        next_cursor);
}

}  // namespace mv
