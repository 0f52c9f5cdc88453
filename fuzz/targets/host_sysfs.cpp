// Host sysfs: the first part of the input describes a host tree under
// /sys/class/fc_host (host entries with any names, port_name files that are
// hex, not hex, too long for 64 bits, empty or missing, device folders with
// remote ports, targets, LUN folders with vendor and size files and block
// entries, names of any length, nesting deeper than the walk looks); the
// target writes it (what changed since the last input) into a private
// folder in memory that the simulated host's redirector maps /sys onto, and
// the plug-in reads it: the LUN walks, the fc_host lookups by WWN, the FCP
// target mapping, the facade's LUN and snapshot requests (the driver's
// answers come from the rest of the input).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_driver.h"
#include "fuzz_support.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/host_view.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/port_helpers.h"

namespace {

using fuzzdrv::next_byte;

std::string g_root;

// The tree an input describes, built in memory first: each folder keeps its
// entries in the order they were made. Then only what differs from the tree
// on disk (the last input's) is written: a file whose text changed is
// rewritten in place; from a folder's first entry that differs (another
// name, kind, or a folder not made), the entries on disk are removed and
// the input's made in order, so that each folder lists its entries in the
// order a fresh tree would (the reading side walks them in listing order).
struct Node {
    bool dir = true;
    std::string text;  // a file's bytes
    std::vector<std::pair<std::string, Node>> entries;

