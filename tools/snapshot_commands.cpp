#include "tools/snapshot_commands.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include "tools/codes.h"
#include "tools/progress.h"
#include "view/overview.h"
#include "view/snapshot_decode.h"

using nlohmann::json;

namespace mv::tool {

namespace {

// Snapshot files larger than this are not read (a snapshot of the largest
// system the driver can describe is far smaller).
constexpr std::size_t kMaxSnapshotFile = std::size_t{1} << 30;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};

using Snapshot = std::unique_ptr<unsigned char, FreeDeleter>;

// GetFCoEAll, with progress shown while the library gathers.
Snapshot take_snapshot(Session& s, unsigned int* size) {
    Snapshot data;
    {
        Progress progress("gathering the snapshot");
        data.reset(static_cast<unsigned char*>(s.facade().GetFCoEAll(nullptr, size)));
    }
    if (!data)
        throw RequestFailed(FCOE_ERR_FAILED, "GetFCoEAll failed: no snapshot (" +
                                                 std::string(*size == 0 ? "no adapters, or " : "") +
                                                 "the library could not allocate it)");
    return data;
}

json decode_or_fail(const unsigned char* data, std::size_t size) {
    try {
        return decode_snapshot(data, size);
    } catch (const DecodeError& e) {
        throw RequestFailed(FCOE_ERR_FAILED, "cannot decode the snapshot (" + std::to_string(size) +
                                                 " bytes) at byte " + std::to_string(e.offset) + ": " + e.what());
    }
}

// Graphviz's dot on PATH, or "".
std::string find_dot() {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string dir = dirs.substr(start, end - start);
        const std::string candidate = (dir.empty() ? std::string(".") : dir) + "/dot";
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return "";
}

// The graph drawn as SVG by dot, fed through a temporary file.
std::string render_svg(const std::string& dot_text) {
    const std::string dot = find_dot();
    if (dot.empty())
        throw RequestFailed(FCOE_ERR_FAILED,
                            "drawing SVG needs Graphviz's dot, which is not on PATH (Debian package graphviz: "
                            "apt install graphviz); `topology --format dot` prints the graph without it");
    const char* tmp = std::getenv("TMPDIR");
    std::string name = std::string(tmp && *tmp ? tmp : "/tmp") + "/mirvak-hba-topology-XXXXXX";
    const int fd = mkstemp(name.data());
    if (fd < 0) throw RequestFailed(FCOE_ERR_FAILED, std::string("cannot create a temporary file: ") + std::strerror(errno));
    const bool written = write(fd, dot_text.data(), dot_text.size()) == static_cast<ssize_t>(dot_text.size());
    close(fd);
    std::string svg;
    int status = -1;
    if (written) {
        const std::string command = "'" + dot + "' -Tsvg '" + name + "'";
        if (std::FILE* p = popen(command.c_str(), "r")) {
            char buf[65536];
            std::size_t n = 0;
            while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) svg.append(buf, n);
            status = pclose(p);
        }
    }
    unlink(name.c_str());
    if (status != 0 || svg.empty())
        throw RequestFailed(FCOE_ERR_FAILED, "dot could not draw the graph (" + dot + " -Tsvg)");
    return svg;
}

Outcome decoded(const unsigned char* data, std::size_t size, json about, SnapshotView view) {
    const json tree = decode_or_fail(data, size);
    about["bytes"] = size;
    about["snapshot"] = tree;
    Outcome o;
    o.data = about;
    o.text = [about, view](std::FILE* out) {
        std::string head = "Snapshot: " + std::to_string(about["bytes"].get<std::size_t>()) + " bytes";
        if (about.contains("raw_file")) head += ", saved to " + about["raw_file"].get<std::string>();
        if (about.contains("file")) head += ", read from " + about["file"].get<std::string>();
        const std::string body = view == SnapshotView::Fields ? snapshot_text(about["snapshot"])
                                                              : overview_text(about["snapshot"]);
        std::fprintf(out, "%s\n%s", head.c_str(), body.c_str());
    };
    return o;
}

void save(const std::string& file, const void* data, std::size_t size) {
    std::FILE* f = std::fopen(file.c_str(), "wb");
    if (f == nullptr)
        throw RequestFailed(FCOE_ERR_FAILED, "cannot write " + file + ": " + std::strerror(errno));
    const bool written = std::fwrite(data, 1, size, f) == size;
    const int write_errno = errno;
    if (std::fclose(f) != 0 || !written)
        throw RequestFailed(FCOE_ERR_FAILED, "cannot write " + file + ": " + std::strerror(written ? errno : write_errno));
}

}  // namespace

Outcome snapshot_command(Session& s, const std::string& raw_file, SnapshotView view) {
    unsigned int size = 0;
    const Snapshot data = take_snapshot(s, &size);
    json about = json::object();
    if (!raw_file.empty()) {
        save(raw_file, data.get(), size);
        about["raw_file"] = raw_file;
    }
    return decoded(data.get(), size, about, view);
}

Outcome topology_command(Session& s, const std::string& format) {
    unsigned int size = 0;
    const Snapshot data = take_snapshot(s, &size);
    const std::string dot = topology_dot(decode_or_fail(data.get(), size));
    const std::string text = format == "svg" ? render_svg(dot) : dot;
    Outcome o;
    o.data = json{{"format", format}, {"graph", text}};
    o.text = [text](std::FILE* out) { std::fputs(text.c_str(), out); };
    return o;
}

Outcome decode_command(const std::string& file, SnapshotView view) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw RequestFailed(FCOE_ERR_FAILED, "cannot read " + file + ": " + std::strerror(errno));
    std::vector<unsigned char> bytes;
    char chunk[65536];
    while (in) {
        in.read(chunk, sizeof chunk);
        bytes.insert(bytes.end(), chunk, chunk + in.gcount());
        if (bytes.size() > kMaxSnapshotFile)
            throw RequestFailed(FCOE_ERR_FAILED, file + " is larger than any snapshot (over 1 GiB)");
    }
    if (in.bad()) throw RequestFailed(FCOE_ERR_FAILED, "cannot read " + file);
    return decoded(bytes.data(), bytes.size(), json{{"file", file}}, view);
}

}  // namespace mv::tool
