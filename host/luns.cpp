// LUN discovery: the logical units the SCSI layer attached behind one remote
// port of one local FC port, found by walking the tree that the FC transport
// class publishes under /sys/class/fc_host:
//
//   hostH/port_name                                  the local port's WWN
//   hostH/device/rport-H:0-M/fc_remote_ports:rport-H:0-M/port_name
//   hostH/device/rport-H:0-M/targetH:0:T/H:0:T:L/vendor
//   hostH/device/rport-H:0-M/targetH:0:T/H:0:T:L/block:sdX/size
//
// Entry names are matched as substrings ("host" matches host0, "rport"
// matches rport-2:0-0). The three functions share one walk and differ in
// what they keep and in how they split the block link's name.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "host/sysfs_read.h"
#include "mirvak/host_view.h"
#include "host/lun_count.h"

namespace {

constexpr const char* kFcHostDir = "/sys/class/fc_host";

// A path built with path_cat/str_cat, freed when it goes out of scope (the
// walk used to keep only the last path of each kind; freeing each one as
// soon as it is used changes nothing visible).
struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};
using Path = std::unique_ptr<char, FreeDeleter>;

Path cat(const Path& dir, const char* name) { return Path(path_cat(dir.get(), name)); }

// A directory being read. One that cannot be opened reads as empty and is
// not closed; a failed close prints the directory's fixed line and the walk
// goes on.
class Dir {
public:
    Dir(const char* path, const char* close_message, bool quiet)
        : dir_(path != nullptr ? opendir(path) : nullptr), message_(close_message), quiet_(quiet) {}
    Dir(const Dir&) = delete;
    Dir& operator=(const Dir&) = delete;
    ~Dir() { close(); }

    const dirent* next() { return dir_ != nullptr ? readdir(dir_) : nullptr; }

    void close() {
        if (dir_ == nullptr) return;
        if (closedir(dir_) != 0 && !quiet_) std::puts(message_);
        dir_ = nullptr;
    }

private:
    DIR* dir_;
    const char* message_;
    bool quiet_;
};

bool has(const char* name, const char* part) { return std::strstr(name, part) != nullptr; }

