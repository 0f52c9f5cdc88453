// Internal pieces of the instance map shared with the adapter functions.
#ifndef MIRVAK_DRIVER_INSTANCE_MAP_INTERNAL_H
#define MIRVAK_DRIVER_INSTANCE_MAP_INTERNAL_H

#include <cstdint>

#include "mirvak/instance_map.h"

namespace mv {

// The map to read: the loaded one, or an all-empty one when none is loaded.
const adapter_instance* map_entries();

// "/dev/tuskstor<instance>"
void format_device_path(char (&out)[64], uint32_t instance);

// Open instance i, ask the driver whether the adapter is its own, close it.
// True when the probe answered 0; the handle used is stored in *handle_out.
bool probe_instance(uint32_t instance, uint32_t* handle_out);

}  // namespace mv

#endif
