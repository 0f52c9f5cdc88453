// Names of the standard face's port codes, as every reader of the library's
// answers shows them.
#ifndef MIRVAK_VIEW_PORT_NAMES_H
#define MIRVAK_VIEW_PORT_NAMES_H

#include <cstdint>

namespace mv::tool {

// "online", "offline", "link down", ...; "other" for a code the standard
// does not name.
const char* port_state_name(uint32_t state);

}  // namespace mv::tool

#endif
