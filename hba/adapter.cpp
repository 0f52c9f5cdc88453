// Adapter enumeration and the adapter-wide attributes.
#include <cstdio>
#include <cstring>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "driver/instance_map_internal.h"
#include "driver/walks.h"
#include "mirvak/driver_records.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"

extern "C" {

HBA_UINT32 mirvak_GetNumberOfAdapters(void) {
    const mv::EntryLock entry_lock;
    // Probes on its own; the instance map is neither read nor changed.
    HBA_UINT32 count = 0;
    for (uint32_t i = 0; i < kMaxInstances; ++i) {
        if (mv::probe_instance(i, nullptr)) ++count;
    }
    return count;
}

HBA_STATUS mirvak_GetAdapterName(HBA_UINT32 index, char* name) {
    const mv::EntryLock entry_lock;
    getMapping();
    // Index 32 is accepted on purpose and reads the map's spare, always empty
    // entry; the index is not compared with adapCnt, so an unused entry
    // gives an empty name (or one left by an earlier mapping) and status 0.
    if (index > 32) return HBA_STATUS_ERROR_ILLEGAL_INDEX;
    const adapter_instance& e = mv::map_entries()[index];
    const std::size_t len = strnlen(e.name, sizeof e.name - 1);
    std::memcpy(name, e.name, len);
    name[len] = '\0';
    return HBA_STATUS_OK;
}

HBA_STATUS mirvak_GetAdapterAttributes(HBA_HANDLE handle, HBA_ADAPTERATTRIBUTES* attr) {
    const mv::EntryLock entry_lock;
    if (handle == mv::kBadHandle) return static_cast<HBA_STATUS>(-1);
    hw_info hw;
    std::memset(&hw, 0, sizeof hw);
    const int status = tusk_get_hw_info(handle, &hw);
    if (status != 0) return static_cast<HBA_STATUS>(status);

    mv::copy_text(attr->Manufacturer, hw.manufacturer);
    mv::copy_text(attr->SerialNumber, hw.serial_num);
    mv::copy_text(attr->Model, hw.model);
    // Every adapter reports this same node WWN; agents expect the constant.
    static const HBA_UINT8 kNodeWwn[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    std::memcpy(attr->NodeWWN.wwn, kNodeWwn, sizeof kNodeWwn);
    mv::copy_text(attr->HardwareVersion, hw.hw_version);
    mv::copy_text(attr->DriverVersion, hw.drv_version);

    char scratch[256];
    std::snprintf(scratch, sizeof scratch, "%d", static_cast<int>(hw.optrom_version));
    std::memcpy(attr->OptionROMVersion, scratch, std::strlen(scratch) + 1);
    // The first field keeps bits 24..27 only: the top four bits are dropped
    // on purpose.
    const uint32_t fw = hw.fw_version;
    std::snprintf(scratch, sizeof scratch, "%d.%d.%d.%d", static_cast<int>((fw & 0x0F000000u) >> 24),
                  static_cast<int>((fw >> 16) & 0xFFu), static_cast<int>((fw >> 8) & 0xFFu),
                  static_cast<int>(fw & 0xFFu));
    std::memcpy(attr->FirmwareVersion, scratch, std::strlen(scratch) + 1);
    attr->VendorSpecificID = hw.vendor_id;
    attr->NumberOfPorts = hw.num_ports;
    return HBA_STATUS_OK;
}

}  // extern "C"
