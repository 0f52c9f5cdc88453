#include "driver/walks.h"

namespace mv {

FcfResult find_fcf(uint32_t handle, uint32_t wanted, fcf_info& rec, uint32_t& cursor) {
    for (uint32_t read = 0;; ++read) {
        if (read == kMaxFcfs) return {FcfFound::Exhausted, 0};
        const int status = tusk_get_fcf_info(handle, &rec, cursor);
        if (status != 0) return {FcfFound::DriverFailed, status};
        cursor = rec.fcf_index;
        if (cursor == kEndCursor) return {FcfFound::Exhausted, status};
        if (cursor == wanted) return {FcfFound::Found, status};
    }
}

int lnode_by_wwpn(uint32_t handle, const uint8_t* wwpn, lnode_info& node) {
    std::memset(&node, 0, sizeof node);
    std::memcpy(node.port_wwn, wwpn, sizeof node.port_wwn);
    return tusk_get_lnode_info_by_fcid(handle, &node, 1);
}

bool is_target(rnode_info& rec) {
    lower_in_place(rec.role);
    return field_text(rec.role) == "target";
}

}  // namespace mv
