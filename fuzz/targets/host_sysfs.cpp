// Host sysfs: the first part of the input describes a host tree under
// /sys/class/fc_host (host entries with any names, port_name files that are
// hex, not hex, too long for 64 bits, empty or missing, device folders with
// remote ports, targets, LUN folders with vendor and size files and block
// entries, names of any length, nesting deeper than the walk looks); the
// target writes it into a private folder that the simulated host's
// redirector maps /sys onto, and the plug-in reads it: the LUN walks, the
// fc_host lookups by WWN, the FCP target mapping, the facade's LUN and
// snapshot requests (the driver's answers come from the rest of the input).
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return std::remove(path); }

void clear_tree() {
    const std::string sys = g_root + "/sys";
    nftw(sys.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void write_file(const std::string& path, const std::string& text) {
    if (std::FILE* f = std::fopen(path.c_str(), "w")) {
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    }
}

// A name: the usual one, or bytes of the input (any length up to 255, any
// byte but '/' and NUL).
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
    return n.empty() ? usual : n;
}

const char* const kWwnTexts[] = {"0x2000000000000001\n", "0x2000000000000002\n", "0x2100000000000003\n",
                                 "0x2100000000000004\n"};

// port_name: one of the WWNs the driver answers with, or something else.
void port_name(const std::string& dir) {
    const uint8_t b = next_byte();
    const std::string path = dir + "/port_name";
    if (b < 160) return write_file(path, kWwnTexts[b % 4]);
    switch (b % 8) {
    case 0: return;  // missing
    case 1: return write_file(path, "");
    case 2: return write_file(path, "0xffffffffffffffffffffffff\n");
    case 3: return write_file(path, "not hex\n");
    case 4: return write_file(path, "   \n");
    case 5: mkdir(path.c_str(), 0700); return;  // a folder in its place
    default: {
        std::string t;
        const std::size_t len = next_byte();
        for (std::size_t i = 0; i < len; ++i) t += static_cast<char>(next_byte());
        return write_file(path, t);
    }
    }
}

void lun(const std::string& target, unsigned h, unsigned t, unsigned l) {
    const std::string dir = target + "/" + name(std::to_string(h) + ":0:" + std::to_string(t) + ":" + std::to_string(l));
    mkdir(dir.c_str(), 0700);
    const uint8_t b = next_byte();
    if (b % 4 != 3) write_file(dir + "/vendor", b < 128 ? "MIRVSIM \n" : name("X") + "\n");
    const std::string dev = "sd" + std::string(1, static_cast<char>('a' + l % 26));
    const uint8_t kind = next_byte();
    const std::string size_text = kind < 128 ? "2097152\n" : (kind < 200 ? "99999999999999999999999\n" : name("q") + "\n");
    if (kind % 3 != 2) {
        const std::string block = dir + "/" + name("block:" + dev);
        mkdir(block.c_str(), 0700);
        write_file(block + "/size", size_text);
    }
    if (kind % 3 != 1) {
        const std::string block = dir + "/block";
        mkdir(block.c_str(), 0700);
        mkdir((block + "/" + dev).c_str(), 0700);
        write_file(block + "/" + dev + "/size", size_text);
        write_file(block + "/size", size_text);
    }
    if (kind == 255) {  // nesting deeper than any walk goes
        std::string deep = dir;
        for (int i = 0; i < 40; ++i) mkdir((deep += "/block:d").c_str(), 0700);
    }
}

void build_tree() {
    const std::string fc = g_root + "/sys/class/fc_host";
    mkdir((g_root + "/sys").c_str(), 0700);
    mkdir((g_root + "/sys/class").c_str(), 0700);
    mkdir(fc.c_str(), 0700);
    const unsigned hosts = next_byte() % 4;
    for (unsigned h = 0; h < hosts; ++h) {
        const std::string host = fc + "/" + name("host" + std::to_string(h));
        if (mkdir(host.c_str(), 0700) != 0) continue;
        port_name(host);
        if (next_byte() % 8 == 7) continue;  // no device folder
        const std::string device = host + "/device";
        mkdir(device.c_str(), 0700);
        const unsigned rports = next_byte() % 4;
        for (unsigned r = 0; r < rports; ++r) {
            const std::string rname = name("rport-" + std::to_string(h) + ":0-" + std::to_string(r));
            const std::string rport = device + "/" + rname;
            mkdir(rport.c_str(), 0700);
            const std::string remote = rport + "/fc_remote_ports:" + rname;
            mkdir(remote.c_str(), 0700);
            port_name(remote);
            const unsigned targets = next_byte() % 3;
            for (unsigned t = 0; t < targets; ++t) {
                const std::string target = rport + "/" + name("target" + std::to_string(h) + ":0:" + std::to_string(t));
                mkdir(target.c_str(), 0700);
                const unsigned luns = next_byte() % 4;
                for (unsigned l = 0; l < luns; ++l) lun(target, h, t, l);
            }
        }
    }
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
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // The driver reader parses the input: its header first (adapters), then
    // the request, the tree and the driver's answers.
    fuzzdrv::begin(data, size);
    const unsigned op = next_byte();
    clear_tree();
    build_tree();
    requests(op);
    fuzzdrv::end();
    return 0;
}
