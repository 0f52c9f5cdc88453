// The subcommands that are one request of the management facade
// (MvFCoEIni): each builds the request's key from the selection, sends it,
// and turns the records of the answer into an Outcome. A failed request
// throws RequestFailed with the facade's result code.
#ifndef MIRVAK_TOOLS_FACADE_COMMANDS_H
#define MIRVAK_TOOLS_FACADE_COMMANDS_H

#include "tools/session.h"

namespace mv::tool {

Outcome adapter_info_command(Session& s);                         // GetFCoEAdapters
Outcome adapter_stats_command(Session& s, const Selection& sel);  // GetFCoEAdapterStats
Outcome ports_command(Session& s, const Selection& sel);          // GetAllPortsInfo
Outcome port_command(Session& s, const Selection& sel);           // GetPortInfo
Outcome port_stats_command(Session& s, const Selection& sel);     // GetPortStatistics
Outcome rports_command(Session& s, const Selection& sel);         // GetRemotePortInfo
Outcome rport_stats_command(Session& s, const Selection& sel);    // GetRemotePortStatistics
Outcome vports_command(Session& s, const Selection& sel);         // GetVirPortForPort
Outcome vport_stats_command(Session& s, const Selection& sel);    // GetVirPortStatistics
Outcome vport_rports_command(Session& s, const Selection& sel);   // GetRPortForVPort
Outcome vport_rport_stats_command(Session& s, const Selection& sel);  // GetVirRemotePortStatistics
Outcome luns_command(Session& s, const Selection& sel);           // GetLunInfo
Outcome vport_luns_command(Session& s, const Selection& sel);     // GetVPortLunInfo

// CreateNPIV / DeleteNPIV. The physical port is `sel.port` (its WWNs are
// read from the adapter) or given as port_wwpn/port_wwnn.
struct NpivRequest {
    Selection sel;               // adapter, and port (index) when given
    Wwn vport_wwpn{};
    std::optional<Wwn> vport_wwnn;
    std::optional<Wwn> port_wwpn;
    std::optional<Wwn> port_wwnn;
};
Outcome npiv_create_command(Session& s, const NpivRequest& r);
Outcome npiv_delete_command(Session& s, const NpivRequest& r);

}  // namespace mv::tool

#endif
