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
#include <unordered_map>
#include <vector>

#include "driver/common.h"
#include "driver/entry_lock.h"
#include "host/sysfs_read.h"
#include "host/sysfs_view.h"
#include "mirvak/host_view.h"
#include "host/lun_count.h"

namespace {

// A path built with path_cat/str_cat, freed when it goes out of scope (the
// walk used to keep only the last path of each kind; freeing each one as
// soon as it is used changes nothing visible).
struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};
using Path = std::unique_ptr<char, FreeDeleter>;

Path cat(const Path& dir, const char* name) { return Path(path_cat(dir.get(), name)); }

// A directory being read (from the request's view when one is open). One
// that cannot be opened reads as empty and is not closed; a failed close
// prints the directory's fixed line and the walk goes on.
class Dir {
public:
    Dir(const char* path, const char* close_message, bool quiet)
        : dir_(path), message_(close_message), quiet_(quiet) {}
    Dir(const Dir&) = delete;
    Dir& operator=(const Dir&) = delete;
    ~Dir() { close(); }

    const char* next() { return dir_.next(); }

    void close() {
        if (!dir_.close() && !quiet_) std::puts(message_);
    }

private:
    mv::host::Directory dir_;
    const char* message_;
    bool quiet_;
};

bool has(const char* name, const char* part) { return std::strstr(name, part) != nullptr; }

