// Driver records: the fuzzer's bytes decide every answer of the driver
// library (fuzz_driver.h); one input drives one request of the standard
// face, the extended interface or the facade, chosen by its first argument
// byte, with arguments from the following bytes. Caller records and buffers
// are pre-filled with a pattern; the bytes past what a request reports it
// wrote must still hold it. The host is an empty simulated one.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_driver.h"
#include "fuzz_support.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"
#include "mirvak/host_view.h"
#include "mirvak/instance_map.h"
#include "mirvak/mgmt.h"
#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/port_helpers.h"

namespace {

using fuzzdrv::next_byte;
using fuzzdrv::next_u32;

constexpr uint8_t kPattern = 0xA5;
// The agent's buffers: large enough for the largest answer a request can
// give here (255 ports or 32 adapters), and the 256 KiB the remote-port
// requests take a caller's block to hold.
constexpr std::size_t kAgentBuffer = 512 * 1024;
constexpr std::size_t kBlock = 256 * 1024;

std::string adapter_path() { return "/dev/tuskstor" + std::to_string(next_byte() % 33); }

HBA_HANDLE open_one() { return mirvak_OpenAdapter(adapter_path().c_str()); }

void wwn_into(uint8_t* out) { std::memcpy(out, fuzzdrv::wwn(next_byte()), 8); }

HBA_WWN hba_wwn() {
    HBA_WWN w;
    wwn_into(w.wwn);
    return w;
}

void name_into(char* field) {
    const std::string p = adapter_path();
    std::memset(field, 0, 256);
    if (next_byte() % 16 == 15) std::memset(field, 'x', 256);  // a name field without a NUL
    else std::memcpy(field, p.c_str(), p.size());
}

port_info port_key() {
    port_info k;
    fuzz::fill(&k, sizeof k, kPattern);
    name_into(k.adapter_name);
    k.port_num = next_byte() % 6;
    wwn_into(k.attributes.PortWWN.wwn);
    return k;
}

vport_in vport_key() {
    vport_in k;
    fuzz::fill(&k, sizeof k, kPattern);
    name_into(k.adapter_name);
    k.port_num = next_byte() % 6;
    k.vport_index = next_byte() % 4;
    k.rport_index = next_byte() % 6;
    wwn_into(k.vport_wwpn);
    wwn_into(k.rport_wwpn);
    return k;
}

// The agent's buffer: pattern-filled; after the request every byte past
// *size still holds the pattern.
struct AgentBuffer {
    unsigned char* p = static_cast<unsigned char*>(std::malloc(kAgentBuffer));
    unsigned int size = 0xA5A5A5A5u;
    AgentBuffer() { fuzz::fill(p, kAgentBuffer, kPattern); }
    ~AgentBuffer() {
        if (size <= kAgentBuffer) fuzz::check_untouched(p + size, kAgentBuffer - size, kPattern, "agent buffer");
        std::free(p);
    }
};

// A malloc'ed block the facade fills or replaces ("char** buf").
void release(char* block) { std::free(block); }

void standard_face(unsigned op) {
    const HBA_HANDLE h = open_one();
    switch (op) {
    case 0: {
        // Tables of pointer slots as front libraries pass them: the library
        // writes slots 0 to 27 by index.
        void* t1[64];
        void* t2[64];
        fuzz::fill(t1, sizeof t1, kPattern);
        fuzz::fill(t2, sizeof t2, kPattern);
        HBA_RegisterLibraryV2(reinterpret_cast<HBA_ENTRYPOINTSV2*>(t2));
        HBA_RegisterLibrary(reinterpret_cast<HBA_ENTRYPOINTS*>(t1));
        fuzz::check_untouched(&t1[25], sizeof(void*) * 39, kPattern, "entry table past slot 24");
        fuzz::check_untouched(&t2[28], sizeof(void*) * 36, kPattern, "entry table past slot 27");
        (void)mirvak_GetVersion();
        break;
    }
    case 1: {
        const HBA_UINT32 n = mirvak_GetNumberOfAdapters();
        char name[256];
        fuzz::fill(name, sizeof name, kPattern);
        (void)mirvak_GetAdapterName(n ? next_byte() % (n + 1) : next_byte(), name);
        (void)getActualDeviceInstance(next_byte());
        (void)getAssignedInstance(adapter_path().c_str());
        (void)getActualDeviceInstance_by_adapName(adapter_path().c_str());
        break;
    }
    case 2: {
        HBA_ADAPTERATTRIBUTES a;
        fuzz::fill(&a, sizeof a, kPattern);
        (void)mirvak_GetAdapterAttributes(h, &a);
        break;
    }
    case 3: {
        HBA_PORTATTRIBUTES a;
        fuzz::fill(&a, sizeof a, kPattern);
        (void)mirvak_GetAdapterPortAttributes(h, next_byte() % 8, &a);
        break;
    }
    case 4: {
        HBA_PORTATTRIBUTES a[8];
        fuzz::fill(a, sizeof a, kPattern);
        (void)mirvak_GetAllAdapterPortsAttributes(h, a, next_byte() % 9);
        break;
    }
    case 5: {
        HBA_PORTSTATISTICS s;
        fuzz::fill(&s, sizeof s, kPattern);
        (void)mirvak_GetPortStatistics(h, next_byte() % 8, &s);
        break;
    }
    case 6:
        (void)mirvak_GetNumTargets(h, next_byte() % 8);
        (void)GetNumLnodes(h, 0);
        break;
    case 7: {
        HBA_PORTATTRIBUTES a;
        fuzz::fill(&a, sizeof a, kPattern);
        const HBA_UINT32 port = next_byte() % 8;
        (void)mirvak_GetDiscoveredPortAttributes(h, port, next_byte() % 8, &a);
        break;
    }
    case 8: {
        HBA_PORTATTRIBUTES a;
        fuzz::fill(&a, sizeof a, kPattern);
        (void)mirvak_GetPortAttributesByWWN(h, hba_wwn(), &a);
        break;
    }
    case 9:
        mirvak_RefreshInformation(h);
        break;
    case 10:
    case 11: {
        // The caller's count of entries; the rest of the buffer must stay.
        const uint32_t entries = next_byte() % 6;
        const std::size_t entry = op == 10 ? sizeof(MV_FCPSCSIENTRY) : sizeof(MV_FCPSCSIENTRYV2);
        const std::size_t bytes = 4 + entry * (entries + 4);
        auto* m = static_cast<unsigned char*>(std::malloc(bytes));
        fuzz::fill(m, bytes, kPattern);
        std::memcpy(m, &entries, 4);
        if (op == 10) (void)mirvak_GetFCPTargetMappingv1(h, reinterpret_cast<MV_FCPTARGETMAPPING*>(m));
        else (void)mirvak_GetFCPTargetMappingv2(h, hba_wwn(), reinterpret_cast<MV_FCPTARGETMAPPINGV2*>(m));
        fuzz::check_untouched(m + 4 + entry * entries, entry * 4, kPattern, "mapping past its entries");
        std::free(m);
        break;
    }
    case 12: {
        unsigned char rsp[1024 + 64], sense[96];
        fuzz::fill(rsp, sizeof rsp, kPattern);
        fuzz::fill(sense, sizeof sense, kPattern);
        const HBA_WWN w = hba_wwn();
        const uint64_t lun = uint64_t{next_byte()} << 48;
        switch (next_byte() % 3) {
        case 0: (void)mirvak_SendScsiInquiry(h, w, lun, next_byte() & 1, next_byte(), rsp, 96, sense, sizeof sense); break;
        case 1: (void)mirvak_SendReportLUNs(h, w, rsp, 1024, sense, sizeof sense); break;
        default: (void)mirvak_SendReadCapacity(h, w, lun, rsp, 32, sense, sizeof sense); break;
        }
        fuzz::check_untouched(rsp + 1024, 64, kPattern, "SCSI response past its size");
        char path[256] = {};
        (void)GetDeviceFromFCPLunOrPortWWN(h, lun, 0, w, w, path, next_byte() & 1);
        break;
    }
    }
    mirvak_CloseAdapter(h);
}

void extended(unsigned op) {
    const HBA_HANDLE h = open_one();
    switch (op) {
    case 0: {
        adapter_info a;
        fuzz::fill(&a, sizeof a, kPattern);
        (void)mirvak_GetKXAdapterAttributes(h, &a);
        break;
    }
    case 1: {
        port_info p;
        fuzz::fill(&p, sizeof p, kPattern);
        p.attributes.PortState = next_byte() % 8;
        (void)mirvak_GetKXAdapterPortAttributes(h, next_byte() % 8, &p);
        break;
    }
    case 2: {
        port_info k = port_key();
        port_info out;
        fuzz::fill(&out, sizeof out, kPattern);
        (void)mirvak_GetKXAdapterPortAttributes_by_wwpn(h, &k, next_byte() & 1 ? &k : &out);
        (void)mirvak_GetNumTargets_by_wwpn(h, &k);
        break;
    }
    case 3: {
        char out[256];
        fuzz::fill(out, sizeof out, kPattern);
        uint8_t w[8];
        wwn_into(w);
        (void)get_path_for_KXpwwn(w, out);
        (void)get_path_for_pwwn(w, out);
        break;
    }
    case 4: {
        port_info k = port_key();
        port_stats s;
        fuzz::fill(&s, sizeof s, kPattern);
        (void)mirvak_GetKXPortStatistics(h, &k, &s);
        uint8_t w[8];
        wwn_into(w);
        fuzz::fill(&s, sizeof s, kPattern);
        (void)mirvak_GetKXVPortStatistics(h, w, &s);
        break;
    }
    case 5: {
        vport_in k = vport_key();
        port_stats s;
        fuzz::fill(&s, sizeof s, kPattern);
        (void)mirvak_GetDiscoveredPortStats(h, &k, &s);
        fuzz::fill(&s, sizeof s, kPattern);
        (void)mirvak_GetRPortsStatsForVPort(h, k.vport_wwpn, &s, &k);
        break;
    }
    case 6: {
        const HBA_UINT32 expected = next_byte() % 6;
        port_info ports[8];
        fuzz::fill(ports, sizeof ports, kPattern);
        uint8_t w[8];
        wwn_into(w);
        (void)mirvak_GetAllVPortsForPort(h, w, ports, expected);
        fuzz::check_untouched(&ports[expected], sizeof(port_info) * (8 - expected), kPattern, "vports past expected");
        break;
    }
    case 7: {
        uint8_t a[8], b[8], c[8], d[8];
        wwn_into(a), wwn_into(b), wwn_into(c), wwn_into(d);
        const bool given = next_byte() & 1;
        (void)mirvak_CreateDelNPIV(h, 0, next_byte() & 1, given ? a : nullptr, given ? b : nullptr, c, d);
        break;
    }
    case 8: {
        port_info p;
        fuzz::fill(&p, sizeof p, kPattern);
        const HBA_UINT32 lnode = next_byte() % 6;
        (void)mirvak_GetKXDiscoveredPortAttributes(h, lnode, next_byte() % 8, &p);
        break;
    }
    case 9: {
        port_info k = port_key();
        char* ports = static_cast<char*>(std::malloc(kBlock));
        char* stats = static_cast<char*>(std::malloc(kBlock));
        fuzz::fill(ports, kBlock, kPattern);
        unsigned int size = 0;
        const bool with_stats = next_byte() & 1;
        (void)mirvak_GetKXDiscoveredPortAttributes_by_wwpn(h, &k, &ports, &size, with_stats ? &stats : nullptr);
        std::free(ports);
        std::free(stats);
        break;
    }
    case 10: {
        uint8_t w[8];
        wwn_into(w);
        port_info* ports = nullptr;
        port_stats* stats = nullptr;
        unsigned int count = 0;
        (void)mirvak_GetAllRPortsForVPort(h, w, &ports, &count, &stats, next_byte() & 1);
        std::free(ports);
        std::free(stats);
        break;
    }
    case 11: {
        vport_in k = vport_key();
        int count = -1;
        if (mirvak_GetKXLunCount(h, &k, &count) == 0 && count >= 0 && count < 4096) {
            const std::size_t n = static_cast<std::size_t>(count) + 2;
            auto* luns = static_cast<lun_info*>(std::malloc(n * sizeof(lun_info)));
            fuzz::fill(luns, n * sizeof(lun_info), kPattern);
            (void)mirvak_GetKXLunInfo(h, &k, luns, nullptr);
            fuzz::check_untouched(&luns[count], 2 * sizeof(lun_info), kPattern, "LUNs past the count");
            std::free(luns);
        }
        break;
    }
    case 12: {
        uint8_t l[8], r[8];
        wwn_into(l), wwn_into(r);
        lun_info* luns = nullptr;
        unsigned int count = 0;
        (void)mirvak_GetKXVPortLunInfo_by_wwn(h, l, r, &luns, &count);
        std::free(luns);
        luns = nullptr;
        (void)mirvak_GetKXVPortLunInfo(h, 0, 0, 0, &luns, &count);
        std::free(luns);
        (void)mirvak_RefreshFCoESystem();
        break;
    }
    }
    mirvak_CloseAdapter(h);
}

void facade_request(MvFCoEIni& f, unsigned op) {
    switch (op) {
    case 0: {
        AgentBuffer b;
        (void)f.GetFCoEAdapters(b.p, &b.size);
        break;
    }
    case 1: {
        AgentBuffer b;
        char name[256];
        name_into(name);
        (void)f.GetFCoEAdapterStats(name, b.p, &b.size);
        break;
    }
    case 2:
    case 3:
    case 4: {
        port_info k = port_key();
        if (next_byte() % 2) std::memset(k.attributes.PortWWN.wwn, 0, 8);
        AgentBuffer b;
        if (op == 2) (void)f.GetAllPortsInfo(&k, b.p, &b.size);
        else if (op == 3) (void)f.GetPortInfo(&k, b.p, &b.size);
        else (void)f.GetPortStatistics(&k, b.p, &b.size);
        break;
    }
    case 5: {
        port_info k = port_key();
        if (next_byte() % 2) std::memset(k.attributes.PortWWN.wwn, 0, 8);
        char* block = static_cast<char*>(std::malloc(kBlock));
        fuzz::fill(block, kBlock, kPattern);
        unsigned int size = 0;
        (void)f.GetRemotePortInfo(&k, &block, &size);
        release(block);
        break;
    }
    case 6:
    case 7:
    case 8: {
        vport_in k = vport_key();
        if (next_byte() % 2) std::memset(k.rport_wwpn, 0, 8);
        AgentBuffer b;
        if (op == 6) (void)f.GetRemotePortStatistics(&k, b.p, &b.size);
        else if (op == 7) (void)f.GetVirRemotePortStatistics(&k, b.p, &b.size);
        else (void)f.GetVirPortStatistics(&k, b.p, &b.size);
        break;
    }
    case 9:
    case 10:
    case 11: {
        vport_in k = vport_key();
        if (next_byte() % 2) std::memset(k.rport_wwpn, 0, 8);
        char* block = nullptr;
        unsigned int size = 0;
        if (op == 9) (void)f.GetRPortForVPort(&k, &block, &size);
        else if (op == 10) (void)f.GetVPortLunInfo(&k, &block, &size);
        else (void)f.GetLunInfo(&k, &block, &size);
        release(block);
        break;
    }
    case 12: {
        port_info k = port_key();
        char* block = nullptr;
        unsigned int size = 0;
        (void)f.GetVirPortForPort(&k, &block, &size);
        release(block);
        break;
    }
    case 13: {
        uint8_t a[8], b[8], c[8], d[8];
        wwn_into(a), wwn_into(b), wwn_into(c), wwn_into(d);
        const std::string name = adapter_path();
        const bool given = next_byte() & 1;
        if (next_byte() & 1) (void)f.CreateNPIV(name.c_str(), given ? a : nullptr, given ? b : nullptr, c, d);
        else (void)f.DeleteNPIV(name.c_str(), given ? a : nullptr, given ? b : nullptr, c, d);
        break;
    }
    case 14: {
        unsigned int size = 0xA5A5A5A5u;
        void* all = f.GetFCoEAll(nullptr, &size);
        std::free(all);
        break;
    }
    case 15: {
        const int status = static_cast<int>(next_u32());
        (void)f.MapHBAStatusCodeToErrCode(status, static_cast<int8_t>(next_byte()) % 4);
        (void)f.RefreshFCoESystem();
        break;
    }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_stdout();
    fuzz::empty_host();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzzdrv::begin(data, size);
    const unsigned choice = next_byte();
    const unsigned face = choice % 3;
    if (face == 2) {
        MvFCoEIni facade;  // loads the library (and frees it at the end)
        facade_request(facade, (choice / 3) % 16);
    } else {
        mirvak_LoadLibrary();
        if (face == 0) standard_face((choice / 3) % 13);
        else extended((choice / 3) % 13);
        mirvak_FreeLibrary();
    }
    fuzzdrv::end();
    return 0;
}
