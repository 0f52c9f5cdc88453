// The path redirector of the simulated host (see redirect.cpp): the one
// mapping every intercepted file function applies to its path argument.
#ifndef MIRVAK_SIM_REDIRECT_H
#define MIRVAK_SIM_REDIRECT_H

#include <cstddef>

namespace sim {
// Environment variable naming the root folder; unset or empty means no
// redirection.
constexpr const char* kRootEnv = "MIRVAK_SIM_ROOT";
}  // namespace sim

extern "C" {

// The path a file function should use instead of `path`: `path` itself when
// it is not redirected (MIRVAK_SIM_ROOT unset or empty, a relative path, or
// one outside the redirected system paths), otherwise ROOT + path written
// into buf. Null, with errno set to ENAMETOOLONG, when ROOT + path does not
// fit into size bytes.
const char* mirvak_sim_map_path(const char* path, char* buf, std::size_t size);

}

#endif
