// `mirvak-hba metrics`: the exporter's exposition, once, for the node
// exporter's textfile collector or anything else that reads the Prometheus
// text format.
#ifndef MIRVAK_TOOLS_METRICS_COMMAND_H
#define MIRVAK_TOOLS_METRICS_COMMAND_H

#include <cstdio>
#include <string>

#include "session.h"

namespace mv::tool {

// Reads the system and writes the exposition to `out`, or, when `file` is
// not empty, replaces `file` with it atomically: the text goes to a
// temporary file in the same folder, which is then renamed over `file`, so
// a reader sees either the old file or the new one, never a part.
void metrics_command(Session& s, bool luns, const std::string& file, std::FILE* out);

// The atomic replacement itself (RequestFailed when it cannot be done; the
// temporary file is removed then).
void replace_file(const std::string& file, const std::string& text);

}  // namespace mv::tool

#endif
