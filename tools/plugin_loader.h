// The plug-in's standard face as a front library reaches it: through the
// entry-point table HBA_RegisterLibraryV2 fills, slot by slot.
#ifndef MIRVAK_TOOLS_PLUGIN_LOADER_H
#define MIRVAK_TOOLS_PLUGIN_LOADER_H

#include "mirvak/hba_plugin.h"

class PluginLoader {
public:
    PluginLoader();
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // The table as the plug-in filled it, by slot.
    template <class Fn>
    Fn slot(unsigned i) const { return reinterpret_cast<Fn>(slots_[i]); }

    HBA_STATUS load() const;
    HBA_STATUS free() const;
    HBA_UINT32 adapter_count() const;
    HBA_STATUS adapter_name(HBA_UINT32 index, char* name) const;
    HBA_HANDLE open(const char* name) const;
    void close(HBA_HANDLE h) const;
    HBA_STATUS adapter_attributes(HBA_HANDLE h, HBA_ADAPTERATTRIBUTES* a) const;
    HBA_STATUS port_attributes(HBA_HANDLE h, HBA_UINT32 port, HBA_PORTATTRIBUTES* a) const;

private:
    void* slots_[64] = {};
};

#endif
