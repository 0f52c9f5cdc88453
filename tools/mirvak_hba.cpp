// mirvak-hba: the management program of the mirvak HBA plug-in. It lists
// adapters and ports through the standard face, serves every request of the
// management facade (MvFCoEIni) as a subcommand, shows the FCP target
// mapping, sends SCSI commands to a LUN, and takes and decodes whole-system
// snapshots.
//
// The plug-in prints its own fixed diagnostics on standard output; this
// program keeps its answer clean by sending those lines to standard error
// (or nowhere, with --quiet) and writing its own output to the original
// standard output.
//
// Every argument is checked before the library is asked anything: a
// malformed WWN or number never reaches the driver.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/cli_main.h"
#include "tools/codes.h"
#include "tools/facade_commands.h"
#include "tools/lun_commands.h"
#include "tools/metrics_command.h"
#include "tools/output.h"
#include "tools/plugin_loader.h"
#include "tools/progress.h"
#include "tools/session.h"
#include "tools/snapshot_commands.h"
#include "tools/wwn_arg.h"

using namespace mv::tool;

namespace {

// Returns a stream on the original standard output and points descriptor 1
// (where the library prints) at standard error or /dev/null.
std::FILE* separate_library_output(bool quiet) {
    std::fflush(stdout);
    const int own = dup(STDOUT_FILENO);
    const int sink = quiet ? open("/dev/null", O_WRONLY) : dup(STDERR_FILENO);
    dup2(sink, STDOUT_FILENO);
    close(sink);
    return fdopen(own, "w");
}

const CLI::Validator kWwnCheck(
    [](std::string& text) {
        std::string why;
        if (parse_wwn(text, &why)) return std::string();
        return "'" + text + "' is not a WWN: " + why;
    },
    "WWN", "WWN");

const CLI::Validator kAdapterCheck(
    [](std::string& text) {
        if (text.empty()) return std::string("the adapter is empty");
        if (text.size() > 255) return std::string("an adapter name has at most 255 characters");
        return std::string();
    },
    "ADAPTER", "ADAPTER");

// The options a subcommand names its adapter, ports and remote ports with.
struct SelectionOptions {
    std::string adapter;
    uint32_t port = 0, vport = 0, rport = 0;
    std::string wwpn, vport_wwpn, rport_wwpn;
    CLI::Option* o_adapter = nullptr;
    CLI::Option* o_port = nullptr;
    CLI::Option* o_wwpn = nullptr;
    CLI::Option* o_vport = nullptr;
    CLI::Option* o_vport_wwpn = nullptr;
    CLI::Option* o_rport = nullptr;
    CLI::Option* o_rport_wwpn = nullptr;
    // The accepted ways to name the port: each a list of options that must
    // all be given. Empty: the options are optional.
    std::vector<std::vector<CLI::Option*>> forms;
    bool forms_optional = false;

    Selection selection() const {
        Selection s;
        s.adapter = adapter;
        if (o_port && o_port->count()) s.port = port;
        if (o_vport && o_vport->count()) s.vport = vport;
        if (o_rport && o_rport->count()) s.rport = rport;
        if (o_wwpn && o_wwpn->count()) s.wwpn = parse_wwn(wwpn);
        if (o_vport_wwpn && o_vport_wwpn->count()) s.vport_wwpn = parse_wwn(vport_wwpn);
        if (o_rport_wwpn && o_rport_wwpn->count()) s.rport_wwpn = parse_wwn(rport_wwpn);
        return s;
    }

