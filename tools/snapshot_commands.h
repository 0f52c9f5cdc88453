// The whole-system snapshot: taken through MvFCoEIni::GetFCoEAll (and saved
// as it came, on request), or read back from a saved file; both decoded
// with the snapshot decoder.
#ifndef MIRVAK_TOOLS_SNAPSHOT_COMMANDS_H
#define MIRVAK_TOOLS_SNAPSHOT_COMMANDS_H

#include <string>

#include "session.h"

namespace mv::tool {

// GetFCoEAll; the bytes are written to raw_file first when it is not empty.
// While the library gathers, the elapsed time is shown on standard error
// when that is a terminal.
Outcome snapshot_command(Session& s, const std::string& raw_file);

// A snapshot saved with --raw, decoded. Does not load the library.
Outcome decode_command(const std::string& file);

}  // namespace mv::tool

#endif
