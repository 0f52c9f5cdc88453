// Entry points whose work arrives with the discovered-port, mapping
// and SCSI features. Until then they answer "not supported" without touching
// the caller's records.
#include "mirvak/hba_plugin.h"

extern "C" {

HBA_STATUS mirvak_GetFCPTargetMappingv1(HBA_HANDLE, void*) { return HBA_STATUS_ERROR_NOT_SUPPORTED; }
HBA_STATUS mirvak_GetFCPTargetMappingv2(HBA_HANDLE, HBA_WWN, void*) { return HBA_STATUS_ERROR_NOT_SUPPORTED; }
HBA_STATUS mirvak_SendScsiInquiry(HBA_HANDLE, HBA_WWN, HBA_UINT64, HBA_UINT8, HBA_UINT32, void*, HBA_UINT32, void*,
                                  HBA_UINT32) {
    return HBA_STATUS_ERROR_NOT_SUPPORTED;
}
HBA_STATUS mirvak_SendReportLUNs(HBA_HANDLE, HBA_WWN, void*, HBA_UINT32, void*, HBA_UINT32) {
    return HBA_STATUS_ERROR_NOT_SUPPORTED;
}
HBA_STATUS mirvak_SendReadCapacity(HBA_HANDLE, HBA_WWN, HBA_UINT64, void*, HBA_UINT32, void*, HBA_UINT32) {
    return HBA_STATUS_ERROR_NOT_SUPPORTED;
}

}  // extern "C"