    // Exactly one form must be given whole, and nothing of another (or
    // nothing at all when the forms are optional).
    void check_forms() const {
        if (forms.empty()) return;
        std::vector<CLI::Option*> all;
        for (const auto& f : forms)
            for (CLI::Option* o : f) all.push_back(o);
        bool any = false;
        for (CLI::Option* o : all) any = any || o->count() > 0;
        if (!any && forms_optional) return;
        for (const auto& f : forms) {
            bool whole = true;
            for (CLI::Option* o : f) whole = whole && o->count() > 0;
            bool foreign = false;
            for (CLI::Option* o : all)
                if (o->count() > 0 && std::find(f.begin(), f.end(), o) == f.end()) foreign = true;
            if (whole && !foreign) return;
        }
        std::string text;
        for (std::size_t i = 0; i < forms.size(); ++i) {
            std::string form;
            for (CLI::Option* o : forms[i]) {
                const std::string name = o->get_name();
                form += (form.empty() ? "" : " ") + name + (name.find("wwpn") != std::string::npos ? " WWPN" : " N");
            }
            text += (i == 0 ? "" : forms_optional ? ", " : ", or ") + form;
        }
        throw UsageError(forms_optional ? "give at most one of " + text : "give either " + text);
    }
};

constexpr uint32_t kMaxIndex = 65535;  // port, virtual-port and remote-port numbers are 16-bit in a key

const CLI::Validator kPageCheck(
    [](std::string& text) {
        try {
            std::size_t used = 0;
            const unsigned long v = std::stoul(text, &used, 0);
            if (used == text.size() && v <= 0xff) return std::string();
        } catch (const std::exception&) {
        }
        return "'" + text + "' is not a page code (0 to 255, e.g. 0x83)";
    },
    "PAGE", "PAGE");

// What one subcommand's options are read into (each subcommand has its own).
struct Args {
    SelectionOptions sel;
    std::string file;            // snapshot --raw, decode's file, metrics --output
    std::string format = "dot";  // topology --format
    bool flag = false;           // snapshot/decode --fields, metrics --no-collector.luns
    // npiv create and delete
    std::string vport_wwpn, vport_wwnn, port_wwpn, port_wwnn;
    CLI::Option *o_vport_wwnn = nullptr, *o_port_wwpn = nullptr, *o_port_wwnn = nullptr;
    // scsi
    std::string target, page;
    uint32_t lun = 0;
    CLI::Option* o_page = nullptr;
};

// What a subcommand's handler runs with.
struct Run {
    const Args& args;
    std::FILE* out;
    bool as_json;
};

void print(const Run& r, const Outcome& o) {
    if (r.as_json) {
        std::fprintf(r.out, "%s\n", o.data.dump(2).c_str());
    } else {
        o.text(r.out);
    }
}

SnapshotView snapshot_view(const Args& a) { return a.flag ? SnapshotView::Fields : SnapshotView::Overview; }

// ---- Options of the subcommands ----

CLI::Option* index_option(CLI::App* c, const char* name, uint32_t& v, const std::string& help) {
    return c->add_option(name, v, help)->check(CLI::Range(0u, kMaxIndex))->type_name("N");
}

CLI::Option* wwn_option(CLI::App* c, const char* name, std::string& v, const char* help, const char* type = "WWPN") {
    return c->add_option(name, v, help)->check(kWwnCheck)->type_name(type);
}

void adapter_option(CLI::App* c, Args& a, bool required = true) {
    a.sel.o_adapter =
        c->add_option("adapter", a.sel.adapter, "Adapter: its index (0, 1, ...) or its name (/dev/tuskstor1)")
            ->check(kAdapterCheck);
    if (required) a.sel.o_adapter->required();
}

void port_options(CLI::App* c, Args& a, bool with_wwpn = true) {
    SelectionOptions& o = a.sel;
    o.o_port = index_option(c, "--port", o.port, "Physical port number (0, 1, ...)");
    if (with_wwpn) o.o_wwpn = wwn_option(c, "--wwpn", o.wwpn, "Local port WWPN (16 hex digits, colons optional)");
}

void vport_options(CLI::App* c, Args& a) {
    SelectionOptions& o = a.sel;
    o.o_vport = index_option(c, "--vport", o.vport, "Virtual-port number on the port (0, 1, ...)");
    o.o_vport_wwpn = wwn_option(c, "--vport-wwpn", o.vport_wwpn, "Virtual port WWPN");
}

void rport_options(CLI::App* c, Args& a) {
    SelectionOptions& o = a.sel;
    o.o_rport = index_option(c, "--rport", o.rport, "Remote-port number (0, 1, ...)");
    o.o_rport_wwpn = wwn_option(c, "--rport-wwpn", o.rport_wwpn, "Remote (target) port WWPN");
}

void adapter_only(CLI::App* c, Args& a) { adapter_option(c, a); }

// ADAPTER [--port N | --wwpn W], at most one of them.
void any_port(CLI::App* c, Args& a) {
    adapter_option(c, a);
    port_options(c, a);
    a.sel.forms = {{a.sel.o_port}, {a.sel.o_wwpn}};
    a.sel.forms_optional = true;
}

// ADAPTER --port N | --wwpn W.
void one_port(CLI::App* c, Args& a) {
    adapter_option(c, a);
    port_options(c, a);
    a.sel.forms = {{a.sel.o_port}, {a.sel.o_wwpn}};
}

// ADAPTER --port N --rport R | --wwpn W --rport-wwpn T.
void one_rport(CLI::App* c, Args& a) {
    adapter_option(c, a);
    port_options(c, a);
    rport_options(c, a);
    const SelectionOptions& o = a.sel;
    a.sel.forms = {{o.o_port, o.o_rport}, {o.o_wwpn, o.o_rport_wwpn}};
}

// ADAPTER --port N --vport V | --vport-wwpn W.
void one_vport(CLI::App* c, Args& a) {
    adapter_option(c, a);
    port_options(c, a, false);
    vport_options(c, a);
    const SelectionOptions& o = a.sel;
    a.sel.forms = {{o.o_port, o.o_vport}, {o.o_vport_wwpn}};
}

// ADAPTER --port N --vport V --rport R | --vport-wwpn W --rport-wwpn T.
void one_vport_rport(CLI::App* c, Args& a) {
    adapter_option(c, a);
    port_options(c, a, false);
    vport_options(c, a);
    rport_options(c, a);
    const SelectionOptions& o = a.sel;
    a.sel.forms = {{o.o_port, o.o_vport, o.o_rport}, {o.o_vport_wwpn, o.o_rport_wwpn}};
}

template <bool Create>
void npiv_options(CLI::App* c, Args& a) {
    adapter_option(c, a);
    a.sel.o_port = index_option(c, "--port", a.sel.port,
                                Create ? "Physical port number (default 0); its WWPN and WWNN are read from the adapter"
                                       : "Physical port number; its WWPN and WWNN are read from the adapter");
    wwn_option(c, "--wwpn", a.vport_wwpn, "The virtual port's WWPN")->required();
    a.o_vport_wwnn = wwn_option(c, "--wwnn", a.vport_wwnn, "The virtual port's WWNN", "WWNN");
    if (Create) a.o_vport_wwnn->required();
    a.o_port_wwpn =
        wwn_option(c, "--port-wwpn", a.port_wwpn, "The physical port's WWPN, instead of --port")->excludes(a.sel.o_port);
    a.o_port_wwnn = wwn_option(c, "--port-wwnn", a.port_wwnn, "The physical port's WWNN (with --port-wwpn)", "WWNN")
                        ->needs(a.o_port_wwpn);
}

void fields_flag(CLI::App* c, Args& a) {
    c->add_flag("--fields,--verbose", a.flag, "Every field of every record instead of the tree");
}

void snapshot_options(CLI::App* c, Args& a) {
    c->add_option("--raw", a.file, "Also save the snapshot's bytes in this file")->type_name("FILE");
    fields_flag(c, a);
}

void decode_options(CLI::App* c, Args& a) {
    c->add_option("file", a.file, "The saved snapshot")->required();
    fields_flag(c, a);
}

void topology_options(CLI::App* c, Args& a) {
    c->add_option("--format", a.format, "dot (the graph's text) or svg (drawn by Graphviz's dot)")
        ->check(CLI::IsMember({"dot", "svg"}))
        ->type_name("dot|svg");
}

void metrics_options(CLI::App* c, Args& a) {
    c->add_option("--output", a.file, "Replace this file atomically instead of printing")->type_name("FILE");
    c->add_flag("--no-collector.luns", a.flag, "Leave out the mirvak_lun_* series");
}

void mapping_options(CLI::App* c, Args& a) {
    adapter_option(c, a, false);
    SelectionOptions& o = a.sel;
    o.o_adapter->description("Adapter (index or name); default: every adapter");
    port_options(c, a);
    o.o_port->needs(o.o_adapter);
    o.o_wwpn->needs(o.o_adapter);
    o.forms = {{o.o_port}, {o.o_wwpn}};
    o.forms_optional = true;
}

template <ScsiOp Op>
void scsi_options(CLI::App* c, Args& a) {
    any_port(c, a);
    a.sel.o_port->description("Local port number (default: the port that discovered the target)");
    a.sel.o_wwpn->description("Local port WWPN (default: the port that discovered the target)");
    wwn_option(c, "--target", a.target, "The target port's WWPN")->required();
    if (Op != ScsiOp::ReportLuns)
        c->add_option("--lun", a.lun, "LUN number (0 to 65535)")
            ->check(CLI::Range(0u, 65535u))
            ->type_name("N")
            ->required();
    if (Op == ScsiOp::Inquiry)
        a.o_page = c->add_option("--page", a.page, "Vital product data page (0x00, 0x80, 0x83, ...); sets EVPD")
                       ->type_name("PAGE")
                       ->check(kPageCheck);
}

// ---- Handlers ----

int run_adapters(const Run& r) {
    PluginLoader plugin;
    plugin.load();
    const nlohmann::json adapters = gather_adapters(plugin);
    plugin.free();
    if (r.as_json) {
        std::fprintf(r.out, "%s\n", nlohmann::json{{"adapters", adapters}}.dump(2).c_str());
    } else {
        print_adapters_text(r.out, adapters);
    }
    return kExitOk;
}

int run_adapter_info(const Run& r) {
    Session session;
    print(r, adapter_info_command(session));
    return kExitOk;
}

// A facade request about what the selection names.
template <Outcome (*Request)(Session&, const Selection&)>
int run_request(const Run& r) {
    Session session;
    print(r, Request(session, r.args.sel.selection()));
    return kExitOk;
}

// The WWNs of npiv create or delete; a create without a port takes port 0.
NpivRequest npiv_request(const Args& a, bool create) {
    NpivRequest r;
    r.sel = a.sel.selection();
    r.vport_wwpn = *parse_wwn(a.vport_wwpn);
    if (a.o_vport_wwnn->count()) r.vport_wwnn = parse_wwn(a.vport_wwnn);
    if (a.o_port_wwpn->count()) r.port_wwpn = parse_wwn(a.port_wwpn);
    if (a.o_port_wwnn->count()) r.port_wwnn = parse_wwn(a.port_wwnn);
    if (create && !r.port_wwpn && !r.sel.port) r.sel.port = 0;
    return r;
}

template <bool Create>
int run_npiv(const Run& run) {
    Session session;
    const NpivRequest r = npiv_request(run.args, Create);
    print(run, Create ? npiv_create_command(session, r) : npiv_delete_command(session, r));
    return kExitOk;
}

int run_snapshot(const Run& r) {
    Session session;
    print(r, snapshot_command(session, r.args.file, snapshot_view(r.args)));
    return kExitOk;
}

int run_decode(const Run& r) {
    Outcome o;
    {
        Progress progress("decoding " + r.args.file);
        o = decode_command(r.args.file, snapshot_view(r.args));
    }
    print(r, o);
    return kExitOk;
}

int run_topology(const Run& r) {
    Session session;
    print(r, topology_command(session, r.args.format));
    return kExitOk;
}

int run_metrics(const Run& r) {
    Session session;
    metrics_command(session, !r.args.flag, r.args.file, r.out);
    return kExitOk;
}

int run_mapping(const Run& r) {
    Session session;
    const Selection sel = r.args.sel.selection();
    Outcome o;
    bool failed = false;
    {
        Progress progress("reading the FCP target mapping");
        o = mapping_command(session, sel, &failed);
    }
    print(r, o);
    if (!failed) return kExitOk;
    std::fprintf(stderr, "mirvak-hba: the mapping of some ports could not be read (see above)\n");
    return kExitFailed;
}

ScsiRequest scsi_request(const Args& a, ScsiOp op) {
    ScsiRequest r;
    r.op = op;
    r.sel = a.sel.selection();
    r.target = *parse_wwn(a.target);
    r.lun = a.lun;
    if (a.o_page && a.o_page->count()) r.page = static_cast<uint8_t>(std::stoul(a.page, nullptr, 0));
    return r;
}

template <ScsiOp Op>
int run_scsi(const Run& run) {
    Session session;
    print(run, scsi_command(session, scsi_request(run.args, Op)));
    return kExitOk;
}

// ---- The subcommands ----

struct Command {
    const char* parent;  // the group it belongs to, or nullptr
    const char* name;
    const char* help;
    void (*options)(CLI::App*, Args&);  // nullptr: none
    int (*handler)(const Run&);          // nullptr: a group, which needs one of its subcommands
};

// In the order the help lists them.
const Command kCommands[] = {
    {nullptr, "adapters", "Every adapter with its attributes and ports, through the standard face", nullptr,
     run_adapters},
    {nullptr, "adapter-info", "Every adapter's extended information (GetFCoEAdapters)", nullptr, run_adapter_info},
    {nullptr, "adapter-stats", "One adapter's extended information (GetFCoEAdapterStats)", adapter_only,
     run_request<adapter_stats_command>},
    {nullptr, "ports", "All ports of an adapter (GetAllPortsInfo)", adapter_only, run_request<ports_command>},
    {nullptr, "port", "One port by number or WWPN, or all ports (GetPortInfo)", any_port, run_request<port_command>},
    {nullptr, "port-stats", "Statistics of a port (GetPortStatistics)", one_port, run_request<port_stats_command>},
    {nullptr, "rports", "Remote ports a port has discovered (GetRemotePortInfo)", one_port,
     run_request<rports_command>},
    {nullptr, "vports", "Virtual (NPIV) ports of a port (GetVirPortForPort)", one_port, run_request<vports_command>},
    {nullptr, "rport-stats", "Statistics of a remote port of a port (GetRemotePortStatistics)", one_rport,
     run_request<rport_stats_command>},
    {nullptr, "luns", "LUNs behind a remote port of a port (GetLunInfo)", one_rport, run_request<luns_command>},
    {nullptr, "vport-stats", "Statistics of a virtual port (GetVirPortStatistics)", one_vport,
     run_request<vport_stats_command>},
    {nullptr, "vport-rports", "Remote ports a virtual port has discovered (GetRPortForVPort)", one_vport,
     run_request<vport_rports_command>},
    {nullptr, "vport-rport-stats", "Statistics of a remote port of a virtual port (GetVirRemotePortStatistics)",
     one_vport_rport, run_request<vport_rport_stats_command>},
    {nullptr, "vport-luns", "LUNs behind a remote port of a virtual port (GetVPortLunInfo)", one_vport_rport,
     run_request<vport_luns_command>},
    {nullptr, "npiv", "Create or delete a virtual (NPIV) port", nullptr, nullptr},
    {"npiv", "create", "Create a virtual port on a physical port (CreateNPIV)", npiv_options<true>, run_npiv<true>},
    {"npiv", "delete", "Delete a virtual port (DeleteNPIV)", npiv_options<false>, run_npiv<false>},
    {nullptr, "snapshot",
     "The whole system in one snapshot (GetFCoEAll), as a tree: one line a thing (the default)", snapshot_options,
     run_snapshot},
    {nullptr, "decode", "Decode a snapshot saved with snapshot --raw, shown as a tree", decode_options, run_decode},
    {nullptr, "topology",
     "The system as a Graphviz graph: adapters, ports, virtual ports, remote ports, LUNs (from a snapshot)",
     topology_options, run_topology},
    {nullptr, "metrics", "The exporter's metrics once, in the Prometheus text format (textfile collector)",
     metrics_options, run_metrics},
    {nullptr, "mapping", "FCP target mapping: device, H:C:T:L, target WWNs, FCP LUN, LUID", mapping_options,
     run_mapping},
    {nullptr, "scsi", "Send a SCSI command to a LUN and decode the answer", nullptr, nullptr},
    {"scsi", "inquiry", "Standard INQUIRY, or a VPD page with --page", scsi_options<ScsiOp::Inquiry>,
     run_scsi<ScsiOp::Inquiry>},
    {"scsi", "report-luns", "REPORT LUNS of the target", scsi_options<ScsiOp::ReportLuns>,
     run_scsi<ScsiOp::ReportLuns>},
    {"scsi", "read-capacity", "READ CAPACITY(16) of the LUN", scsi_options<ScsiOp::ReadCapacity>,
     run_scsi<ScsiOp::ReadCapacity>},
};

// The command line: the program's own options, and each subcommand with
// the options it was given.
class Cli {
public:
    CLI::App app{"The management program of the mirvak FCoE HBA plug-in."};
    bool as_json = false;
    bool quiet = false;

