// Registration with the HBA API front library and the library's lifecycle.
#include <cstdlib>
#include <cstring>

#include "driver/entry_lock.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/instance_map.h"
#include "driver/walks.h"

namespace {

// Write one function pointer into slot i of the caller's table. The table
// is only ever written by index, never read.
template <class Fn>
void put_slot(void* table, unsigned slot, Fn fn) {
    void* p = reinterpret_cast<void*>(fn);
    std::memcpy(static_cast<char*>(table) + slot * sizeof(void*), &p, sizeof p);
}

void clear_slot(void* table, unsigned slot) { put_slot(table, slot, static_cast<void (*)()>(nullptr)); }

}  // namespace

extern "C" {

HBA_STATUS HBA_RegisterLibrary(HBA_ENTRYPOINTS* table) {
    // Existing front libraries and agents depend on this exact slot layout,
    // including slot 9 for the all-ports function and the empty slots.
    void* t = table;
    put_slot(t, 0, mirvak_GetVersion);
    put_slot(t, 1, mirvak_LoadLibrary);
    put_slot(t, 2, mirvak_FreeLibrary);
    put_slot(t, 3, mirvak_GetNumberOfAdapters);
    put_slot(t, 4, mirvak_GetAdapterName);
    put_slot(t, 5, mirvak_OpenAdapter);
    put_slot(t, 6, mirvak_CloseAdapter);
    put_slot(t, 7, mirvak_GetAdapterAttributes);
    put_slot(t, 8, mirvak_GetAdapterPortAttributes);
    put_slot(t, 9, mirvak_GetAllAdapterPortsAttributes);
    put_slot(t, 10, mirvak_GetPortStatistics);
    put_slot(t, 11, mirvak_GetDiscoveredPortAttributes);
    put_slot(t, 12, mirvak_GetPortAttributesByWWN);
    clear_slot(t, 13);
    put_slot(t, 14, mirvak_RefreshInformation);
    clear_slot(t, 15);
    put_slot(t, 16, mirvak_GetFCPTargetMappingv1);
    for (unsigned slot = 17; slot <= 21; ++slot) clear_slot(t, slot);
    put_slot(t, 22, mirvak_SendScsiInquiry);
    put_slot(t, 23, mirvak_SendReportLUNs);
    put_slot(t, 24, mirvak_SendReadCapacity);
    return HBA_STATUS_OK;
}

HBA_STATUS HBA_RegisterLibraryV2(HBA_ENTRYPOINTSV2* table) {
    HBA_RegisterLibrary(reinterpret_cast<HBA_ENTRYPOINTS*>(table));
    clear_slot(table, 27);
    return HBA_STATUS_OK;
}

HBA_UINT32 mirvak_GetVersion(void) { return 2; }

HBA_STATUS mirvak_LoadLibrary(void) {
    const mv::EntryLock entry_lock;
    // A second load without a free replaces the map; the old one is released
    // rather than leaked.
    std::free(InstanceMap);
    InstanceMap = static_cast<adapter_instance*>(std::calloc(kInstanceMapEntries, sizeof(adapter_instance)));
    getMapping();
    return HBA_STATUS_OK;
}

HBA_STATUS mirvak_FreeLibrary(void) {
    const mv::EntryLock entry_lock;
    if (InstanceMap != nullptr) {
        std::free(InstanceMap);
        // Cleared so that a call after the free finds no map instead of
        // freed memory; the lookups then answer as for an empty map.
        InstanceMap = nullptr;
    }
    return HBA_STATUS_OK;
}

HBA_HANDLE mirvak_OpenAdapter(const char* name) {
    const mv::EntryLock entry_lock;
    return open_adapter_str(name);
}

HBA_STATUS mirvak_CloseAdapter(HBA_HANDLE handle) {
    const mv::EntryLock entry_lock;
    return static_cast<HBA_STATUS>(close_adapter(handle));
}

void mirvak_RefreshInformation(HBA_HANDLE) {}

HBA_STATUS mirvak_GetPortStatistics(HBA_HANDLE, HBA_UINT32, HBA_PORTSTATISTICS* stats) {
    // The standard face reports every counter as zero; SecondsSinceLastReset
    // is left as the caller had it.
    stats->TxFrames = 0;
    stats->TxWords = 0;
    stats->RxFrames = 0;
    stats->RxWords = 0;
    stats->LIPCount = 0;
    stats->NOSCount = 0;
    stats->ErrorFrames = 0;
    stats->DumpedFrames = 0;
    stats->LinkFailureCount = 0;
    stats->LossOfSyncCount = 0;
    stats->LossOfSignalCount = 0;
    stats->PrimitiveSeqProtocolErrCount = 0;
    stats->InvalidTxWordCount = 0;
    stats->InvalidCRCCount = 0;
    return HBA_STATUS_OK;
}

}  // extern "C"