    Node* find(const std::string& name) {
        for (auto& e : entries)
            if (e.first == name) return &e.second;
        return nullptr;
    }
};

Node g_disk;  // what the folder holds now (below /sys/class/fc_host)

// The folder `name` in `parent`: made unless an entry of that name is
// there (`made` tells which); null when that entry is a file. As mkdir and
// a later write into the folder would have it.
Node* folder(Node* parent, const std::string& name, bool* made = nullptr) {
    if (made != nullptr) *made = false;
    if (parent == nullptr) return nullptr;
    if (Node* e = parent->find(name)) return e->dir ? e : nullptr;
    parent->entries.emplace_back(name, Node{});
    if (made != nullptr) *made = true;
    return &parent->entries.back().second;
}

// A file written with `text` (fopen "w" semantics: an existing file is
// rewritten, a folder in its place refuses it).
void file(Node* parent, const std::string& name, const std::string& text) {
    if (parent == nullptr) return;
    if (Node* e = parent->find(name)) {
        if (!e->dir) e->text = text;
        return;
    }
    Node f;
    f.dir = false;
    f.text = text;
    parent->entries.emplace_back(name, std::move(f));
}

void remove_entry(const std::string& path, const Node& n) {
    if (n.dir) {
        for (auto it = n.entries.rbegin(); it != n.entries.rend(); ++it) remove_entry(path + "/" + it->first, it->second);
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

bool write_text(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok || text.empty();
}

// Makes `want` at path (nothing there yet); returns what was made (a folder
// that could not be made is left out, and so is all below it).
bool make(const std::string& path, const Node& want, Node& made) {
    made = Node{};
    made.dir = want.dir;
    if (!want.dir) {
        if (!write_text(path, want.text)) return false;
        made.text = want.text;
        return true;
    }
    if (mkdir(path.c_str(), 0700) != 0) return false;
    for (const auto& e : want.entries) {
        Node child;
        if (make(path + "/" + e.first, e.second, child)) made.entries.emplace_back(e.first, std::move(child));
    }
    return true;
}

// Brings the folder at path from `have` (on disk) to `want`.
void sync(const std::string& path, Node& have, const Node& want) {
    std::size_t i = 0;
    for (; i < have.entries.size() && i < want.entries.size(); ++i) {
        auto& h = have.entries[i];
        const auto& w = want.entries[i];
        if (h.first != w.first || h.second.dir != w.second.dir) break;
        const std::string child = path + "/" + h.first;
        if (!h.second.dir) {
            if (h.second.text != w.second.text) {
                if (!write_text(child, w.second.text)) break;
                h.second.text = w.second.text;
            }
        } else {
            sync(child, h.second, w.second);
        }
    }
    for (std::size_t k = have.entries.size(); k-- > i;) remove_entry(path + "/" + have.entries[k].first, have.entries[k].second);
    have.entries.resize(i);
    for (; i < want.entries.size(); ++i) {
        Node made;
        if (make(path + "/" + want.entries[i].first, want.entries[i].second, made))
            have.entries.emplace_back(want.entries[i].first, std::move(made));
    }
}

// A name: the usual one, or bytes of the input (any length up to 255, any
// byte but '/' and NUL; "." and ".." name no new entry and give the usual).
std::string name(const std::string& usual) {
    const uint8_t b = next_byte();
    if (b < 192) return usual;
    std::string n;
    const std::size_t len = b == 255 ? 255 : next_byte();
    for (std::size_t i = 0; i < len; ++i) {
        char c = static_cast<char>(next_byte());
        if (c == '/' || c == '\0') c = '_';
        n += c;
    }
    return n.empty() || n == "." || n == ".." ? usual : n;
}

const char* const kWwnTexts[] = {"0x2000000000000001\n", "0x2000000000000002\n", "0x2100000000000003\n",
                                 "0x2100000000000004\n"};

// port_name: one of the WWNs the driver answers with, or something else.
void port_name(Node* dir) {
    const uint8_t b = next_byte();
    if (b < 160) return file(dir, "port_name", kWwnTexts[b % 4]);
    switch (b % 8) {
    case 0: return;  // missing
    case 1: return file(dir, "port_name", "");
    case 2: return file(dir, "port_name", "0xffffffffffffffffffffffff\n");
    case 3: return file(dir, "port_name", "not hex\n");
    case 4: return file(dir, "port_name", "   \n");
    case 5: folder(dir, "port_name"); return;  // a folder in its place
    default: {
        std::string t;
        const std::size_t len = next_byte();
        for (std::size_t i = 0; i < len; ++i) t += static_cast<char>(next_byte());
        return file(dir, "port_name", t);
    }
    }
}

void lun(Node* target, unsigned h, unsigned t, unsigned l) {
    Node* dir = folder(target, name(std::to_string(h) + ":0:" + std::to_string(t) + ":" + std::to_string(l)));
    const uint8_t b = next_byte();
    if (b % 4 != 3) file(dir, "vendor", b < 128 ? "MIRVSIM \n" : name("X") + "\n");
    const std::string dev = "sd" + std::string(1, static_cast<char>('a' + l % 26));
    const uint8_t kind = next_byte();
    const std::string size_text = kind < 128 ? "2097152\n" : (kind < 200 ? "99999999999999999999999\n" : name("q") + "\n");
    if (kind % 3 != 2) file(folder(dir, name("block:" + dev)), "size", size_text);
    if (kind % 3 != 1) {
        Node* block = folder(dir, "block");
        file(folder(block, dev), "size", size_text);
        file(block, "size", size_text);
    }
    if (kind == 255) {  // nesting deeper than any walk goes
        Node* deep = dir;
        for (int i = 0; i < 40; ++i) deep = folder(deep, "block:d");
    }
}

// The input's tree below /sys/class/fc_host.
Node build_tree() {
    Node fc;
    const unsigned hosts = next_byte() % 4;
    for (unsigned h = 0; h < hosts; ++h) {
        bool made = false;
        Node* host = folder(&fc, name("host" + std::to_string(h)), &made);
        if (!made) continue;
        port_name(host);
        if (next_byte() % 8 == 7) continue;  // no device folder
        Node* device = folder(host, "device");
        const unsigned rports = next_byte() % 4;
        for (unsigned r = 0; r < rports; ++r) {
            const std::string rname = name("rport-" + std::to_string(h) + ":0-" + std::to_string(r));
            Node* rport = folder(device, rname);
            port_name(folder(rport, "fc_remote_ports:" + rname));
            const unsigned targets = next_byte() % 3;
            for (unsigned t = 0; t < targets; ++t) {
                Node* target = folder(rport, name("target" + std::to_string(h) + ":0:" + std::to_string(t)));
                const unsigned luns = next_byte() % 4;
                for (unsigned l = 0; l < luns; ++l) lun(target, h, t, l);
            }
        }
    }
    return fc;
}

constexpr unsigned long kWwns[] = {0x2000000000000001ul, 0x2000000000000002ul, 0x2100000000000003ul,
                                   0x2100000000000004ul};

void requests(unsigned op) {
    const unsigned long local = kWwns[next_byte() % 4];
    const unsigned long remote = kWwns[next_byte() % 4];
    switch (op % 6) {
    case 0: {
        const unsigned long n = getNumLuns(local, remote);
        const std::size_t cap = n < 64 ? n : 64;
        auto* luns = static_cast<lun_info*>(std::malloc((cap + 1) * sizeof(lun_info)));
        fuzz::fill(luns, (cap + 1) * sizeof(lun_info), 0xA5);
        getLuninfo(luns, local, remote, cap);
        fuzz::check_untouched(&luns[cap], sizeof(lun_info), 0xA5, "LUNs past the capacity");
        std::free(luns);
        break;
    }
    case 1: {
        lun_info* luns = nullptr;
        unsigned int count = 0;
        getVportLuninfo(&luns, local, remote, &count);
        std::free(luns);
        break;
    }
    case 2: {
        uint8_t w[8];
        std::memcpy(w, fuzzdrv::wwn(next_byte()), 8);
        char out[256];
        fuzz::fill(out, sizeof out, 0xA5);
        (void)get_path_for_pwwn(w, out);
        (void)get_path_for_KXpwwn(w, out);
        char text[256];
        unsigned long v = 0;
        const std::string path = "/sys/class/fc_host/host" + std::to_string(next_byte() % 4) + "/port_name";
        (void)read_val(path.c_str());
        (void)read_proc(path.c_str(), &v, next_byte() % 2 ? 16 : 10);
        (void)read_string(path.c_str(), text);
        break;
    }
    case 3: {
        mirvak_LoadLibrary();
        const HBA_HANDLE h = mirvak_OpenAdapter("/dev/tuskstor0");
        const std::size_t bytes = 4 + sizeof(MV_FCPSCSIENTRYV2) * 8;
        auto* m = static_cast<unsigned char*>(std::malloc(bytes));
        fuzz::fill(m, bytes, 0xA5);
        const uint32_t entries = 8;
        std::memcpy(m, &entries, 4);
        HBA_WWN w;
        std::memcpy(w.wwn, fuzzdrv::wwn(next_byte()), 8);
        if (next_byte() & 1) (void)mirvak_GetFCPTargetMappingv1(h, reinterpret_cast<MV_FCPTARGETMAPPING*>(m));
        else (void)mirvak_GetFCPTargetMappingv2(h, w, reinterpret_cast<MV_FCPTARGETMAPPINGV2*>(m));
        std::free(m);
        HBA_PORTATTRIBUTES a;
        (void)mirvak_GetAdapterPortAttributes(h, 0, &a);
        mirvak_CloseAdapter(h);
        mirvak_FreeLibrary();
        break;
    }
    case 4: {
        MvFCoEIni f;
        vport_in k;
        std::memset(&k, 0, sizeof k);
        std::strcpy(k.adapter_name, "/dev/tuskstor0");
        k.port_num = next_byte() % 2;
        k.rport_index = next_byte() % 2;
        if (next_byte() & 1) {
            std::memcpy(k.vport_wwpn, fuzzdrv::wwn(next_byte()), 8);
            std::memcpy(k.rport_wwpn, fuzzdrv::wwn(next_byte()), 8);
        }
        char* block = nullptr;
        unsigned int size = 0;
        if (next_byte() & 1) (void)f.GetLunInfo(&k, &block, &size);
        else (void)f.GetVPortLunInfo(&k, &block, &size);
        std::free(block);
        break;
    }
    default: {
        MvFCoEIni f;
        unsigned int size = 0;
        std::free(f.GetFCoEAll(nullptr, &size));
        break;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_stdout();
    g_root = fuzz::empty_host();
    mkdir((g_root + "/sys").c_str(), 0700);
    mkdir((g_root + "/sys/class").c_str(), 0700);
    mkdir((g_root + "/sys/class/fc_host").c_str(), 0700);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // The driver reader parses the input: its header first (adapters), then
    // the request, the tree and the driver's answers.
    fuzzdrv::begin(data, size);
    const unsigned op = next_byte();
    sync(g_root + "/sys/class/fc_host", g_disk, build_tree());
    requests(op);
    fuzzdrv::end();
    return 0;
}