    Cli() {
        app.name("mirvak-hba");
        app.set_version_flag("--version", std::string("mirvak-hba ") + MIRVAK_VERSION, "Print the version and exit");
        app.add_flag("--json", as_json, "Print JSON instead of text");
        app.add_flag("-q,--quiet", quiet, "Drop the library's own diagnostic lines");
        app.require_subcommand(0, 1);
        app.footer(
            "Without a subcommand: snapshot (the whole system as a tree).\n"
            "ADAPTER is an index (0, 1, ...) or a name as the library gives it (/dev/tuskstor1).\n"
            "WWNs are 16 hex digits, with or without a colon between bytes.\n"
            "Exit status: 0 success; 1 the library answered a failure (its result code is named);\n"
            "2 bad arguments (nothing was sent).");
        leaves_[&app] = {&root_args_, run_snapshot};
        for (const Command& c : kCommands) add(c);
    }

    // The subcommand given, down to the leaf: its options and its handler.
    std::pair<const Args*, int (*)(const Run&)> given() {
        CLI::App* leaf = &app;
        while (!leaf->get_subcommands().empty()) leaf = leaf->get_subcommands().front();
        return leaves_.at(leaf);
    }

private:
    void add(const Command& c) {
        CLI::App* parent = c.parent ? app.get_subcommand(c.parent) : &app;
        CLI::App* sub = parent->add_subcommand(c.name, c.help);
        sub->fallthrough();
        if (!c.handler) {
            sub->require_subcommand(1);
            return;
        }
        args_.emplace_back();
        if (c.options) c.options(sub, args_.back());
        leaves_[sub] = {&args_.back(), c.handler};
    }

    Args root_args_;
    std::deque<Args> args_;
    std::map<CLI::App*, std::pair<const Args*, int (*)(const Run&)>> leaves_;
};

// Runs the handler; a failure is told on standard error and gives the
// exit status.
int run_guarded(int (*handler)(const Run&), const Run& run) {
    try {
        return handler(run);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        return kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        return kExitFailed;
    }
}

}  // namespace

int mirvak_hba_main(int argc, char** argv) {
    Cli cli;
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = cli.app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    const auto [args, handler] = cli.given();
    try {
        args->sel.check_forms();
    } catch (const UsageError& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        return kExitUsage;
    }
    std::FILE* out = separate_library_output(cli.quiet);
    const int status = run_guarded(handler, Run{*args, out, cli.as_json});
    std::fclose(out);
    return status;
}