// Copies src into a text field of cap bytes, cut to fit, NUL included.
void copy_text(char* dst, std::size_t cap, const char* src) {
    std::size_t n = std::strlen(src);
    if (n >= cap) n = cap - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// A block link's name ("block:sdb") split at ':' the way strtok splits it:
// `cut` is what strtok leaves of the name itself (any leading colons and the
// first token: "block"), `device` the second token ("sdb"), empty when there
// is none.
struct BlockName {
    std::string cut;
    std::string device;
};

BlockName split_block_name(std::string_view name) {
    BlockName b;
    const std::size_t first = name.find_first_not_of(':');
    if (first == std::string_view::npos) {
        b.cut = std::string(name);
        return b;
    }
    const std::size_t end_first = name.find(':', first);
    if (end_first == std::string_view::npos) {
        b.cut = std::string(name);
        return b;
    }
    b.cut = std::string(name.substr(0, end_first));
    const std::size_t second = name.find_first_not_of(':', end_first);
    if (second == std::string_view::npos) return b;
    const std::size_t end_second = name.find(':', second);
    b.device = std::string(name.substr(second, end_second == std::string_view::npos ? name.npos : end_second - second));
    return b;
}

enum class Keep {
    Count,  // getNumLuns: count block links
    Fill,   // getLuninfo: fill the caller's records
    Grow,   // getVportLuninfo: grow an array of its own
};

class LunWalk {
public:
    LunWalk(Keep keep, unsigned long local, unsigned long remote, bool quiet = false)
        : keep_(keep), quiet_(quiet), local_(local), remote_(remote) {}

    void fill_into(lun_info* luns, std::size_t capacity) {
        luns_ = luns;
        capacity_ = capacity;
    }

    void run();

    unsigned long blocks() const { return blocks_; }
    std::size_t records() const { return next_; }
    lun_info* grown() const { return grown_; }

private:
    void walk_device(const Path& host);
    void walk_rport(const Path& rport);
    void walk_lun(const Path& target, const char* entry);
    lun_info* record_for_next_lun();
    void say(const char* fmt, const char* text) const {
        if (!quiet_) std::printf(fmt, text);
    }

    Keep keep_;
    bool quiet_;
    unsigned long local_;
    unsigned long remote_;
    unsigned long blocks_ = 0;
    // The value that carries each size into its record: set from the remote
    // port's port_name on a match, then from each size file read. A size
    // file that cannot be read leaves the previous value in place.
    unsigned long work_ = 0;
    lun_info* luns_ = nullptr;  // Fill
    std::size_t capacity_ = 0;  // Fill
    lun_info* grown_ = nullptr;  // Grow
    std::size_t next_ = 0;      // index of the next record
};

void LunWalk::run() {
    Dir classes(kFcHostDir, "Error on closedir for dir", quiet_);
    while (const dirent* e = classes.next()) {
        if (!has(e->d_name, "host")) continue;
        const Path host(path_cat(kFcHostDir, e->d_name));
        Dir host_dir(host.get(), "Error on closedir for host_dir", quiet_);
        while (const dirent* a = host_dir.next()) {
            if (!has(a->d_name, "port_name")) continue;
            // Whichever entry matched (port_name itself or another attribute
            // ending in it), the file read is the host's port_name.
            const Path port_name = cat(host, "port_name");
            if (port_name == nullptr || mv::read_val_text(port_name.get(), quiet_) != local_) {
                host_dir.close();
                break;
            }
            // Kept as it stands: every further entry matching "port_name"
            // repeats the whole device walk, so its LUNs are counted,
            // printed and recorded once more.
            walk_device(host);
        }
        host_dir.close();
    }
    classes.close();
}

void LunWalk::walk_device(const Path& host) {
    const Path device = cat(host, "device");
    Dir device_dir(device.get(), "Error on closedir for device_dp", quiet_);
    while (const dirent* r = device_dir.next()) {
        if (!has(r->d_name, "rport")) continue;
        const Path rport = cat(device, r->d_name);
        const Path prefix = cat(rport, "fc_remote_ports:");
        const Path remote_dir(str_cat(prefix.get(), r->d_name));
        const Path port_name = cat(remote_dir, "port_name");
        if (port_name == nullptr || mv::read_val_text(port_name.get(), quiet_) != remote_) continue;
        // Kept as it stands: the matching port_name is read once more into
        // the working value (only 16 bytes of it, in base 16). A LUN whose
        // size cannot be read before any other was read gets this value as
        // its size.
        if (!quiet_) mv::read_proc_text(port_name.get(), &work_, 16, quiet_);
        walk_rport(rport);
    }
    device_dir.close();
}

void LunWalk::walk_rport(const Path& rport) {
    Dir rport_dir(rport.get(), "Error on closedir for device_dir_rport", quiet_);
    while (const dirent* t = rport_dir.next()) {
        if (!has(t->d_name, "target")) continue;
        const Path target = cat(rport, t->d_name);
        Dir target_dir(target.get(), "Error on closedir for disk_path", quiet_);
        // Every entry, "." and ".." included, is a LUN when it has a vendor
        // file.
        while (const dirent* l = target_dir.next()) walk_lun(target, l->d_name);
        target_dir.close();
    }
    rport_dir.close();
}

lun_info* LunWalk::record_for_next_lun() {
    switch (keep_) {
    case Keep::Count:
        return nullptr;
    case Keep::Fill:
        // The caller's array holds capacity_ records (as many as getNumLuns
        // counts); a LUN directory beyond them is walked and printed but
        // not stored.
        return next_ < capacity_ ? &luns_[next_] : nullptr;
    case Keep::Grow: {
        void* bigger = std::realloc(grown_, (next_ + 1) * sizeof(lun_info));
        if (bigger == nullptr) {
            // No recovery: the walk goes on, this LUN is not stored and the
            // records gathered so far stay.
            std::puts("Lunallocation failed");
            return nullptr;
        }
        grown_ = static_cast<lun_info*>(bigger);
        std::memset(&grown_[next_], 0, sizeof(lun_info));
        return &grown_[next_];
    }
    }
    return nullptr;
}

void LunWalk::walk_lun(const Path& target, const char* entry) {
    const Path lun = cat(target, entry);
    const Path vendor = cat(lun, "vendor");
    if (vendor == nullptr || access(vendor.get(), F_OK) != 0) return;

    lun_info* rec = record_for_next_lun();
    if (rec != nullptr) {
        char text[256];
        std::memset(text, 0, sizeof text);
        read_string(vendor.get(), text);
        std::memset(rec->vendor, 0, sizeof rec->vendor);
        copy_text(rec->vendor, sizeof rec->vendor, text);
    }
    say("BTL info Bus:port:target:lun -> %s\n", entry);
    if (rec != nullptr) copy_text(rec->hctl, sizeof rec->hctl, entry);

    Dir lun_dir(lun.get(), "Error on closedir for scsi_disk", quiet_);
    while (const dirent* b = lun_dir.next()) {
        if (!has(b->d_name, "block:")) continue;
        ++blocks_;
        if (quiet_) continue;  // sizing a caller's array needs the count only
        const BlockName name = split_block_name(b->d_name);
        if (rec != nullptr) std::snprintf(rec->device, sizeof rec->device, "/dev/%s", name.device.c_str());
        // Kept as it stands: getNumLuns and getVportLuninfo cut the entry's
        // own name to "block" and read <lun>/block/size, which only kernels
        // publishing the block/ directory have; getLuninfo reads
        // <lun>/block:sdX/size. Where the size file is missing the record
        // gets the working value as it stands.
        const char* size_dir = keep_ == Keep::Fill ? b->d_name : name.cut.c_str();
        const Path size = cat(cat(lun, size_dir), "size");
        if (size != nullptr) mv::read_proc_text(size.get(), &work_, 10, quiet_);
        if (rec != nullptr) rec->size = work_;
    }
    lun_dir.close();
    // A record is consumed by every LUN directory with a vendor file, block
    // link or not, while getNumLuns counts block links: callers size the
    // array with the count and rely on the two being equal.
    if (keep_ != Keep::Grow || rec != nullptr) ++next_;
}

}  // namespace

