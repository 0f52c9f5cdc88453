// The adapter instance map: ties the standard face's dense adapter indexes
// and device paths to the driver's instance numbers 0..31. Built by
// mirvak_LoadLibrary and rebuilt on every mirvak_GetAdapterName.
//
// Threads: the functions below take the library's one lock, so they may be
// called from any thread at any time. The two globals are different: they
// are plain memory, rewritten in place (mirvak_GetAdapterName, through any
// thread's call that lists adapters) and replaced or released
// (mirvak_LoadLibrary, mirvak_FreeLibrary, MvFCoEIni's constructor and
// destructor) under that lock, which is not exported. Reading InstanceMap or
// adapCnt directly is safe only while no other thread can be inside the
// library; with other threads calling, use the lookups here instead.
#ifndef MIRVAK_INSTANCE_MAP_H
#define MIRVAK_INSTANCE_MAP_H

#include <cstdint>

#include "mirvak/hba_plugin.h"

struct adapter_instance {
    uint32_t instance;  // driver instance number 0..31
    uint32_t index;     // dense index among the adapters found
    uint32_t handle;    // handle used while probing; closed at once, never used again
    char name[64];      // "/dev/tuskstor<instance>"
};
static_assert(sizeof(adapter_instance) == 76, "adapter_instance");

constexpr uint32_t kMaxInstances = 32;
// One spare entry past the 32, always empty, so that adapter index 32
// (accepted by mirvak_GetAdapterName) reads an empty name.
constexpr uint32_t kInstanceMapEntries = kMaxInstances + 1;

// The map (kInstanceMapEntries entries) while the library is loaded, else null.
extern "C" MV_API adapter_instance* InstanceMap;
// Number of entries filled by the last getMapping.
extern "C" MV_API uint32_t adapCnt;

MV_API void getMapping();
MV_API int getActualDeviceInstance(uint32_t index);
MV_API int getActualDeviceInstance_by_adapName(const char* name);
MV_API int getAssignedInstance(const char* name);

MV_API const char* mv_strstr(const char* haystack, const char* needle);
MV_API unsigned long charArrayToLong(const unsigned char* bytes);
MV_API void ConvertWWNtoString(const unsigned char* bytes, int count, int group, char* buffer);

#endif
