#include "tools/plugin_loader.h"

namespace {
// Slots of the table the plug-in fills.
enum Slot : unsigned {
    kLoad = 1, kFree = 2, kCount = 3, kName = 4, kOpen = 5, kClose = 6,
    kAdapterAttributes = 7, kPortAttributes = 8,
};
}  // namespace

PluginLoader::PluginLoader() { HBA_RegisterLibraryV2(reinterpret_cast<HBA_ENTRYPOINTSV2*>(slots_)); }

HBA_STATUS PluginLoader::load() const { return slot<HBALoadLibraryFunc>(kLoad)(); }
HBA_STATUS PluginLoader::free() const { return slot<HBAFreeLibraryFunc>(kFree)(); }
HBA_UINT32 PluginLoader::adapter_count() const { return slot<HBAGetNumberOfAdaptersFunc>(kCount)(); }
HBA_STATUS PluginLoader::adapter_name(HBA_UINT32 index, char* name) const {
    return slot<HBAGetAdapterNameFunc>(kName)(index, name);
}
HBA_HANDLE PluginLoader::open(const char* name) const {
    // The slot holds mirvak_OpenAdapter, whose parameter is const char*:
    // called through its own type (the table's type takes char*; calling a
    // function through a pointer of another type is undefined behaviour).
    return slot<decltype(&mirvak_OpenAdapter)>(kOpen)(name);
}
// mirvak_CloseAdapter answers a status the table's type does not show.
void PluginLoader::close(HBA_HANDLE h) const { slot<decltype(&mirvak_CloseAdapter)>(kClose)(h); }
HBA_STATUS PluginLoader::adapter_attributes(HBA_HANDLE h, HBA_ADAPTERATTRIBUTES* a) const {
    return slot<HBAGetAdapterAttributesFunc>(kAdapterAttributes)(h, a);
}
HBA_STATUS PluginLoader::port_attributes(HBA_HANDLE h, HBA_UINT32 port, HBA_PORTATTRIBUTES* a) const {
    return slot<HBAGetAdapterPortAttributesFunc>(kPortAttributes)(h, port, a);
}
