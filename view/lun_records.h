// The records about the LUNs behind the targets, as JSON and as text: the
// FCP target mapping's entries and the answer of a SCSI command sent to a
// LUN (its data decoded by scsi_decode.h). Keys as in records.h.
#ifndef MIRVAK_VIEW_LUN_RECORDS_H
#define MIRVAK_VIEW_LUN_RECORDS_H

#include <cstdio>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "mirvak/fcp_mapping.h"

namespace mv::tool {

// One version 2 mapping entry: device, H:C:T:L, the target's WWNs, FCP LUN
// and LUID. The entry carries no SCSI channel: the H:C:T:L is the host's for
// the device (hctl_of, by device path), else "bus:?:target:lun". Empty for
// an entry the library never wrote (all zero).
std::optional<nlohmann::json> mapping_entry_json(const MV_FCPSCSIENTRYV2& e,
                                                 const std::map<std::string, std::string>& hctl_of);

// The mapping of every adapter and port: {"adapters": [{"adapter_name",
// "ports": [{"port_num", "port_wwn", "status", "entries": [...]}]}]}.
void print_mapping(std::FILE* out, const nlohmann::json& data);

// A SCSI command's answer: where it went, its status and its decoded data.
void print_scsi_answer(std::FILE* out, const nlohmann::json& d);

}  // namespace mv::tool

#endif
