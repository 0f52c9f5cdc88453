// The whole-system snapshot: taken through MvFCoEIni::GetFCoEAll (and saved
// as it came, on request), or read back from a saved file; both decoded
// with the snapshot decoder.
#ifndef MIRVAK_TOOLS_SNAPSHOT_COMMANDS_H
#define MIRVAK_TOOLS_SNAPSHOT_COMMANDS_H

#include <string>

#include "tools/session.h"

namespace mv::tool {

// How a snapshot is shown as text (its JSON is the decoded tree either way):
// the overview tree, one line a thing, or every field of every record.
enum class SnapshotView { Overview, Fields };

// GetFCoEAll; the bytes are written to raw_file first when it is not empty.
// While the library gathers, the elapsed time is shown on standard error
// when that is a terminal.
Outcome snapshot_command(Session& s, const std::string& raw_file, SnapshotView view);

// A snapshot saved with --raw, decoded. Does not load the library.
Outcome decode_command(const std::string& file, SnapshotView view);

// The system as a Graphviz graph, from a snapshot: format "dot" (the DOT
// text) or "svg" (drawn by Graphviz's dot, which must be on PATH).
Outcome topology_command(Session& s, const std::string& format);

}  // namespace mv::tool

#endif
