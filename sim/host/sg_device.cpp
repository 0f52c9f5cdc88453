// Simulated SCSI device nodes of the simulated host
// ===================================================
//
// The generator writes ROOT/sim/sg.json (sg_index.h), listing each LUN's
// block device node ("/dev/sdb") and its SCSI generic node ("/dev/sg1")
// with what its target answers. With
// MIRVAK_SIM_ROOT set:
//
//   - open (every form the redirector interposes) of a listed path (block or
//     generic node) gives a
//     descriptor on /dev/null, remembered as that device until it is closed;
//     a device with "no_device" fails with ENOENT instead. Paths not listed
//     (and everything while the variable is unset) go to the real system.
//   - ioctl SG_GET_VERSION_NUM and SG_IO on such a descriptor are answered
//     here (sg_target.h computes the SCSI answer); other requests fail with
//     ENOTTY. Descriptors that are not device nodes go to the real ioctl.
//   - close forgets the descriptor.
//
// Remote ports' bsg nodes ("/dev/bsg/rport-H:0-M", listed in
// ROOT/sim/bsg.json) open the same way; their SG_IO carries an sg_io_v4
// that bsg_rport.h answers. Their requests are not recorded.
//
// The index's stamp (ROOT/sim/sg.stamp, rewritten with every index) is read
// again at every open of a /dev path, and the index is read and parsed again
// when the root or the stamp changed (without a stamp: at every open, parsed
// again when its contents changed), so tests that regenerate the host within
// one process see the new devices at once. A descriptor keeps the device it
// was opened as.
//
// A descriptor number can leave the table unseen (closed by close_range, or
// by a library that calls the system call directly); each use therefore
// checks that the number still refers to the /dev/null file it was opened
// on.
#include "sg_device.h"

#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <linux/bsg.h>

#include "bsg_rport.h"
#include "redirect.h"
#include "sg_index.h"
#include "sg_target.h"

