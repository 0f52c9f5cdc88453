#include "metrics.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include <prometheus/text_serializer.h>

#include "mirvak/mv_fcoe_ini.h"
#include "hex_text.h"
#include "port_names.h"
#include "records.h"

namespace mv::exporter {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

struct Definition {
    const char* name;
    MetricType type;
    const char* help;
};

// Every series the system gives, in the order they are shown.
constexpr Definition kDefinitions[] = {
    {"mirvak_adapter_up", MetricType::Gauge, "1 when the adapter and its ports could be read, else 0."},
    {"mirvak_adapter_result_code", MetricType::Gauge,
     "Result code of the adapter's last request (0 served; 286 the adapter could not be opened)."},
    {"mirvak_adapter_info", MetricType::Gauge, "The adapter's description; the value is always 1."},
    {"mirvak_adapter_ports", MetricType::Gauge, "Physical ports the adapter reports."},
    {"mirvak_port_info", MetricType::Gauge,
     "A physical port's description (state, speed and type in words, fabric, FCF, VLAN, MACs); always 1."},
    {"mirvak_port_up", MetricType::Gauge, "1 when the physical port answered its statistics request, else 0."},
    {"mirvak_port_result_code", MetricType::Gauge, "Result code of the physical port's statistics request."},
    {"mirvak_port_state", MetricType::Gauge, "The physical port's state code (2 online, 3 offline, 6 link down)."},
    {"mirvak_port_discovered_ports", MetricType::Gauge, "Remote ports the physical port has discovered."},
    {"mirvak_port_vports", MetricType::Gauge, "Virtual ports the physical port reports."},
    {"mirvak_port_tx_frames_total", MetricType::Counter, "Frames the physical port sent."},
    {"mirvak_port_tx_words_total", MetricType::Counter, "Words the physical port sent."},
    {"mirvak_port_rx_frames_total", MetricType::Counter, "Frames the physical port received."},
    {"mirvak_port_rx_words_total", MetricType::Counter, "Words the physical port received."},
    {"mirvak_port_driver_events_total", MetricType::Counter,
     "The driver's own counters of the physical port (counter0..counter7), as the driver counts them."},
    {"mirvak_vport_info", MetricType::Gauge,
     "A virtual port's description (state, speed and type in words, fabric, FCF, VLAN, MACs); always 1."},
    {"mirvak_vport_up", MetricType::Gauge, "1 when the virtual port answered its statistics request, else 0."},
    {"mirvak_vport_result_code", MetricType::Gauge, "Result code of the virtual port's statistics request."},
    {"mirvak_vport_state", MetricType::Gauge, "The virtual port's state code (2 online, 3 offline, 6 link down)."},
    {"mirvak_vport_driver_events_total", MetricType::Counter,
     "The driver's own counters of the virtual port (counter0..counter7), as the driver counts them."},
    {"mirvak_rport_info", MetricType::Gauge, "A remote port's description (role, state in words, node WWN); always 1."},
    {"mirvak_rport_up", MetricType::Gauge, "1 when the remote port answered its statistics request, else 0."},
    {"mirvak_rport_state", MetricType::Gauge, "The remote port's state code (2 online, 3 offline)."},
    {"mirvak_rport_driver_events_total", MetricType::Counter,
     "The driver's own counters of the remote port (counter0..counter3, rcounter0..rcounter3), as the driver "
     "counts them."},
    {"mirvak_lun_size_bytes", MetricType::Gauge, "Size of the LUN's block device in bytes."},
    {"mirvak_lun_info", MetricType::Gauge, "A LUN's block device, SCSI address and vendor; always 1."},
};

// Codes that say "nothing there", not a failure.
bool nothing_there(int code) {
    return code == FCOE_ERR_NO_PORTS || code == FCOE_ERR_NO_REMOTE_PORTS || code == FCOE_ERR_NO_LUNS;
}

using mv::tool::field_text;
#define TEXT(f) field_text((f), sizeof(f))

// "host3" out of "/sys/class/fc_host/host3"; "" when the port has none.
std::string fc_host_of(const char* os_device_name, std::size_t size) {
    const std::string path = field_text(os_device_name, size);
    const std::size_t slash = path.rfind('/');
    const std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    return last.rfind("host", 0) == 0 ? last : std::string();
}

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
template <class T>
using Malloced = std::unique_ptr<T, FreeDeleter>;

// The facade's keys, zeroed and named.
port_info port_key(const std::string& adapter, uint32_t port) {
    port_info k;
    std::memset(&k, 0, sizeof k);
    std::snprintf(k.adapter_name, sizeof k.adapter_name, "%s", adapter.c_str());
    k.port_num = port;
    return k;
}
vport_in vport_key(const std::string& adapter, uint32_t port, uint32_t rport, const uint8_t* local,
                   const uint8_t* remote) {
    vport_in k;
    std::memset(&k, 0, sizeof k);
    std::snprintf(k.adapter_name, sizeof k.adapter_name, "%s", adapter.c_str());
    k.port_num = static_cast<uint16_t>(port);
    k.rport_index = static_cast<uint16_t>(rport);
    if (local != nullptr) std::memcpy(k.vport_wwpn, local, sizeof k.vport_wwpn);
    if (remote != nullptr) std::memcpy(k.rport_wwpn, remote, sizeof k.rport_wwpn);
    return k;
}

class Collector {
public:
    Collector(MvFCoEIni& facade, const CollectOptions& options) : facade_(facade), options_(options) {
        for (const Definition& d : kDefinitions) {
            MetricFamily f;
            f.name = d.name;
            f.help = d.help;
            f.type = d.type;
            families_.push_back(std::move(f));
        }
    }

