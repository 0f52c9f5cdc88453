// Port helpers of the standard face with C++ names.
#ifndef MIRVAK_PORT_HELPERS_H
#define MIRVAK_PORT_HELPERS_H

#include <cstdint>

#include "mirvak/hba_plugin.h"

// Number of local nodes the driver lists; -1 for the invalid handle. The
// second argument is not used.
MV_API int GetNumLnodes(HBA_HANDLE handle, uint16_t unused);

// The host's fc_host directory of the port with this WWN: 0 with
// "/sys/class/fc_host/<entry>" in out (which holds 256 bytes), or -1.
MV_API int get_path_for_pwwn(const unsigned char* wwn, char* out);

#endif