namespace sim {
namespace sg {
namespace {

// The index of the largest generated host (a million LUNs) fits.
constexpr std::size_t kMaxIndexBytes = 1u << 30;
constexpr std::size_t kKeptRequests = 4096;
// Largest transfer accepted, as a host adapter's limit; above it SG_IO
// fails with EIO as the block layer's does.
constexpr unsigned int kMaxTransfer = 1u << 20;

struct OpenNode {
    std::shared_ptr<const Device> device;     // a LUN's node, or
    std::shared_ptr<const RemotePort> rport;  // a remote port's bsg node
    std::string path;  // as opened: the block or the generic node
    dev_t dev = 0;
    ino_t ino = 0;
};

struct State {
    std::mutex mu;
    // The parsed index and what it was parsed from: its stamp, or (for an
    // index without one) its text.
    std::string root, text, stamp;
    std::map<std::string, std::shared_ptr<const Device>> devices;
    std::map<int, OpenNode> fds;
    std::deque<mirvak_simsg_request> requests;
    std::size_t request_count = 0;
    std::size_t version_queries = 0;
    std::size_t opens = 0;
};

// Never destroyed: interposed calls keep coming while the process exits.
State& state() {
    static State* s = new State;
    return *s;
}

// Descriptors in the table; lets close and ioctl skip the lock while none
// is open.
std::atomic<std::size_t> g_open{0};

// The whole file through the real open; false when it cannot be read.
bool read_file(const std::string& path, std::string& out) {
    const int fd = real_open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[8192];
    bool ok = true;
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || out.size() + static_cast<std::size_t>(n) > kMaxIndexBytes) {
            ok = n == 0;
            break;
        }
        if (n == 0) break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    real_close(fd);
    return ok;
}

// Reads the index under the current root again when it changed. Called
// with the lock held. False when there is no root or no index.
bool refresh(State& s) {
    const char* root = getenv(kRootEnv);
    if (root == nullptr || root[0] == '\0') return false;
    // An index parsed under the stamp that is there now is not read again
    // (a large host's index is megabytes, and every LUN's node is opened).
    std::string stamp;
    if (!read_file(std::string(root) + "/" + kStampFile, stamp)) stamp.clear();
    if (stamp.empty() || s.root != root || s.stamp != stamp) {
        std::string text;
        if (!read_file(std::string(root) + "/" + kIndexFile, text)) return false;
        if (s.root != root || !stamp.empty() || !s.stamp.empty() || s.text != text) {
            s.devices.clear();
            try {
                // The first entry for a path wins.
                for (Device& d : index_from_json(nlohmann::json::parse(text))) {
                    const std::string key = d.path, generic = d.generic;
                    const auto device = std::make_shared<const Device>(std::move(d));
                    s.devices.emplace(key, device);
                    if (!generic.empty()) s.devices.emplace(generic, device);
                }
            } catch (const std::exception&) {
                s.devices.clear();  // an unreadable index simulates nothing
            }
        }
        s.root = root;
        s.text = stamp.empty() ? std::move(text) : std::string();
        s.stamp = std::move(stamp);
    }
    return true;
}

// The node listed for path under the current root (a LUN's or a remote
// port's), or neither. Called with the lock held.
OpenNode lookup(State& s, const char* path) {
    OpenNode node;
    if (!refresh(s)) return node;
    const auto it = s.devices.find(path);
    if (it != s.devices.end()) {
        node.device = it->second;
        return node;
    }
    // The remote ports' nodes are few and opened seldom: their list is read
    // at every open of one.
    std::string text;
    if (strncmp(path, "/dev/bsg/", 9) != 0 || !read_file(s.root + "/" + kBsgIndexFile, text)) return node;
    try {
        for (RemotePort& r : rports_from_json(nlohmann::json::parse(text)))
            if (r.path == path) {
                node.rport = std::make_shared<const RemotePort>(std::move(r));
                break;
            }
    } catch (const std::exception&) {
        node.rport = nullptr;  // an unreadable list simulates nothing
    }
    return node;
}

bool same_file(int fd, const OpenNode& node) {
    struct stat st {};
    return fstat(fd, &st) == 0 && st.st_dev == node.dev && st.st_ino == node.ino;
}

void record(State& s, const mirvak_simsg_request& r) {
    ++s.request_count;
    s.requests.push_back(r);
    if (s.requests.size() > kKeptRequests) s.requests.pop_front();
}

bool reads_data(int direction) {
    return direction == SG_DXFER_FROM_DEV || direction == SG_DXFER_TO_FROM_DEV;
}

// One SG_IO. Called with the lock held.
int sg_io(State& s, const Device& d, const std::string& opened, void* arg) {
    mirvak_simsg_request rec{};
    strncpy(rec.device, opened.c_str(), sizeof rec.device - 1);
    if (arg == nullptr) {
        rec.error = EFAULT;
        record(s, rec);
        errno = EFAULT;
        return -1;
    }
    sg_io_hdr_t h;
    memcpy(&h, arg, sizeof h);
    rec.interface_id = h.interface_id;
    rec.dxfer_direction = h.dxfer_direction;
    rec.cmd_len = h.cmd_len;
    rec.mx_sb_len = h.mx_sb_len;
    rec.iovec_count = h.iovec_count;
    rec.dxfer_len = h.dxfer_len;
    rec.dxferp = h.dxferp;
    rec.cmdp = h.cmdp;
    rec.sbp = h.sbp;
    rec.timeout = h.timeout;
    rec.flags = h.flags;
    rec.pack_id = h.pack_id;
    rec.usr_ptr = h.usr_ptr;
    // Like the block layer, a CDB length outside 6..16 is refused before a
    // byte of the CDB is read: such a request is recorded without its bytes.
    if (h.cmdp != nullptr && h.cmd_len >= 6 && h.cmd_len <= sizeof rec.cdb) memcpy(rec.cdb, h.cmdp, h.cmd_len);

    int err = 0;
    if (d.sg_fail)
        err = EIO;
    else if (h.interface_id != 'S')
        err = EINVAL;
    else if (h.cmd_len < 6)
        err = EMSGSIZE;
    else if (h.cmd_len > 16)
        err = EINVAL;  // longer CDBs are not simulated
    else if (h.cmdp == nullptr)
        err = EFAULT;
    else if (h.iovec_count != 0)
        err = EINVAL;  // scatter lists are not simulated
    else if (h.dxfer_len > kMaxTransfer)
        err = EIO;
    else if (h.dxfer_len > 0 && h.dxfer_direction != SG_DXFER_TO_DEV && !reads_data(h.dxfer_direction))
        err = EINVAL;
    else if (h.dxfer_len > 0 && h.dxferp == nullptr)
        err = EFAULT;
    if (err != 0) {
        rec.error = err;
        record(s, rec);
        errno = err;
        return -1;
    }

    uint8_t cdb[16] = {};
    memcpy(cdb, h.cmdp, h.cmd_len);
    const Reply r = respond(d, cdb, h.dxfer_len);

    // Data-in reaches the caller only when it asked to read; bytes past the
    // transfer stay as they were.
    std::size_t n = 0;
    if (reads_data(h.dxfer_direction)) {
        n = std::min<std::size_t>(r.data.size(), h.dxfer_len);
        if (n > 0) memcpy(h.dxferp, r.data.data(), n);
    }
    std::size_t sense = 0;
    if (h.sbp != nullptr) {
        sense = std::min<std::size_t>(r.sense.size(), h.mx_sb_len);
        if (sense > 0) memcpy(h.sbp, r.sense.data(), sense);
    }
    h.status = r.status;
    h.masked_status = static_cast<unsigned char>((r.status >> 1) & 0x7F);
    h.msg_status = 0;
    h.sb_len_wr = static_cast<unsigned char>(sense);
    h.host_status = 0;
    h.driver_status = 0;
    h.resid = static_cast<int>(h.dxfer_len - n);
    h.duration = 1;
    h.info = r.status != kStatusGood ? SG_INFO_CHECK : SG_INFO_OK;
    memcpy(arg, &h, sizeof h);

    rec.status = r.status;
    record(s, rec);
    return 0;
}

// One request on a remote port's bsg node: SG_GET_VERSION_NUM, or SG_IO
// with an sg_io_v4 carrying an FC transport request (bsg_rport.h answers
// it). Anything else fails with ENOTTY; a malformed request with EINVAL or
// EFAULT.
int rport_ioctl(const RemotePort& r, unsigned long request, void* arg) {
    if (request != SG_IO && request != SG_GET_VERSION_NUM) {
        errno = ENOTTY;
        return -1;
    }
    if (arg == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (request == SG_GET_VERSION_NUM) {
        const int version = kDefaultVersion;
        memcpy(arg, &version, sizeof version);
        return 0;
    }
    sg_io_v4 h;
    memcpy(&h, arg, sizeof h);
    if (h.guard != 'Q' || h.protocol != BSG_PROTOCOL_SCSI || h.subprotocol != BSG_SUB_PROTOCOL_SCSI_TRANSPORT ||
        h.dout_iovec_count != 0 || h.din_iovec_count != 0 || h.din_xfer_len > kMaxTransfer) {
        errno = EINVAL;
        return -1;
    }
    if (h.request == 0 || (h.din_xfer_len > 0 && h.din_xferp == 0)) {
        errno = EFAULT;
        return -1;
    }
    const BsgAnswer a = respond_rport(r, reinterpret_cast<const void*>(static_cast<uintptr_t>(h.request)),
                                      h.request_len);
    const std::size_t n = std::min<std::size_t>(a.data.size(), h.din_xfer_len);
    if (n > 0) memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(h.din_xferp)), a.data.data(), n);
    std::size_t reply = 0;
    if (h.response != 0) {
        reply = std::min<std::size_t>(sizeof a.reply, h.max_response_len);
        memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(h.response)), &a.reply, reply);
    }
    h.response_len = static_cast<uint32_t>(reply);
    h.din_resid = static_cast<int32_t>(h.din_xfer_len - n);
    h.dout_resid = 0;
    h.driver_status = h.transport_status = h.device_status = 0;
    h.info = 0;
    h.duration = 1;
    memcpy(arg, &h, sizeof h);
    return 0;
}

}  // namespace