    Reading run() {
        Reading r;
        const auto start = std::chrono::steady_clock::now();
        const HBA_UINT32 count = mirvak_GetNumberOfAdapters();
        for (HBA_UINT32 i = 0; i < count; ++i) {
            char name[256] = {};
            if (mirvak_GetAdapterName(i, name) != HBA_STATUS_OK || name[0] == '\0') {
                success_ = false;
                continue;
            }
            ++r.adapters;
            adapter(field_text(name, sizeof name));
        }
        // Families without series are left out of the exposition.
        for (MetricFamily& f : families_)
            if (!f.metric.empty()) r.families.push_back(std::move(f));
        r.results = std::move(results_);
        r.success = success_;
        r.duration = std::chrono::steady_clock::now() - start;
        return r;
    }

private:
    void add(const char* name, const Labels& labels, double value) {
        for (MetricFamily& f : families_) {
            if (f.name != name) continue;
            ClientMetric m;
            m.label = labels;
            if (f.type == MetricType::Counter) {
                m.counter.value = value;
            } else {
                m.gauge.value = value;
            }
            f.metric.push_back(std::move(m));
            return;
        }
    }

    int note(int code) {
        ++results_[code];
        return code;
    }

    void adapter(const std::string& name) {
        const Labels labels = {{"adapter", name}};
        adapter_info info;
        unsigned int size = 0;
        int rc = note(facade_.GetFCoEAdapterStats(name.c_str(), &info, &size));
        bool up = rc == FCOE_OK;
        if (rc == FCOE_OK) {
            const HBA_ADAPTERATTRIBUTES a = info.attributes;
            add("mirvak_adapter_info",
                {{"adapter", name},
                 {"manufacturer", TEXT(a.Manufacturer)},
                 {"model", TEXT(a.Model)},
                 {"serial_number", TEXT(a.SerialNumber)},
                 {"firmware_version", TEXT(a.FirmwareVersion)},
                 {"driver_version", TEXT(a.DriverVersion)},
                 {"node_wwn", wwn_label(a.NodeWWN.wwn)}},
                1);
            add("mirvak_adapter_ports", labels, a.NumberOfPorts);
            rc = ports(name, a.NumberOfPorts);
            up = rc == FCOE_OK || nothing_there(rc);
        }
        if (!up) success_ = false;
        add("mirvak_adapter_up", labels, up ? 1 : 0);
        add("mirvak_adapter_result_code", labels, rc);
    }

