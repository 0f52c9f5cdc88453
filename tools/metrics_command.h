// `mirvak-hba metrics`: the exporter's exposition, once, for the node
// exporter's textfile collector or anything else that reads the Prometheus
// text format.
#ifndef MIRVAK_TOOLS_METRICS_COMMAND_H
#define MIRVAK_TOOLS_METRICS_COMMAND_H

#include <cstdio>
#include <string>

#include "tools/replace_file.h"
#include "tools/session.h"

namespace mv::tool {

// Reads the system and writes the exposition to `out`, or, when `file` is
// not empty, replaces `file` with it atomically (replace_file: a reader
// sees either the old file or the new one, never a part; RequestFailed when
// it cannot be done).
void metrics_command(Session& s, bool luns, const std::string& file, std::FILE* out);

}  // namespace mv::tool

#endif