unsigned long getNumLuns(unsigned long local, unsigned long remote) {
    LunWalk walk(Keep::Count, local, remote);
    walk.run();
    return walk.blocks();
}

void getLuninfo(lun_info* luns, unsigned long local, unsigned long remote, std::size_t capacity) {
    LunWalk walk(Keep::Fill, local, remote);
    walk.fill_into(luns, capacity);
    walk.run();
}

std::size_t mv::count_luns_quietly(unsigned long local, unsigned long remote) {
    LunWalk count(Keep::Count, local, remote, true);
    count.run();
    return static_cast<std::size_t>(count.blocks());
}

void getLuninfo(lun_info* luns, unsigned long local, unsigned long remote) {
    // Callers size the array with getNumLuns, which counts block links,
    // while every LUN directory takes a record: a LUN without a block device
    // would take one more record than there is room for. Count again,
    // silently, and write no more records than that count.
    getLuninfo(luns, local, remote, mv::count_luns_quietly(local, remote));
}

void getVportLuninfo(lun_info** result, unsigned long local, unsigned long remote, unsigned int* count) {
    LunWalk walk(Keep::Grow, local, remote);
    walk.run();
    const std::size_t n = walk.records();
    lun_info* grown = walk.grown();
    // With no LUN this is a zero-length allocation, handed to the caller.
    auto* out = static_cast<lun_info*>(std::malloc(n * sizeof(lun_info)));
    *result = out;
    if (out == nullptr) {
        std::free(grown);
        return;  // *count keeps its value
    }
    if (n != 0) {
        std::memset(out, 0, n * sizeof(lun_info));
        std::memcpy(out, grown, n * sizeof(lun_info));
    }
    *count = static_cast<unsigned int>(n);
    std::free(grown);
}
