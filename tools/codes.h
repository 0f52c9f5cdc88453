// How this program reports failures: the exceptions its commands throw and
// its exit statuses (the codes' names and meanings are in view/).
#ifndef MIRVAK_TOOLS_CODES_H
#define MIRVAK_TOOLS_CODES_H

#include <stdexcept>
#include <string>

#include "view/result_codes.h"  // the codes' names and meanings

namespace mv::tool {

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
