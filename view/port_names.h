// Names of the standard face's port codes, as every reader of the library's
// answers shows them: the word or unit beside the number.
#ifndef MIRVAK_VIEW_PORT_NAMES_H
#define MIRVAK_VIEW_PORT_NAMES_H

#include <cstdint>
#include <string>

namespace mv::tool {

// "online", "offline", "link down", ...; "other" for a code the standard
// does not name.
const char* port_state_name(uint32_t state);

// "N_Port", "NL_Port", "point to point", ...; "not given" for a code the
// standard does not name (the driver leaves the type 0).
std::string port_type_name(uint32_t type);

// The speed bits, each a speed ("1, 2, 8 Gbit/s"); "unknown" for 0, "not
// negotiated" for that bit, "bit N" for a bit no speed is known for.
std::string port_speed_name(uint32_t speed);

// The classes of service bits: bit N is class N ("class 2, class 3"), bit 0
// class F; "none" for 0.
std::string classes_of_service_name(uint32_t cos);

// A count of 512-byte sectors in binary units: "1.0 GiB", "512.0 MiB".
std::string size_name(uint64_t sectors);

}  // namespace mv::tool

#endif
