// Facade methods whose work arrives with the remote-port, virtual-port, LUN
// and snapshot features. Until then each answers FCOE_ERR_FAILED without
// opening an adapter or touching the agent's memory.
#include "mirvak/mv_fcoe_ini.h"

// Awaiting the remote-port queries.
int MvFCoEIni::GetRemotePortInfo(port_info*, char**, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::GetRemotePortStatistics(vport_in*, void*, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::GetRPortForVPort(vport_in*, char**, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::GetVirRemotePortStatistics(vport_in*, void*, unsigned int*) { return FCOE_ERR_FAILED; }

// Awaiting the virtual-port and LUN queries.
int MvFCoEIni::GetVirPortForPort(port_info*, char**, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::GetVirPortStatistics(vport_in*, void*, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::GetVPortLunInfo(vport_in*, char**, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::GetLunInfo(vport_in*, char**, unsigned int*) { return FCOE_ERR_FAILED; }
int MvFCoEIni::CreateNPIV(const char*, unsigned char*, unsigned char*, unsigned char*, unsigned char*) {
    return FCOE_ERR_FAILED;
}
int MvFCoEIni::DeleteNPIV(const char*, unsigned char*, unsigned char*, unsigned char*, unsigned char*) {
    return FCOE_ERR_FAILED;
}

// Awaiting the whole-system snapshot.
int MvFCoEIni::GetFCoEAll(void*, unsigned int*) { return FCOE_ERR_FAILED; }
