// Names and meanings of the result codes the library answers: the facade's
// result codes (MvFCoEIni) and the statuses of the standard face.
#ifndef MIRVAK_VIEW_RESULT_CODES_H
#define MIRVAK_VIEW_RESULT_CODES_H

#include <string>

namespace mv::tool {

// "FCOE_ERR_PORT_NOT_FOUND" (or "" for a code without a name) and what the
// code means to the user.
std::string facade_code_name(int code);
std::string facade_code_meaning(int code);
// "292 FCOE_ERR_PORT_NOT_FOUND (no port of the adapter has the requested WWPN)"
std::string describe_facade_code(int code);

// The standard face's statuses: "HBA_STATUS_ERROR_INVALID_LUN" and a
// meaning; -1 (all bits set) and the extended port-offline status included.
std::string hba_status_name(unsigned status);
std::string hba_status_meaning(unsigned status);
std::string describe_hba_status(unsigned status);

}  // namespace mv::tool

#endif
