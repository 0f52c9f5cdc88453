// The subcommands about the LUNs behind the targets, through the standard
// face: the FCP target mapping and the SCSI commands INQUIRY, REPORT LUNS
// and READ CAPACITY sent to one LUN.
#ifndef MIRVAK_TOOLS_LUN_COMMANDS_H
#define MIRVAK_TOOLS_LUN_COMMANDS_H

#include <cstdint>
#include <optional>

#include "tools/session.h"

namespace mv::tool {

// Entries of the mapping record the program gives the library at least.
constexpr std::size_t kMappingEntries = 4096;

// The version 2 mapping of each local port of the selected adapter (or of
// every adapter when sel.adapter is empty), or of the port sel.port /
// sel.wwpn. A port whose mapping fails is reported in the answer and makes
// the program's exit status non-zero (`failed`).
Outcome mapping_command(Session& s, const Selection& sel, bool* failed);

enum class ScsiOp { Inquiry, ReportLuns, ReadCapacity };

struct ScsiRequest {
    ScsiOp op = ScsiOp::Inquiry;
    Selection sel;                // adapter; optionally the local port (sel.port or sel.wwpn)
    Wwn target{};                 // the target port's WWPN
    uint32_t lun = 0;             // LUN number (INQUIRY, READ CAPACITY)
    std::optional<uint8_t> page;  // INQUIRY: the vital product data page (EVPD set)
};

// Finds the local port that sees the target and the LUN's device, makes
// sure the library will address that device (it names a LUN by the local
// port and the LUN number only; REPORT LUNS and READ CAPACITY go to the
// first LUN of the port), sends the command and decodes the answer.
// Nothing is sent when the library would reach another LUN.
Outcome scsi_command(Session& s, const ScsiRequest& r);

}  // namespace mv::tool

#endif
