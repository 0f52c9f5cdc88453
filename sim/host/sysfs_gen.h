// The simulated host: the sysfs tree the kernel's FC transport would publish
// for a fabric, written under a root folder that the path redirector
// (libmirvaksimhost.so, or the same code linked into a test program) maps
// the fixed system paths onto.
#ifndef MIRVAK_SIM_SYSFS_GEN_H
#define MIRVAK_SIM_SYSFS_GEN_H

#include <cstddef>
#include <string>
#include <vector>

#include "fabric.h"
#include "redirect.h"  // sim::kRootEnv

namespace sim {

struct HostOptions {
    // When set, root/etc/hba.conf registers this plug-in path (for the HBA
    // API front library); otherwise the file is written without entries.
    std::string plugin_path;
    std::string plugin_name = "com.mirvak.fcoe";
};

// The SCSI host that one local node gets: its fc_host entry is
// /sys/class/fc_host/host<host>.
struct HostAssignment {
    std::size_t adapter = 0;  // index into Fabric::adapters
    std::size_t lnode = 0;    // index into Adapter::lnodes
    int host = 0;
};

// The fc_host entries of f, in chain order (adapters, then local nodes).
// A local node with a negative scsi_host gets none; an explicit scsi_host is
// used as given; every other node gets the next default number (counting up
// from one past the largest explicit number, or from 0) unless a node
// earlier in the order already got a host for the same port WWN.
// Throws std::runtime_error when two nodes claim the same host number.
std::vector<HostAssignment> assign_hosts(const Fabric& f);

// Remove root/sys/class/fc_host, root/etc and root/sim and write the host's
// view of f under root (root/sim/sg.json: the SCSI device index that the
// redirector answers the LUNs' device nodes from, see sg_index.h). Throws std::runtime_error naming the path on a file system
// failure (and refuses a root that is the machine's own "/").
void generate_host(const Fabric& f, const std::string& root, const HostOptions& opt = {});

// Rewrite only the SCSI view of f under root (root/sys/class/fc_host and
// root/sim), leaving root/etc/hba.conf as it is: what the simulated driver
// does after it created or deleted a virtual port. Throws like
// generate_host.
void update_scsi_view(const Fabric& f, const std::string& root);

}  // namespace sim

#endif
