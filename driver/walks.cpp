#include "driver/walks.h"

namespace mv {

FcfFound find_fcf(uint32_t handle, uint32_t wanted, fcf_info& rec, uint32_t& cursor) {
    for (;;) {
        if (tusk_get_fcf_info(handle, &rec, cursor) != 0) return FcfFound::DriverFailed;
        cursor = rec.fcf_index;
        if (cursor == kEndCursor) return FcfFound::Exhausted;
        if (cursor == wanted) return FcfFound::Found;
    }
}

bool is_target(rnode_info& rec) {
    lower_in_place(rec.role);
    return field_text(rec.role) == "target";
}

}  // namespace mv
