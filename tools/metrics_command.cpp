#include "tools/metrics_command.h"

#include <cstring>

#include "exporter/metrics.h"
#include "tools/codes.h"

namespace mv::tool {

namespace {

// The metrics file's own wording of a failed replacement.
[[noreturn]] void fail(const ReplaceFailed& e, const std::string& file) {
    std::string message = e.what();
    switch (e.step) {
        case ReplaceFailed::Create: message = "cannot create a temporary file beside " + file; break;
        case ReplaceFailed::Write: message = "cannot write " + e.path; break;
        case ReplaceFailed::Rename: message = "cannot replace " + file; break;
        default: throw RequestFailed(FCOE_ERR_FAILED, message);
    }
    throw RequestFailed(FCOE_ERR_FAILED, message + ": " + std::strerror(e.err));
}

}  // namespace

void metrics_command(Session& s, bool luns, const std::string& file, std::FILE* out) {
    mv::exporter::CollectOptions options;
    options.luns = luns;
    mv::exporter::Reading r = mv::exporter::collect_system(s.facade(), options);
    mv::exporter::add_own_series(r.families, r, r.results);
    const std::string text = mv::exporter::exposition(r.families);
    if (file.empty()) {
        std::fwrite(text.data(), 1, text.size(), out);
        return;
    }
    try {
        replace_file(file, text);
    } catch (const ReplaceFailed& e) {
        fail(e, file);
    }
}

}  // namespace mv::tool
