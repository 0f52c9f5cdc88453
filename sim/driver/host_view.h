// The simulated host follows the driver's virtual ports: after a create or a
// delete, the SCSI view under MIRVAK_SIM_ROOT (the fc_host tree and the
// device index) is written again from the changed fabric, so that the host
// shows a new virtual port with the remote ports and LUNs it was given, and
// no longer shows a deleted one.
#ifndef MIRVAK_SIM_DRIVER_HOST_VIEW_H
#define MIRVAK_SIM_DRIVER_HOST_VIEW_H

#include <optional>

#include "fabric.h"

namespace tusksim {

// Writes every local node's SCSI host number into its scsi_host, as the host
// numbers them now, so that adding or removing a node moves no other node to
// another host. Returns the first number that no node uses (for a new
// virtual port), or nothing when the fabric's numbering cannot be worked
// out (two nodes claiming one number); the fabric is then left as it is.
std::optional<int> pin_scsi_hosts(sim::Fabric& f);

// When MIRVAK_SIM_ROOT names a folder that holds a simulated host (it has
// sys/class/fc_host), write its SCSI view again from f; etc/hba.conf stays.
// 0, or kIoError with one line on standard error when it cannot be written.
int publish_host(const sim::Fabric& f);

}  // namespace tusksim

#endif