    // The adapter's ports; the result of listing them.
    int ports(const std::string& adapter, HBA_UINT32 reported) {
        // The facade writes one record per port without a size check: room
        // for the most ports the driver's 8-bit count can give.
        const std::size_t room = std::max<std::size_t>(reported, 256);
        Malloced<port_info> list(static_cast<port_info*>(std::calloc(room, sizeof(port_info))));
        if (!list) return FCOE_ERR_NO_MEMORY;
        port_info key = port_key(adapter, 0);
        unsigned int size = 0;
        // Every port, each with its own standard attributes (state, speed,
        // OS device name) read one by one.
        const int rc = note(facade_.GetPortInfo(&key, list.get(), &size));
        if (rc != FCOE_OK) return rc;
        const std::size_t n = std::min<std::size_t>(size / sizeof(port_info), room);
        for (std::size_t i = 0; i < n; ++i) port(adapter, list.get()[i]);
        return FCOE_OK;
    }

    // Description labels shared by physical and virtual ports: named and
    // worded as mirvak-hba's records name them (view/records.h), WWNs in the
    // exporter's 0x form.
    static Labels described(Labels labels, const port_info& p) {
        const nlohmann::json j = mv::tool::port_info_json(p, mv::tool::PortKind::Local);
        for (const char* key : {"state_name", "speed_name", "type_name"})
            labels.push_back({key, j[key].get<std::string>()});
        const HBA_PORTATTRIBUTES a = p.attributes;
        labels.push_back({"fabric_name", wwn_label(a.FabricName.wwn)});
        const nlohmann::json& f = j["fcoe"];
        for (const char* key : {"fcf_index", "vlan_id", "port_mac", "lnode_mac"})
            labels.push_back({key, mv::tool::value_text(f[key])});
        return labels;
    }

    void local_counters(const char* name, const Labels& labels, const port_stats& s) {
        const uint32_t c[8] = {s.counter0, s.counter1, s.counter2, s.counter3,
                               s.counter4, s.counter5, s.counter6, s.counter7};
        for (int k = 0; k < 8; ++k) {
            Labels l = labels;
            l.push_back({"counter", "counter" + std::to_string(k)});
            add(name, l, c[k]);
        }
    }

    void port(const std::string& adapter, const port_info& p) {
        const HBA_PORTATTRIBUTES a = p.attributes;
        const uint32_t index = p.port_num;
        const Labels labels = {{"adapter", adapter},
                               {"port", std::to_string(index)},
                               {"wwpn", wwn_label(a.PortWWN.wwn)},
                               {"fc_host", fc_host_of(a.OSDeviceName, sizeof a.OSDeviceName)}};
        add("mirvak_port_info", described(labels, p), 1);
        add("mirvak_port_state", labels, a.PortState);
        add("mirvak_port_discovered_ports", labels, a.NumberofDiscoveredPorts);
        const uint32_t vports = p.lnode_word_28;
        add("mirvak_port_vports", labels, vports);

        port_info key = p;
        port_stats s;
        std::memset(&s, 0, sizeof s);
        unsigned int size = 0;
        const int rc = note(facade_.GetPortStatistics(&key, &s, &size));
        add("mirvak_port_up", labels, rc == FCOE_OK ? 1 : 0);
        add("mirvak_port_result_code", labels, rc);
        if (rc == FCOE_OK) {
            const HBA_PORTSTATISTICS h = s.hba_stats;
            add("mirvak_port_tx_frames_total", labels, static_cast<double>(h.TxFrames));
            add("mirvak_port_tx_words_total", labels, static_cast<double>(h.TxWords));
            add("mirvak_port_rx_frames_total", labels, static_cast<double>(h.RxFrames));
            add("mirvak_port_rx_words_total", labels, static_cast<double>(h.RxWords));
            local_counters("mirvak_port_driver_events_total", labels, s);
        }
        // Asked whatever the standard count says: it can read 0 for a port
        // whose driver list holds a stale entry beside the live one.
        port_remotes(adapter, index, a.PortWWN.wwn, labels);
        if (vports != 0 && p.lnode_flag == 0) virtual_ports(adapter, index, labels);
    }

