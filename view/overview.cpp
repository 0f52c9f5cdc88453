#include "view/overview.h"

#include <cstdint>
#include <functional>
#include <sstream>

#include "mirvak/hba_plugin.h"
#include "view/port_names.h"

using nlohmann::json;

namespace mv::tool {

namespace {

constexpr const char* kNoWwn = "00:00:00:00:00:00:00:00";

std::string str(const json& j, const char* key) {
    const auto it = j.find(key);
    if (it == j.end()) return "";
    return it->is_string() ? it->get<std::string>() : it->dump();
}

uint64_t num(const json& j, const char* key) {
    const auto it = j.find(key);
    if (it == j.end() || !it->is_number_integer()) return 0;
    if (it->is_number_unsigned()) return it->get<uint64_t>();
    return it->get<int64_t>() < 0 ? 0 : static_cast<uint64_t>(it->get<int64_t>());
}

std::string plural(uint64_t n, const std::string& one, const std::string& many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string pad(std::string s, std::size_t width) {
    if (s.size() < width) s.append(width - s.size(), ' ');
    return s;
}

bool vanished(const json& port) { return str(port, "port_wwn") == kNoWwn; }
bool down(const json& port) {
    const uint64_t state = num(port, "state");
    return state != HBA_PORTSTATE_ONLINE;
}

std::string speed_words(const json& port) {
    return num(port, "speed") == 0 ? "speed unknown" : str(port, "speed_name");
}

// "host0" of "/sys/class/fc_host/host0".
std::string host_of(const json& port) {
    const std::string dev = str(port, "os_device_name");
    const std::size_t slash = dev.rfind('/');
    return slash == std::string::npos ? dev : dev.substr(slash + 1);
}

// Totals of the tree.
struct Totals {
    uint64_t adapters = 0, ports = 0, vports = 0, remotes = 0, luns = 0;
    void remote(const json& r) {
        ++remotes;
        luns += r.value("luns", json::array()).size();
    }
};

Totals count(const json& tree) {
    Totals t;
    for (const json& a : tree.value("adapters", json::array())) {
        if (a.value("repeat", false)) continue;
        ++t.adapters;
        for (const json& p : a.value("ports", json::array())) {
            ++t.ports;
            for (const json& r : p.value("remote_ports", json::array())) t.remote(r);
            for (const json& v : p.value("virtual_ports", json::array())) {
                ++t.vports;
                for (const json& r : v.value("remote_ports", json::array())) t.remote(r);
            }
        }
    }
    return t;
}

class Writer {
public:
    void line(int depth, const std::string& s) { out_ << std::string(static_cast<std::size_t>(depth) * 2, ' ') << s << '\n'; }

    // Each entry of a list, the first kOverviewListed of a long one and a
    // count of the rest.
    void list(int depth, const json& items, const std::string& many, const std::function<void(const json&)>& each) {
        std::size_t shown = 0;
        for (const json& item : items) {
            if (shown == kOverviewListed) {
                line(depth, "... " + plural(items.size() - shown, "more " + many.substr(0, many.size() - 1),
                                            "more " + many));
                return;
            }
            each(item);
            ++shown;
        }
    }

    std::string text() const { return out_.str(); }

private:
    std::ostringstream out_;
};

std::string lun_line(const json& l) {
    return "LUN " + pad(str(l, "hctl"), 10) + " " + pad(str(l, "device"), 9) + " " + pad(str(l, "vendor"), 9) + " " +
           str(l, "size_name");
}

void remote_lines(Writer& w, int depth, const json& r) {
    std::string s = "Remote port " + str(r, "index") + "  ";
    if (vanished(r)) {
        s += pad("(vanished: listed without WWN)", 23);
    } else {
        s += str(r, "port_wwn") + "  " + pad(str(r, "state_name"), 9);
        if (!str(r, "role").empty()) s += "  " + str(r, "role");
    }
    s += "  " + plural(num(r, "lun_count"), "LUN", "LUNs");
    w.line(depth, s);
    w.list(depth + 1, r.value("luns", json::array()), "LUNs", [&](const json& l) { w.line(depth + 1, lun_line(l)); });
}

// What a physical or virtual port line says after its WWN.
std::string local_words(const json& p) {
    std::string s = pad(str(p, "state_name"), 9) + "  " + speed_words(p);
    if (p.contains("fcoe")) {
        const json& f = p["fcoe"];
        s += "  VLAN " + str(f, "vlan_id") + "  FCF " + str(f, "fcf_index");
        if (f.value("port_error", false)) s += "  port error";
    }
    const std::string host = host_of(p);
    if (!host.empty()) s += "  " + host;
    return s;
}

void port_lines(Writer& w, const json& p) {
    w.line(1, "Port " + str(p, "index") + "  " + str(p, "port_wwn") + "  " + local_words(p));
    w.list(2, p.value("remote_ports", json::array()), "remote ports", [&](const json& r) { remote_lines(w, 2, r); });
    if (!p.value("virtual_ports_listed", true)) w.line(2, "Virtual ports: the library could not list them");
    w.list(2, p.value("virtual_ports", json::array()), "virtual ports", [&](const json& v) {
        w.line(2, "Virtual port " + str(v, "index") + "  " + str(v, "port_wwn") + "  " + local_words(v));
        w.list(3, v.value("remote_ports", json::array()), "remote ports", [&](const json& r) { remote_lines(w, 3, r); });
    });
}

// DOT text: a quoted label, its backslashes and quotes escaped; "\n" between
// the lines given.
std::string dot_label(std::initializer_list<std::string> lines) {
    std::string out = "\"";
    bool first = true;
    for (const std::string& l : lines) {
        if (l.empty()) continue;
        if (!first) out += "\\n";
        first = false;
        for (char c : l) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
    }
    return out + "\"";
}

class Dot {
public:
    void node(const std::string& id, const std::string& label, const std::string& attrs) {
        out_ << "  " << id << " [label=" << label << (attrs.empty() ? "" : ", " + attrs) << "];\n";
    }
    void edge(const std::string& from, const std::string& to) { out_ << "  " << from << " -> " << to << ";\n"; }
    std::string text() const { return out_.str(); }

private:
    std::ostringstream out_;
};

const char* kDown = "style=dashed, color=gray40, fontcolor=gray30";

void dot_remote(Dot& d, const std::string& parent, const std::string& id, const json& r) {
    if (vanished(r)) {
        d.node(id, dot_label({"remote port " + str(r, "index"), "vanished (no WWN)"}),
               "shape=ellipse, style=dotted, color=red, fontcolor=red");
    } else {
        d.node(id, dot_label({"remote port " + str(r, "index"), str(r, "port_wwn"),
                              str(r, "state_name") + (str(r, "role").empty() ? "" : ", " + str(r, "role"))}),
               std::string("shape=ellipse") + (down(r) ? std::string(", ") + kDown : ""));
    }
    d.edge(parent, id);
    std::size_t k = 0;
    for (const json& l : r.value("luns", json::array())) {
        const std::string lid = id + "_l" + std::to_string(k++);
        d.node(lid, dot_label({str(l, "device"), str(l, "hctl"), str(l, "vendor") + ", " + str(l, "size_name")}),
               "shape=cylinder");
        d.edge(id, lid);
    }
}

void dot_local(Dot& d, const std::string& id, const std::string& title, const json& p, const char* shape) {
    std::string vlan;
    if (p.contains("fcoe")) vlan = "VLAN " + str(p["fcoe"], "vlan_id") + ", FCF " + str(p["fcoe"], "fcf_index");
    d.node(id, dot_label({title, str(p, "port_wwn"), str(p, "state_name") + ", " + speed_words(p), vlan}),
           std::string("shape=") + shape + (down(p) ? std::string(", ") + kDown : ""));
    std::size_t k = 0;
    for (const json& r : p.value("remote_ports", json::array()))
        dot_remote(d, id, id + "_r" + std::to_string(k++), r);
}

}  // namespace

std::string overview_text(const json& tree) {
    Writer w;
    const Totals t = count(tree);
    w.line(0, plural(t.adapters, "adapter", "adapters") + ", " + plural(t.ports, "port", "ports") + ", " +
                  plural(t.vports, "virtual port", "virtual ports") + ", " +
                  plural(t.remotes, "remote port", "remote ports") + ", " + plural(t.luns, "LUN", "LUNs"));
    for (const json& a : tree.value("adapters", json::array())) {
        std::string s = "Adapter " + str(a, "index") + "  " + str(a, "name") + "  " + str(a, "manufacturer") + " " +
                        str(a, "model") + "  serial " + str(a, "serial_number") + "  firmware " +
                        str(a, "firmware_version") + "  node " + str(a, "node_wwn") + "  " +
                        plural(num(a, "port_count"), "port", "ports");
        if (a.value("repeat", false)) s += "  (written again after a failed port)";
        w.line(0, s);
        for (const json& p : a.value("ports", json::array())) port_lines(w, p);
    }
    return w.text();
}

std::string topology_dot(const json& tree) {
    Dot d;
    std::size_t ai = 0;
    for (const json& a : tree.value("adapters", json::array())) {
        if (a.value("repeat", false)) continue;
        const std::string aid = "a" + std::to_string(ai++);
        d.node(aid, dot_label({str(a, "name"), str(a, "manufacturer") + " " + str(a, "model"),
                               "node " + str(a, "node_wwn")}),
               "shape=box3d, style=filled, fillcolor=lightsteelblue1");
        for (const json& p : a.value("ports", json::array())) {
            const std::string pid = aid + "_p" + str(p, "index");
            dot_local(d, pid, "port " + str(p, "index"), p, "box");
            d.edge(aid, pid);
            for (const json& v : p.value("virtual_ports", json::array())) {
                const std::string vid = pid + "_v" + str(v, "index");
                dot_local(d, vid, "virtual port " + str(v, "index"), v, "component");
                d.edge(pid, vid);
            }
        }
    }
    return "digraph mirvak_hba {\n"
           "  rankdir=LR;\n"
           "  node [fontname=\"Helvetica\", fontsize=10];\n" +
           d.text() + "}\n";
}

}  // namespace mv::tool