bool open_device(const char* path, int flags, int* result) {
    if (path == nullptr || strncmp(path, "/dev/", 5) != 0) return false;
    const int saved_errno = errno;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    OpenNode node;
    try {
        node = lookup(s, path);
    } catch (const std::exception&) {
        node = OpenNode();
    }
    errno = saved_errno;
    const std::shared_ptr<const Device> d = node.device;
    if (!d && !node.rport) return false;
    if (d && d->no_device) {
        errno = ENOENT;
        *result = -1;
        return true;
    }
    const int fd = real_open("/dev/null", flags & (O_ACCMODE | O_CLOEXEC | O_NONBLOCK));
    if (fd < 0) {
        *result = -1;
        return true;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        real_close(fd);
        errno = err;
        *result = -1;
        return true;
    }
    node.path = path;
    node.dev = st.st_dev;
    node.ino = st.st_ino;
    if (s.fds.insert_or_assign(fd, node).second) g_open.fetch_add(1);
    ++s.opens;
    *result = fd;
    return true;
}

bool device_ioctl(int fd, unsigned long request, void* arg, int* result) {
    if (g_open.load() == 0) return false;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    const auto it = s.fds.find(fd);
    if (it == s.fds.end()) return false;
    if (!same_file(fd, it->second)) {
        s.fds.erase(it);
        g_open.fetch_sub(1);
        return false;
    }
    const std::shared_ptr<const Device> d = it->second.device;
    const std::string opened = it->second.path;
    if (it->second.rport) {
        *result = rport_ioctl(*it->second.rport, request, arg);
        return true;
    }
    switch (request) {
    case SG_GET_VERSION_NUM:
        ++s.version_queries;
        if (arg == nullptr) {
            errno = EFAULT;
            *result = -1;
        } else {
            const int version = d->sg_version;
            memcpy(arg, &version, sizeof version);
            *result = 0;
        }
        return true;
    case SG_IO:
        *result = sg_io(s, *d, opened, arg);
        return true;
    default:
        errno = ENOTTY;
        *result = -1;
        return true;
    }
}

void forget_descriptor(int fd) {
    if (g_open.load() == 0) return;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mu);
    if (s.fds.erase(fd) != 0) g_open.fetch_sub(1);
}

}  // namespace sg
}  // namespace sim

extern "C" {

std::size_t mirvak_simsg_request_count(void) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.request_count;
}

int mirvak_simsg_last_request(struct mirvak_simsg_request* out) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    if (out == nullptr || s.requests.empty()) return -1;
    *out = s.requests.back();
    return 0;
}

int mirvak_simsg_request_at(std::size_t index, struct mirvak_simsg_request* out) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    const std::size_t first = s.request_count - s.requests.size();
    if (out == nullptr || index < first || index >= s.request_count) return -1;
    *out = s.requests[index - first];
    return 0;
}

std::size_t mirvak_simsg_version_queries(void) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.version_queries;
}

std::size_t mirvak_simsg_opens(void) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.opens;
}

std::size_t mirvak_simsg_open_descriptors(void) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    return s.fds.size();
}

void mirvak_simsg_reset(void) {
    auto& s = sim::sg::state();
    std::lock_guard<std::mutex> lock(s.mu);
    s.requests.clear();
    s.request_count = 0;
    s.version_queries = 0;
    s.opens = 0;
}

}  // extern "C"