    // One remote port (of a physical or a virtual port): its description,
    // statistics and LUNs. `statistics` is the result of its statistics
    // request.
    void remote(const std::string& adapter, uint32_t port, uint32_t index, const uint8_t* local,
                const port_info& r, const Labels& parent, bool through_vport) {
        const HBA_PORTATTRIBUTES a = r.attributes;
        Labels labels = parent;
        labels.push_back({"rport_wwpn", wwn_label(a.PortWWN.wwn)});
        Labels info = labels;
        info.push_back({"role", TEXT(r.role)});
        info.push_back({"state_name", mv::tool::port_state_name(a.PortState)});
        info.push_back({"node_wwn", wwn_label(a.NodeWWN.wwn)});
        add("mirvak_rport_info", info, 1);
        add("mirvak_rport_state", labels, a.PortState);

        vport_in key = vport_key(adapter, port, index, local, a.PortWWN.wwn);
        port_stats s;
        std::memset(&s, 0, sizeof s);
        unsigned int size = 0;
        const int rc = note(through_vport ? facade_.GetVirRemotePortStatistics(&key, &s, &size)
                                          : facade_.GetRemotePortStatistics(&key, &s, &size));
        add("mirvak_rport_up", labels, rc == FCOE_OK ? 1 : 0);
        if (rc == FCOE_OK) {
            const uint32_t c[8] = {s.counter0, s.counter1, s.counter2, s.counter3,
                                   s.rcounter0, s.rcounter1, s.rcounter2, s.rcounter3};
            static const char* const kNames[8] = {"counter0",  "counter1",  "counter2",  "counter3",
                                                  "rcounter0", "rcounter1", "rcounter2", "rcounter3"};
            for (int k = 0; k < 8; ++k) {
                Labels l = labels;
                l.push_back({"counter", kNames[k]});
                add("mirvak_rport_driver_events_total", l, c[k]);
            }
        }
        if (options_.luns) luns(key, labels, through_vport);
    }

    void luns(vport_in& key, const Labels& parent, bool through_vport) {
        char* block = nullptr;
        unsigned int size = 0;
        const int rc =
            note(through_vport ? facade_.GetVPortLunInfo(&key, &block, &size) : facade_.GetLunInfo(&key, &block, &size));
        Malloced<char> owned(block);
        if (rc != FCOE_OK || block == nullptr) return;
        const std::size_t n = size / sizeof(lun_info);
        for (std::size_t i = 0; i < n; ++i) {
            lun_info l;
            std::memcpy(&l, block + i * sizeof(lun_info), sizeof l);
            Labels labels = parent;
            labels.push_back({"lun", std::to_string(i)});
            labels.push_back({"device", field_text(l.device, sizeof l.device - 256)});
            add("mirvak_lun_size_bytes", labels, static_cast<double>(l.size) * 512.0);
            labels.push_back({"hctl", TEXT(l.hctl)});
            labels.push_back({"vendor", TEXT(l.vendor)});
            add("mirvak_lun_info", labels, 1);
        }
    }

    void port_remotes(const std::string& adapter, uint32_t port, const uint8_t* wwpn, const Labels& labels) {
        // By the port's WWPN the facade writes into the block given, taken
        // to hold 256 KiB, and grows it with realloc when the answer needs
        // more.
        port_info key = port_key(adapter, port);
        std::memcpy(key.attributes.PortWWN.wwn, wwpn, 8);
        constexpr std::size_t kAgentBlock = 0x40000;
        char* block = static_cast<char*>(std::malloc(kAgentBlock));
        if (block == nullptr) {
            note(FCOE_ERR_NO_MEMORY);
            return;
        }
        unsigned int size = 0;
        const int rc = note(facade_.GetRemotePortInfo(&key, &block, &size));
        Malloced<char> owned(block);
        if (rc != FCOE_OK) return;
        const std::size_t n = size / sizeof(port_info);
        for (std::size_t j = 0; j < n; ++j) {
            port_info r;
            std::memcpy(&r, block + j * sizeof(port_info), sizeof r);
            remote(adapter, port, static_cast<uint32_t>(j), wwpn, r, labels, false);
        }
    }

    void virtual_ports(const std::string& adapter, uint32_t port, const Labels& parent) {
        port_info key = port_key(adapter, port);
        char* block = nullptr;
        unsigned int size = 0;
        const int rc = note(facade_.GetVirPortForPort(&key, &block, &size));
        Malloced<char> owned(block);
        // The facade hands over the list with the listing's own status,
        // which may be non-zero; the list is what it found.
        if (block == nullptr) return;
        (void)rc;
        const std::size_t n = size / sizeof(port_info);
        for (std::size_t v = 0; v < n; ++v) {
            port_info vp;
            std::memcpy(&vp, block + v * sizeof(port_info), sizeof vp);
            virtual_port(adapter, port, vp, parent);
        }
    }

