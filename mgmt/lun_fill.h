// The LUN information of mirvak_GetKXLunInfo with the caller's array size
// known: the facade counts with mirvak_GetKXLunCount, allocates that many
// records and fills them. The count and the fill each walk the host's SCSI
// view; when they disagree (the view changed in between, or an allocation
// failed during the count) the fill must still stay within the array.
#ifndef MIRVAK_MGMT_LUN_FILL_H
#define MIRVAK_MGMT_LUN_FILL_H

#include <cstddef>

#include "mirvak/mgmt.h"

namespace mv {

// mirvak_GetKXLunInfo writing at most `capacity` records (the same result,
// lines and records otherwise).
HBA_UINT32 kx_lun_info(HBA_HANDLE handle, const vport_in* key, lun_info* luns, std::size_t capacity);

}  // namespace mv

#endif