// With a request's view open: the fc_host entries that a walk for a given
// local port has anything to do with, worked out once per request. The walk
// reads a host's port_name and, when it is not the local port's, closes the
// host again without a word, unless the port_name cannot be opened or the
// host directory cannot be closed, which prints a line. So a walk needs to
// visit only the hosts whose port_name is its local port's and the hosts
// that print; it visits them in the listing's order, as it would have met
// them, and what it does there is unchanged.
class HostIndex : public mv::host::ViewMemo {
public:
    // The index of the open view (made on first use); null when no view is
    // open or the index cannot be had, and every host is then visited.
    static const HostIndex* of_view() {
        if (auto* kept = dynamic_cast<const HostIndex*>(mv::host::view_memo())) return kept;
        const mv::host::Listing* hosts = mv::host::view_listing(mv::kFcHostDir);
        if (hosts == nullptr) return nullptr;
        try {
            auto made = std::make_unique<HostIndex>(*hosts);
            const HostIndex* index = made.get();
            mv::host::keep_view_memo(std::move(made));
            return mv::host::view_memo() == index ? index : nullptr;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    explicit HostIndex(const mv::host::Listing& hosts) : names_(hosts.names) {
        for (std::size_t i = 0; i < names_.size(); ++i) {
            const char* name = names_[i].c_str();
            if (!has(name, "host")) continue;
            const std::string host = std::string(mv::kFcHostDir) + "/" + name;
            const mv::host::Listing* entries = mv::host::view_listing(host.c_str());
            if (entries == nullptr) {  // not kept: always visited
                noisy_.push_back(i);
                continue;
            }
            if (!entries->opened) continue;  // no entries, nothing to close
            bool named = false;
            for (const std::string& a : entries->names) named = named || has(a.c_str(), "port_name");
            bool noisy = entries->close_failed;
            if (named) {
                const std::string port_name = host + "/port_name";
                const mv::host::FileBytes* f = mv::host::view_file(port_name.c_str());
                noisy = noisy || f == nullptr || !f->opened;
                if (!noisy) by_wwn_[mv::value_in_view(port_name.c_str())].push_back(i);
            }
            if (noisy) noisy_.push_back(i);
        }
    }

    // Calls visit(name) for each host entry to visit for this local port,
    // in the listing's order.
    template <class Visit>
    void each_host(unsigned long local, Visit&& visit) const {
        static const std::vector<std::size_t> kNone;
        const auto it = by_wwn_.find(local);
        const std::vector<std::size_t>& named = it != by_wwn_.end() ? it->second : kNone;
        std::size_t a = 0, b = 0;
        while (a < named.size() || b < noisy_.size()) {
            std::size_t i;
            if (b == noisy_.size() || (a < named.size() && named[a] < noisy_[b])) {
                i = named[a++];
            } else {
                i = noisy_[b++];
            }
            visit(names_[i].c_str());
        }
    }

private:
    const std::vector<std::string>& names_;
    std::unordered_map<unsigned long, std::vector<std::size_t>> by_wwn_;
    std::vector<std::size_t> noisy_;  // hosts that print whatever the local port
};

// A block link's name ("block:sdb") split at ':' the way strtok splits it:
// `cut` is what strtok leaves of the name itself (any leading colons and the
// first token: "block"), `device` the second token ("sdb"), empty when there
// is none. Both are views into the name: splitting allocates nothing.
struct BlockName {
    std::string_view cut;
    std::string_view device;
};

BlockName split_block_name(std::string_view name) {
    BlockName b;
    const std::size_t first = name.find_first_not_of(':');
    if (first == std::string_view::npos) {
        b.cut = name;
        return b;
    }
    const std::size_t end_first = name.find(':', first);
    if (end_first == std::string_view::npos) {
        b.cut = name;
        return b;
    }
    b.cut = name.substr(0, end_first);
    const std::size_t second = name.find_first_not_of(':', end_first);
    if (second == std::string_view::npos) return b;
    const std::size_t end_second = name.find(':', second);
    b.device = name.substr(second, end_second == std::string_view::npos ? name.npos : end_second - second);
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
    void visit_host(const char* name);
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
    Dir classes(mv::kFcHostDir, "Error on closedir for dir", quiet_);
    if (const HostIndex* index = HostIndex::of_view()) {
        index->each_host(local_, [&](const char* name) { visit_host(name); });
    } else {
        while (const char* e = classes.next()) {
            if (!has(e, "host")) continue;
            visit_host(e);
        }
    }
    classes.close();
}

void LunWalk::visit_host(const char* name) {
    const Path host(path_cat(mv::kFcHostDir, name));
    Dir host_dir(host.get(), "Error on closedir for host_dir", quiet_);
    while (const char* a = host_dir.next()) {
        if (!has(a, "port_name")) continue;
        // Whichever entry matched (port_name itself or another attribute
        // ending in it), the file read is the host's port_name.
        const Path port_name = cat(host, "port_name");
        if (port_name == nullptr || mv::read_val_text(port_name.get(), quiet_) != local_) {
            host_dir.close();
            break;
        }
        // Kept as it stands: every further entry matching "port_name"
        // repeats the whole device walk, so its LUNs are counted, printed
        // and recorded once more.
        walk_device(host);
    }
    host_dir.close();
}

void LunWalk::walk_device(const Path& host) {
    const Path device = cat(host, "device");
    Dir device_dir(device.get(), "Error on closedir for device_dp", quiet_);
    while (const char* r = device_dir.next()) {
        if (!has(r, "rport")) continue;
        const Path rport = cat(device, r);
        const Path prefix = cat(rport, "fc_remote_ports:");
        const Path remote_dir(str_cat(prefix.get(), r));
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
    while (const char* t = rport_dir.next()) {
        if (!has(t, "target")) continue;
        const Path target = cat(rport, t);
        Dir target_dir(target.get(), "Error on closedir for disk_path", quiet_);
        // Every entry, "." and ".." included, is a LUN when it has a vendor
        // file.
        while (const char* l = target_dir.next()) walk_lun(target, l);
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
    if (vendor == nullptr || mv::host::access_exists(vendor.get()) != 0) return;

    lun_info* rec = record_for_next_lun();
    if (rec != nullptr) {
        char text[256];
        std::memset(text, 0, sizeof text);
        read_string(vendor.get(), text);
        std::memset(rec->vendor, 0, sizeof rec->vendor);
        mv::copy_text(rec->vendor, sizeof rec->vendor, text);
    }
    say("BTL info Bus:port:target:lun -> %s\n", entry);
    if (rec != nullptr) mv::copy_text(rec->hctl, sizeof rec->hctl, entry);

    Dir lun_dir(lun.get(), "Error on closedir for scsi_disk", quiet_);
    while (const char* b = lun_dir.next()) {
        if (!has(b, "block:")) continue;
        ++blocks_;
        if (quiet_) continue;  // sizing a caller's array needs the count only
        const BlockName name = split_block_name(b);
        if (rec != nullptr)
            std::snprintf(rec->device, sizeof rec->device, "/dev/%.*s", static_cast<int>(name.device.size()),
                          name.device.data());
        // Kept as it stands: getNumLuns and getVportLuninfo cut the entry's
        // own name to "block" and read <lun>/block/size, which only kernels
        // publishing the block/ directory have; getLuninfo reads
        // <lun>/block:sdX/size. Where the size file is missing the record
        // gets the working value as it stands.
        // A directory entry's name is at most 255 bytes.
        char cut[256];
        std::snprintf(cut, sizeof cut, "%.*s", static_cast<int>(name.cut.size()), name.cut.data());
        const char* size_dir = keep_ == Keep::Fill ? b : cut;
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
    const mv::EntryLock entry_lock;
    LunWalk walk(Keep::Count, local, remote);
    walk.run();
    return walk.blocks();
}

void getLuninfo(lun_info* luns, unsigned long local, unsigned long remote, std::size_t capacity) {
    const mv::EntryLock entry_lock;
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
    const mv::EntryLock entry_lock;
    // Callers size the array with getNumLuns, which counts block links,
    // while every LUN directory takes a record: a LUN without a block device
    // would take one more record than there is room for. Count again,
    // silently, and write no more records than that count.
    getLuninfo(luns, local, remote, mv::count_luns_quietly(local, remote));
}

void getVportLuninfo(lun_info** result, unsigned long local, unsigned long remote, unsigned int* count) {
    const mv::EntryLock entry_lock;
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
