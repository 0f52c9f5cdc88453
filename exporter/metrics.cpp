#include "metrics.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>

#include <prometheus/text_serializer.h>

#include "mirvak/mv_fcoe_ini.h"
#include "mirvak/snapshot_records.h"
#include "facade/keys.h"
#include "hex_text.h"
#include "port_names.h"
#include "records.h"
#include "snapshot_decode.h"

namespace mv::exporter {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;
using mv::snapshot::adapter_record;
using mv::snapshot::lun_record;
using mv::snapshot::port_record;
using mv::snapshot::remote_record;

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

// Above this many discovered ports, a port with virtual ports makes the
// whole-system snapshot pause five seconds before its remote ports.
constexpr HBA_UINT32 kSnapshotPausesAbove = 35;

bool all_zero(const uint8_t* p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

template <class T>
T load(const uint8_t* area) {
    T v;
    std::memcpy(&v, area, sizeof v);
    return v;
}

// One GetFCoEAll answer: its bytes and the decoder's tree over them. The
// tree gives the structure (which record is whose, counts checked against
// the bytes); the values are read from the records at the offsets it names.
class Snapshot {
public:
    // Takes the snapshot; empty when the library gave none or the stream
    // does not decode.
    explicit Snapshot(MvFCoEIni& facade) {
        unsigned int size = 0;
        bytes_.reset(static_cast<unsigned char*>(facade.GetFCoEAll(nullptr, &size)));
        if (!bytes_) return;
        try {
            tree_ = mv::tool::decode_snapshot(bytes_.get(), size, mv::tool::SnapshotDetail::Layout);
        } catch (const mv::tool::DecodeError&) {
            bytes_.reset();
            return;
        }
        for (const nlohmann::json& a : tree_["adapters"]) {
            if (a["repeat"].get<bool>()) continue;
            const auto rec = record<adapter_record>(a);
            const auto info = load<adapter_info>(rec.info);
            adapters_[field_text(info.adapter_name, sizeof info.adapter_name)] = &a;
        }
    }
    Snapshot() = default;

    // The port record node of this adapter's port, or null.
    const nlohmann::json* port(const std::string& adapter, uint32_t index) const {
        const auto it = adapters_.find(adapter);
        if (it == adapters_.end()) return nullptr;
        for (const nlohmann::json& p : (*it->second)["ports"])
            if (p["index"].get<uint32_t>() == index) return &p;
        return nullptr;
    }

    // The record a node of the tree stands for (the decoder checked that it
    // lies whole inside the stream).
    template <class R>
    R record(const nlohmann::json& node) const {
        return load<R>(bytes_.get() + node["offset"].get<std::size_t>());
    }

private:
    Malloced<unsigned char> bytes_;
    nlohmann::json tree_;
    std::map<std::string, const nlohmann::json*> adapters_;
};

// What the per-adapter requests answered.
struct AdapterRead {
    std::string name;
    int rc = FCOE_OK;         // the adapter request's result, then the port listing's
    bool described = false;   // the adapter request answered
    HBA_ADAPTERATTRIBUTES attributes{};
    std::vector<port_info> ports;
};

class SystemReading {
public:
    SystemReading(MvFCoEIni& facade, const CollectOptions& options) : facade_(facade), options_(options) {
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
        std::vector<AdapterRead> adapters;
        for (HBA_UINT32 i = 0; i < count; ++i) {
            char name[256] = {};
            if (mirvak_GetAdapterName(i, name) != HBA_STATUS_OK || name[0] == '\0') {
                success_ = false;
                continue;
            }
            ++r.adapters;
            adapters.push_back(read_adapter(field_text(name, sizeof name)));
        }
        // The adapters and their port lists come first (their requests give
        // the result codes the snapshot does not keep); then one snapshot
        // gives the rest, unless it would pause.
        Snapshot none;
        std::unique_ptr<Snapshot> snap;
        if (options_.snapshot && !snapshot_pauses(adapters)) {
            snap = std::make_unique<Snapshot>(facade_);
            if (options_.progress) options_.progress();
        }
        for (const AdapterRead& a : adapters) adapter(a, snap ? *snap : none);
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
        if (options_.progress) options_.progress();
        return code;
    }

    // The snapshot pauses five seconds at every port with more than 35
    // discovered ports and a virtual port (on purpose; agents rely on it):
    // a system with such a port is read object by object instead.
    static bool snapshot_pauses(const std::vector<AdapterRead>& adapters) {
        for (const AdapterRead& a : adapters)
            for (const port_info& p : a.ports) {
                const HBA_PORTATTRIBUTES attr = p.attributes;
                const uint32_t vports = p.lnode_word_28;
                if (attr.NumberofDiscoveredPorts > kSnapshotPausesAbove && vports != 0) return true;
            }
        return false;
    }

    AdapterRead read_adapter(const std::string& name) {
        AdapterRead a;
        a.name = name;
        adapter_info info;
        unsigned int size = 0;
        a.rc = note(facade_.GetFCoEAdapterStats(name.c_str(), &info, &size));
        if (a.rc != FCOE_OK) return a;
        a.described = true;
        a.attributes = info.attributes;
        a.rc = list_ports(name, a.attributes.NumberOfPorts, a.ports);
        return a;
    }

    // The adapter's ports; the result of listing them.
    int list_ports(const std::string& adapter, HBA_UINT32 reported, std::vector<port_info>& out) {
        // The facade writes one record per port without a size check: room
        // for the most ports the driver's 8-bit count can give.
        const std::size_t room = std::max<std::size_t>(reported, 256);
        Malloced<port_info> list(static_cast<port_info*>(std::calloc(room, sizeof(port_info))));
        if (!list) return FCOE_ERR_NO_MEMORY;
        port_info key = mv::facade::port_key(adapter, 0);
        unsigned int size = 0;
        // Every port, each with its own standard attributes (state, speed,
        // OS device name) read one by one.
        const int rc = note(facade_.GetPortInfo(&key, list.get(), &size));
        if (rc != FCOE_OK) return rc;
        const std::size_t n = std::min<std::size_t>(size / sizeof(port_info), room);
        out.assign(list.get(), list.get() + n);
        return FCOE_OK;
    }

    void adapter(const AdapterRead& a, const Snapshot& snap) {
        const Labels labels = {{"adapter", a.name}};
        bool up = a.rc == FCOE_OK;
        if (a.described) {
            const HBA_ADAPTERATTRIBUTES& x = a.attributes;
            add("mirvak_adapter_info",
                {{"adapter", a.name},
                 {"manufacturer", TEXT(x.Manufacturer)},
                 {"model", TEXT(x.Model)},
                 {"serial_number", TEXT(x.SerialNumber)},
                 {"firmware_version", TEXT(x.FirmwareVersion)},
                 {"driver_version", TEXT(x.DriverVersion)},
                 {"node_wwn", wwn_label(x.NodeWWN.wwn)}},
                1);
            add("mirvak_adapter_ports", labels, x.NumberOfPorts);
            up = a.rc == FCOE_OK || nothing_there(a.rc);
            for (const port_info& p : a.ports) port(a.name, p, snap.port(a.name, p.port_num), snap);
        }
        if (!up) success_ = false;
        add("mirvak_adapter_up", labels, up ? 1 : 0);
        add("mirvak_adapter_result_code", labels, a.rc);
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

    void port_statistics(const Labels& labels, int rc, const port_stats& s) {
        add("mirvak_port_up", labels, rc == FCOE_OK ? 1 : 0);
        add("mirvak_port_result_code", labels, rc);
        if (rc != FCOE_OK) return;
        const HBA_PORTSTATISTICS h = s.hba_stats;
        add("mirvak_port_tx_frames_total", labels, static_cast<double>(h.TxFrames));
        add("mirvak_port_tx_words_total", labels, static_cast<double>(h.TxWords));
        add("mirvak_port_rx_frames_total", labels, static_cast<double>(h.RxFrames));
        add("mirvak_port_rx_words_total", labels, static_cast<double>(h.RxWords));
        local_counters("mirvak_port_driver_events_total", labels, s);
    }

    // One physical port, from its snapshot record (`node`) where that holds
    // what the per-object requests would answer, else asked on its own.
    void port(const std::string& adapter, const port_info& p, const nlohmann::json* node, const Snapshot& snap) {
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

        // The snapshot leaves a port's statistics zero, and counts neither
        // remote nor virtual ports, when the statistics could not be had; a
        // record like that may also be a port whose counters are all zero:
        // it is asked on its own (the statistics request gives the result
        // code that says why).
        const port_record rec = node != nullptr ? snap.record<port_record>(*node) : port_record{};
        const bool from_snapshot = node != nullptr && (!all_zero(rec.stats, sizeof rec.stats) ||
                                                       rec.remote_count != 0 || rec.vport_count != 0);
        port_stats s;
        std::memset(&s, 0, sizeof s);
        int rc = FCOE_OK;
        if (from_snapshot) {
            s = load<port_stats>(rec.stats);
        } else {
            port_info key = p;
            unsigned int size = 0;
            rc = note(facade_.GetPortStatistics(&key, &s, &size));
        }
        port_statistics(labels, rc, s);
        // The snapshot asks for remote ports only when the standard count
        // is not 0; it can read 0 for a port whose driver list holds a stale
        // entry beside the live one, so such a port is asked on its own.
        if (from_snapshot && a.NumberofDiscoveredPorts != 0 && !(*node)["remote_ports"].empty()) {
            snapshot_remotes(adapter, index, a.PortWWN.wwn, labels, (*node)["remote_ports"], snap);
        } else {
            port_remotes(adapter, index, a.PortWWN.wwn, labels);
        }
        if (vports == 0 || p.lnode_flag != 0) return;
        // For a physical port that is offline or down the snapshot clears
        // its virtual ports' descriptions (the listing keeps their own
        // fields), and a listing that failed leaves one cleared record.
        const bool down = a.PortState == HBA_PORTSTATE_OFFLINE || a.PortState == HBA_PORTSTATE_LINKDOWN;
        if (from_snapshot && !down && (*node)["virtual_ports_listed"].get<bool>()) {
            for (const nlohmann::json& v : (*node)["virtual_ports"]) snapshot_vport(adapter, index, v, labels, snap);
        } else {
            virtual_ports(adapter, index, labels);
        }
    }

    // The remote ports of a physical port as the snapshot gives them.
    void snapshot_remotes(const std::string& adapter, uint32_t port, const uint8_t* wwpn, const Labels& labels,
                          const nlohmann::json& remotes, const Snapshot& snap) {
        std::set<std::string> seen;
        uint32_t j = 0;
        for (const nlohmann::json& node : remotes) {
            const remote_record rec = snap.record<remote_record>(node);
            const auto r = load<port_info>(rec.info);
            const auto s = load<port_stats>(rec.stats);
            const HBA_PORTATTRIBUTES a = r.attributes;
            // Statistics by the remote port's WWPN give the first remote port
            // with that WWPN, and those of a remote port that is gone, where
            // the snapshot has zeros: such ones are asked on their own.
            const bool first = seen.insert(wwn_label(a.PortWWN.wwn)).second;
            const bool own = first && a.PortState == HBA_PORTSTATE_ONLINE;
            remote(adapter, port, j++, wwpn, r, labels, false, own ? &s : nullptr, &node["luns"], snap);
        }
    }

    // One remote port (of a physical or a virtual port): its description,
    // statistics and LUNs. `stats` are its statistics when already read;
    // `luns` its LUN records in the snapshot, if it came from there.
    void remote(const std::string& adapter, uint32_t port, uint32_t index, const uint8_t* local,
                const port_info& r, const Labels& parent, bool through_vport, const port_stats* stats,
                const nlohmann::json* luns_node, const Snapshot& snap) {
        const HBA_PORTATTRIBUTES a = r.attributes;
        Labels labels = parent;
        labels.push_back({"rport_wwpn", wwn_label(a.PortWWN.wwn)});
        Labels info = labels;
        info.push_back({"role", TEXT(r.role)});
        info.push_back({"state_name", mv::tool::port_state_name(a.PortState)});
        info.push_back({"node_wwn", wwn_label(a.NodeWWN.wwn)});
        add("mirvak_rport_info", info, 1);
        add("mirvak_rport_state", labels, a.PortState);

        vport_in key = mv::facade::vport_key(adapter, port, 0, index, local, a.PortWWN.wwn);
        port_stats s;
        std::memset(&s, 0, sizeof s);
        int rc = FCOE_OK;
        if (stats != nullptr) {
            s = *stats;
        } else {
            unsigned int size = 0;
            rc = note(through_vport ? facade_.GetVirRemotePortStatistics(&key, &s, &size)
                                    : facade_.GetRemotePortStatistics(&key, &s, &size));
        }
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
        if (!options_.luns) return;
        // A virtual port's remote port: the snapshot asks the very request
        // the per-object one makes and keeps what it answers, none included.
        // A physical port's: the snapshot drops an answer without a single
        // filled record that the LUN request hands over, so one without
        // LUNs there is asked on its own.
        if (luns_node != nullptr && (through_vport || !luns_node->empty())) {
            std::size_t i = 0;
            for (const nlohmann::json& l : *luns_node)
                lun(labels, i++, load<lun_info>(snap.record<lun_record>(l).lun));
        } else {
            luns(key, labels, through_vport);
        }
    }

    void lun(const Labels& parent, std::size_t index, const lun_info& l) {
        Labels labels = parent;
        labels.push_back({"lun", std::to_string(index)});
        // The device field's second half holds the adapter name in the
        // snapshot's records and nothing in the LUN request's.
        labels.push_back({"device", field_text(l.device, sizeof l.device - 256)});
        add("mirvak_lun_size_bytes", labels, static_cast<double>(l.size) * 512.0);
        labels.push_back({"hctl", TEXT(l.hctl)});
        labels.push_back({"vendor", TEXT(l.vendor)});
        add("mirvak_lun_info", labels, 1);
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
            lun(parent, i, l);
        }
    }

    void port_remotes(const std::string& adapter, uint32_t port, const uint8_t* wwpn, const Labels& labels) {
        // By the port's WWPN the facade writes into the block given, taken
        // to hold 256 KiB, and grows it with realloc when the answer needs
        // more.
        port_info key = mv::facade::port_key(adapter, port);
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
        const Snapshot none;
        for (std::size_t j = 0; j < n; ++j) {
            port_info r;
            std::memcpy(&r, block + j * sizeof(port_info), sizeof r);
            remote(adapter, port, static_cast<uint32_t>(j), wwpn, r, labels, false, nullptr, nullptr, none);
        }
    }

    void virtual_ports(const std::string& adapter, uint32_t port, const Labels& parent) {
        port_info key = mv::facade::port_key(adapter, port);
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

    // A virtual port's description series; its labels.
    Labels vport_head(const port_info& vp, const Labels& parent) {
        const HBA_PORTATTRIBUTES a = vp.attributes;
        Labels labels = parent;
        labels.push_back({"vport_wwpn", wwn_label(a.PortWWN.wwn)});
        add("mirvak_vport_info", described(labels, vp), 1);
        add("mirvak_vport_state", labels, a.PortState);
        return labels;
    }

    void vport_statistics(const Labels& labels, int rc, const port_stats& s) {
        add("mirvak_vport_up", labels, rc == FCOE_OK ? 1 : 0);
        add("mirvak_vport_result_code", labels, rc);
        if (rc == FCOE_OK) local_counters("mirvak_vport_driver_events_total", labels, s);
    }

    void virtual_port(const std::string& adapter, uint32_t port, const port_info& vp, const Labels& parent) {
        uint8_t wwpn[8];
        std::memcpy(wwpn, vp.attributes.PortWWN.wwn, sizeof wwpn);
        const Labels labels = vport_head(vp, parent);

        vport_in key = mv::facade::vport_key(adapter, port, 0, 0, wwpn);
        port_stats s;
        std::memset(&s, 0, sizeof s);
        unsigned int size = 0;
        const int rc = note(facade_.GetVirPortStatistics(&key, &s, &size));
        vport_statistics(labels, rc, s);

        char* block = nullptr;
        unsigned int bytes = 0;
        const int listed = note(facade_.GetRPortForVPort(&key, &block, &bytes));
        Malloced<char> owned(block);
        if (listed != FCOE_OK || block == nullptr) return;
        const std::size_t n = bytes / sizeof(port_info);
        const Snapshot none;
        for (std::size_t j = 0; j < n; ++j) {
            port_info r;
            std::memcpy(&r, block + j * sizeof(port_info), sizeof r);
            remote(adapter, port, static_cast<uint32_t>(j), wwpn, r, labels, true, nullptr, nullptr, none);
        }
    }

    // A virtual port from its snapshot record. The snapshot leaves out a
    // virtual port's remote ports when its statistics could not be had, and
    // cannot tell that from one without remote ports: such a one is asked
    // on its own. The remote ports' statistics are always asked: the
    // snapshot's listing clears their counter1 (the library's rule for that
    // listing), which the statistics request gives.
    void snapshot_vport(const std::string& adapter, uint32_t port, const nlohmann::json& node, const Labels& parent,
                        const Snapshot& snap) {
        const remote_record rec = snap.record<remote_record>(node);
        const auto vp = load<port_info>(rec.info);
        if (node["remote_ports"].empty()) {
            virtual_port(adapter, port, vp, parent);
            return;
        }
        uint8_t wwpn[8];
        std::memcpy(wwpn, vp.attributes.PortWWN.wwn, sizeof wwpn);
        const Labels labels = vport_head(vp, parent);
        vport_statistics(labels, FCOE_OK, load<port_stats>(rec.stats));
        uint32_t j = 0;
        for (const nlohmann::json& r : node["remote_ports"]) {
            const auto info = load<port_info>(snap.record<remote_record>(r).info);
            remote(adapter, port, j++, wwpn, info, labels, true, nullptr, &r["luns"], snap);
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
    return SystemReading(facade, options).run();
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
