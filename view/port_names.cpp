#include "port_names.h"

#include "mirvak/hba_plugin.h"

namespace mv::tool {

const char* port_state_name(uint32_t state) {
    switch (state) {
        case HBA_PORTSTATE_UNKNOWN: return "unknown";
        case HBA_PORTSTATE_ONLINE: return "online";
        case HBA_PORTSTATE_OFFLINE: return "offline";
        case HBA_PORTSTATE_BYPASSED: return "bypassed";
        case HBA_PORTSTATE_DIAGNOSTICS: return "diagnostics";
        case HBA_PORTSTATE_LINKDOWN: return "link down";
        case HBA_PORTSTATE_ERROR: return "error";
        case HBA_PORTSTATE_LOOPBACK: return "loopback";
        default: return "other";
    }
}

}  // namespace mv::tool
