#include "host_view.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "model.h"
#include "sysfs_gen.h"

namespace tusksim {

std::optional<int> pin_scsi_hosts(sim::Fabric& f) {
    std::vector<sim::HostAssignment> hosts;
    try {
        hosts = sim::assign_hosts(f);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    long long next = 0;
    for (const sim::HostAssignment& h : hosts) next = std::max(next, h.host + 1LL);
    if (next > INT_MAX) return std::nullopt;
    for (const sim::HostAssignment& h : hosts) f.adapters[h.adapter].lnodes[h.lnode].scsi_host = h.host;
    return static_cast<int>(next);
}

int publish_host(const sim::Fabric& f) {
    const char* root = std::getenv(sim::kRootEnv);
    if (root == nullptr || root[0] == '\0') return 0;
    std::error_code ec;
    if (!std::filesystem::is_directory(std::filesystem::path(root) / "sys" / "class" / "fc_host", ec)) return 0;
    try {
        sim::update_scsi_view(f, root);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "libtuskstor (simulated): %s\n", e.what());
        return kIoError;
    }
}

}  // namespace tusksim
