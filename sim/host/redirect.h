// The path redirector of the simulated host (see redirect.cpp): the one
// mapping every intercepted file function applies to its path argument.
#ifndef MIRVAK_SIM_REDIRECT_H
#define MIRVAK_SIM_REDIRECT_H

#include <cstddef>

namespace sim {
// Environment variable naming the root folder; unset or empty means no
// redirection.
constexpr const char* kRootEnv = "MIRVAK_SIM_ROOT";
}  // namespace sim

extern "C" {

// The path a file function should use instead of `path`: `path` itself when
// it is not redirected (MIRVAK_SIM_ROOT unset or empty, a relative path, or
// one outside the redirected system paths), otherwise ROOT + path written
// into buf. Null, with errno set to ENAMETOOLONG, when ROOT + path does not
// fit into size bytes.
const char* mirvak_sim_map_path(const char* path, char* buf, std::size_t size);

// Simulated SCSI device nodes. With MIRVAK_SIM_ROOT set, open of a path that
// ROOT/sim/sg.json lists ("/dev/" + a LUN's block device name, e.g.
// "/dev/sdb", or its SCSI generic node, e.g. "/dev/sg1") gives a descriptor on which SG_GET_VERSION_NUM and SG_IO are
// answered as the LUN would (see sim/FABRIC.md, "SCSI device nodes"); a
// remote port's bsg node that ROOT/sim/bsg.json lists ("/dev/bsg/rport-0:0-0")
// answers SG_IO with an sg_io_v4 as the FC transport would. Every
// SG_IO on such a descriptor is recorded, with the fields as the caller
// passed them, so tests can check exactly what was sent.
struct mirvak_simsg_request {
    char device[256];           // path the descriptor was opened with
    int interface_id;
    int dxfer_direction;
    unsigned char cmd_len;
    unsigned char mx_sb_len;
    unsigned short iovec_count;
    unsigned int dxfer_len;
    void* dxferp;
    unsigned char cdb[16];      // the first min(cmd_len, 16) CDB bytes, the rest 0
    void* cmdp;
    void* sbp;
    unsigned int timeout;
    unsigned int flags;
    int pack_id;
    void* usr_ptr;
    int error;                  // 0: answered; else the errno of the failed ioctl
    unsigned char status;       // SCSI status answered (0 GOOD, 2 CHECK CONDITION)
};

// SG_IO requests since the last reset (failed ones included).
std::size_t mirvak_simsg_request_count(void);
// The latest request: 0, or -1 when there is none since the last reset.
int mirvak_simsg_last_request(struct mirvak_simsg_request* out);
// Request number index (0 = the first since the last reset): 0, or -1 when
// there is no such request (only the latest 4096 are kept).
int mirvak_simsg_request_at(std::size_t index, struct mirvak_simsg_request* out);
// SG_GET_VERSION_NUM queries and successful opens of simulated device
// nodes since the last reset.
std::size_t mirvak_simsg_version_queries(void);
std::size_t mirvak_simsg_opens(void);
// Descriptors of simulated device nodes open now (opened and not closed).
std::size_t mirvak_simsg_open_descriptors(void);
// Forget the recorded requests and counts (open descriptors stay).
void mirvak_simsg_reset(void);

// Calls whose path the redirector mapped under MIRVAK_SIM_ROOT since the
// last reset, whether or not the file was there: files opened (the open
// forms and fopen), directories opened (opendir), and every other path
// lookup (access, the stat forms, the xattr calls). Benchmarks read them to
// tell how many sysfs files a call of the plug-in opens. The simulated
// device nodes are not counted here (see mirvak_simsg_opens).
std::size_t mirvak_sim_redirected_files(void);
std::size_t mirvak_sim_redirected_dirs(void);
std::size_t mirvak_sim_redirected_lookups(void);
void mirvak_sim_reset_redirected(void);

}

#endif