    void virtual_port(const std::string& adapter, uint32_t port, const port_info& vp, const Labels& parent) {
        const HBA_PORTATTRIBUTES a = vp.attributes;
        uint8_t wwpn[8];
        std::memcpy(wwpn, a.PortWWN.wwn, sizeof wwpn);
        Labels labels = parent;
        labels.push_back({"vport_wwpn", wwn_label(wwpn)});
        add("mirvak_vport_info", described(labels, vp), 1);
        add("mirvak_vport_state", labels, a.PortState);

        vport_in key = vport_key(adapter, port, 0, wwpn, nullptr);
        port_stats s;
        std::memset(&s, 0, sizeof s);
        unsigned int size = 0;
        const int rc = note(facade_.GetVirPortStatistics(&key, &s, &size));
        add("mirvak_vport_up", labels, rc == FCOE_OK ? 1 : 0);
        add("mirvak_vport_result_code", labels, rc);
        if (rc == FCOE_OK) local_counters("mirvak_vport_driver_events_total", labels, s);

        char* block = nullptr;
        unsigned int bytes = 0;
        const int listed = note(facade_.GetRPortForVPort(&key, &block, &bytes));
        Malloced<char> owned(block);
        if (listed != FCOE_OK || block == nullptr) return;
        const std::size_t n = bytes / sizeof(port_info);
        for (std::size_t j = 0; j < n; ++j) {
            port_info r;
            std::memcpy(&r, block + j * sizeof(port_info), sizeof r);
            remote(adapter, port, static_cast<uint32_t>(j), wwpn, r, labels, true);
        }
    }

    MvFCoEIni& facade_;
    const CollectOptions& options_;
    std::vector<MetricFamily> families_;
    std::map<int, uint64_t> results_;
    bool success_ = true;
};

MetricFamily family(const char* name, MetricType type, const char* help) {
    MetricFamily f;
    f.name = name;
    f.type = type;
    f.help = help;
    return f;
}

ClientMetric gauge(double v, Labels labels = {}) {
    ClientMetric m;
    m.label = std::move(labels);
    m.gauge.value = v;
    return m;
}

}  // namespace

std::string wwn_label(const uint8_t* wwn) { return "0x" + mv::tool::hex_bytes(wwn, 8, '\0'); }

Reading collect_system(MvFCoEIni& facade, const CollectOptions& options) {
    return Collector(facade, options).run();
}

void add_own_series(std::vector<MetricFamily>& out, const Reading& reading,
                    const std::map<int, uint64_t>& results_total) {
    MetricFamily duration = family("mirvak_exporter_scrape_duration_seconds", MetricType::Gauge,
                                   "Seconds the last reading of the system took.");
    duration.metric.push_back(gauge(reading.duration.count()));
    out.push_back(std::move(duration));
    MetricFamily success = family("mirvak_exporter_last_scrape_success", MetricType::Gauge,
                                  "1 when every adapter of the last reading could be read, else 0.");
    success.metric.push_back(gauge(reading.success ? 1 : 0));
    out.push_back(std::move(success));
    MetricFamily adapters =
        family("mirvak_exporter_adapters", MetricType::Gauge, "Adapters the library named in the last reading.");
    adapters.metric.push_back(gauge(reading.adapters));
    out.push_back(std::move(adapters));
    MetricFamily results = family("mirvak_exporter_library_results_total", MetricType::Counter,
                                  "Requests to the library, by the result code they answered.");
    for (const auto& [code, n] : results_total) {
        ClientMetric m;
        m.label = {{"code", std::to_string(code)}};
        m.counter.value = static_cast<double>(n);
        results.metric.push_back(std::move(m));
    }
    if (!results.metric.empty()) out.push_back(std::move(results));
}

std::string exposition(const std::vector<MetricFamily>& families) {
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, families);
    return out.str();
}

}  // namespace mv::exporter
