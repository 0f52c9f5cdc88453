// Names and meanings of the result codes this program reports: the facade's
// result codes (MvFCoEIni) and the statuses of the standard face.
#ifndef MIRVAK_TOOLS_CODES_H
#define MIRVAK_TOOLS_CODES_H

#include <stdexcept>
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

// A request the library answered with a failure. The message names the
// request and the code; main prints it and exits with kExitFailed.
struct RequestFailed : std::runtime_error {
    int code;
    RequestFailed(int c, const std::string& message) : std::runtime_error(message), code(c) {}
};

// A problem with what the user asked for, found before anything was sent.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the library (or the system) answered a failure
constexpr int kExitUsage = 2;   // bad arguments; nothing was sent

}  // namespace mv::tool

#endif
