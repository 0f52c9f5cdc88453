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
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli_main.h"
#include "codes.h"
#include "facade_commands.h"
#include "lun_commands.h"
#include "metrics_command.h"
#include "output.h"
#include "plugin_loader.h"
#include "progress.h"
#include "session.h"
#include "snapshot_commands.h"
#include "wwn_arg.h"

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

class Cli {
public:
    CLI::App app{"The management program of the mirvak FCoE HBA plug-in."};
    bool as_json = false;
    bool quiet = false;

    CLI::App* sub(CLI::App* parent, const char* name, const char* help) {
        CLI::App* c = parent->add_subcommand(name, help);
        c->fallthrough();
        return c;
    }

    SelectionOptions& selection(CLI::App* c, bool adapter_required = true) {
        sel_.emplace_back();
        SelectionOptions& o = sel_.back();
        o.o_adapter = c->add_option("adapter", o.adapter, "Adapter: its index (0, 1, ...) or its name (/dev/tuskstor1)")
                          ->check(kAdapterCheck);
        if (adapter_required) o.o_adapter->required();
        owner_[c] = &o;
        return o;
    }
    void port_options(SelectionOptions& o, CLI::App* c, bool with_wwpn = true) {
        o.o_port = c->add_option("--port", o.port, "Physical port number (0, 1, ...)")
                       ->check(CLI::Range(0u, kMaxIndex))
                       ->type_name("N");
        if (!with_wwpn) return;
        o.o_wwpn = c->add_option("--wwpn", o.wwpn, "Local port WWPN (16 hex digits, colons optional)")
                       ->check(kWwnCheck)
                       ->type_name("WWPN");
    }
    void vport_options(SelectionOptions& o, CLI::App* c) {
        o.o_vport = c->add_option("--vport", o.vport, "Virtual-port number on the port (0, 1, ...)")
                        ->check(CLI::Range(0u, kMaxIndex))
                        ->type_name("N");
        o.o_vport_wwpn = c->add_option("--vport-wwpn", o.vport_wwpn, "Virtual port WWPN")
                             ->check(kWwnCheck)
                             ->type_name("WWPN");
    }
    void rport_options(SelectionOptions& o, CLI::App* c) {
        o.o_rport = c->add_option("--rport", o.rport, "Remote-port number (0, 1, ...)")
                        ->check(CLI::Range(0u, kMaxIndex))
                        ->type_name("N");
        o.o_rport_wwpn = c->add_option("--rport-wwpn", o.rport_wwpn, "Remote (target) port WWPN")
                             ->check(kWwnCheck)
                             ->type_name("WWPN");
    }

    SelectionOptions* options_of(CLI::App* c) {
        auto it = owner_.find(c);
        return it == owner_.end() ? nullptr : it->second;
    }

private:
    std::deque<SelectionOptions> sel_;
    std::map<CLI::App*, SelectionOptions*> owner_;
};

void print(std::FILE* out, bool as_json, const Outcome& o) {
    if (as_json) {
        std::fprintf(out, "%s\n", o.data.dump(2).c_str());
    } else {
        o.text(out);
    }
}

}  // namespace

int mirvak_hba_main(int argc, char** argv) {
    Cli cli;
    CLI::App& app = cli.app;
    app.name("mirvak-hba");
    app.set_version_flag("--version", std::string("mirvak-hba ") + MIRVAK_VERSION, "Print the version and exit");
    app.add_flag("--json", cli.as_json, "Print JSON instead of text");
    app.add_flag("-q,--quiet", cli.quiet, "Drop the library's own diagnostic lines");
    app.require_subcommand(0, 1);
    app.footer(
        "Without a subcommand: snapshot (the whole system as a tree).\n"
        "ADAPTER is an index (0, 1, ...) or a name as the library gives it (/dev/tuskstor1).\n"
        "WWNs are 16 hex digits, with or without a colon between bytes.\n"
        "Exit status: 0 success; 1 the library answered a failure (its result code is named);\n"
        "2 bad arguments (nothing was sent).");

    cli.sub(&app, "adapters", "Every adapter with its attributes and ports, through the standard face");

    cli.sub(&app, "adapter-info", "Every adapter's extended information (GetFCoEAdapters)");
    CLI::App* c_adapter_stats = cli.sub(&app, "adapter-stats", "One adapter's extended information (GetFCoEAdapterStats)");
    cli.selection(c_adapter_stats);

    CLI::App* c_ports = cli.sub(&app, "ports", "All ports of an adapter (GetAllPortsInfo)");
    cli.selection(c_ports);

    CLI::App* c_port = cli.sub(&app, "port", "One port by number or WWPN, or all ports (GetPortInfo)");
    {
        SelectionOptions& o = cli.selection(c_port);
        cli.port_options(o, c_port);
        o.forms = {{o.o_port}, {o.o_wwpn}};
        o.forms_optional = true;
    }
    CLI::App* c_port_stats = cli.sub(&app, "port-stats", "Statistics of a port (GetPortStatistics)");
    CLI::App* c_rports = cli.sub(&app, "rports", "Remote ports a port has discovered (GetRemotePortInfo)");
    CLI::App* c_vports = cli.sub(&app, "vports", "Virtual (NPIV) ports of a port (GetVirPortForPort)");
    for (CLI::App* c : {c_port_stats, c_rports, c_vports}) {
        SelectionOptions& o = cli.selection(c);
        cli.port_options(o, c);
        o.forms = {{o.o_port}, {o.o_wwpn}};
    }
    CLI::App* c_rport_stats =
        cli.sub(&app, "rport-stats", "Statistics of a remote port of a port (GetRemotePortStatistics)");
    CLI::App* c_luns = cli.sub(&app, "luns", "LUNs behind a remote port of a port (GetLunInfo)");
    for (CLI::App* c : {c_rport_stats, c_luns}) {
        SelectionOptions& o = cli.selection(c);
        cli.port_options(o, c);
        cli.rport_options(o, c);
        o.forms = {{o.o_port, o.o_rport}, {o.o_wwpn, o.o_rport_wwpn}};
    }
    CLI::App* c_vport_stats = cli.sub(&app, "vport-stats", "Statistics of a virtual port (GetVirPortStatistics)");
    CLI::App* c_vport_rports =
        cli.sub(&app, "vport-rports", "Remote ports a virtual port has discovered (GetRPortForVPort)");
    for (CLI::App* c : {c_vport_stats, c_vport_rports}) {
        SelectionOptions& o = cli.selection(c);
        cli.port_options(o, c, false);
        cli.vport_options(o, c);
        o.forms = {{o.o_port, o.o_vport}, {o.o_vport_wwpn}};
    }
    CLI::App* c_vport_rport_stats = cli.sub(&app, "vport-rport-stats",
                                            "Statistics of a remote port of a virtual port (GetVirRemotePortStatistics)");
    CLI::App* c_vport_luns =
        cli.sub(&app, "vport-luns", "LUNs behind a remote port of a virtual port (GetVPortLunInfo)");
    for (CLI::App* c : {c_vport_rport_stats, c_vport_luns}) {
        SelectionOptions& o = cli.selection(c);
        cli.port_options(o, c, false);
        cli.vport_options(o, c);
        cli.rport_options(o, c);
        o.forms = {{o.o_port, o.o_vport, o.o_rport}, {o.o_vport_wwpn, o.o_rport_wwpn}};
    }

    // NPIV
    CLI::App* c_npiv = cli.sub(&app, "npiv", "Create or delete a virtual (NPIV) port");
    c_npiv->require_subcommand(1);
    struct NpivOptions {
        std::string wwpn, wwnn, port_wwpn, port_wwnn;
        CLI::Option *o_wwnn = nullptr, *o_port_wwpn = nullptr, *o_port_wwnn = nullptr;
    };
    NpivOptions npiv_create_opts, npiv_delete_opts;
    CLI::App* c_npiv_create = cli.sub(c_npiv, "create", "Create a virtual port on a physical port (CreateNPIV)");
    CLI::App* c_npiv_delete = cli.sub(c_npiv, "delete", "Delete a virtual port (DeleteNPIV)");
    for (auto [c, n] : {std::pair{c_npiv_create, &npiv_create_opts}, std::pair{c_npiv_delete, &npiv_delete_opts}}) {
        const bool create = c == c_npiv_create;
        SelectionOptions& o = cli.selection(c);
        o.o_port = c->add_option("--port", o.port,
                                 create ? "Physical port number (default 0); its WWPN and WWNN are read from the adapter"
                                        : "Physical port number; its WWPN and WWNN are read from the adapter")
                       ->check(CLI::Range(0u, kMaxIndex))
                       ->type_name("N");
        c->add_option("--wwpn", n->wwpn, "The virtual port's WWPN")->check(kWwnCheck)->type_name("WWPN")->required();
        n->o_wwnn = c->add_option("--wwnn", n->wwnn, "The virtual port's WWNN")->check(kWwnCheck)->type_name("WWNN");
        if (create) n->o_wwnn->required();
        n->o_port_wwpn = c->add_option("--port-wwpn", n->port_wwpn, "The physical port's WWPN, instead of --port")
                             ->check(kWwnCheck)
                             ->type_name("WWPN")
                             ->excludes(o.o_port);
        n->o_port_wwnn = c->add_option("--port-wwnn", n->port_wwnn, "The physical port's WWNN (with --port-wwpn)")
                             ->check(kWwnCheck)
                             ->type_name("WWNN")
                             ->needs(n->o_port_wwpn);
    }

    // Snapshots
    std::string raw_file, decode_file;
    bool all_fields = false;
    CLI::App* c_snapshot = cli.sub(&app, "snapshot",
                                   "The whole system in one snapshot (GetFCoEAll), as a tree: one line a thing (the "
                                   "default)");
    c_snapshot->add_option("--raw", raw_file, "Also save the snapshot's bytes in this file")->type_name("FILE");
    CLI::App* c_decode = cli.sub(&app, "decode", "Decode a snapshot saved with snapshot --raw, shown as a tree");
    c_decode->add_option("file", decode_file, "The saved snapshot")->required();
    for (CLI::App* c : {c_snapshot, c_decode})
        c->add_flag("--fields,--verbose", all_fields, "Every field of every record instead of the tree");
    std::string topology_format = "dot";
    CLI::App* c_topology = cli.sub(&app, "topology",
                                   "The system as a Graphviz graph: adapters, ports, virtual ports, remote ports, "
                                   "LUNs (from a snapshot)");
    c_topology->add_option("--format", topology_format, "dot (the graph's text) or svg (drawn by Graphviz's dot)")
        ->check(CLI::IsMember({"dot", "svg"}))
        ->type_name("dot|svg");

    // Prometheus metrics
    std::string metrics_file;
    bool metrics_no_luns = false;
    CLI::App* c_metrics =
        cli.sub(&app, "metrics", "The exporter's metrics once, in the Prometheus text format (textfile collector)");
    c_metrics->add_option("--output", metrics_file, "Replace this file atomically instead of printing")
        ->type_name("FILE");
    c_metrics->add_flag("--no-collector.luns", metrics_no_luns, "Leave out the mirvak_lun_* series");

    // FCP target mapping
    CLI::App* c_mapping = cli.sub(&app, "mapping", "FCP target mapping: device, H:C:T:L, target WWNs, FCP LUN, LUID");
    {
        SelectionOptions& o = cli.selection(c_mapping, false);
        o.o_adapter->description("Adapter (index or name); default: every adapter");
        cli.port_options(o, c_mapping);
        o.o_port->needs(o.o_adapter);
        o.o_wwpn->needs(o.o_adapter);
        o.forms = {{o.o_port}, {o.o_wwpn}};
        o.forms_optional = true;
    }

    // SCSI commands
    CLI::App* c_scsi = cli.sub(&app, "scsi", "Send a SCSI command to a LUN and decode the answer");
    c_scsi->require_subcommand(1);
    struct ScsiOptions {
        std::string target, page;
        uint32_t lun = 0;
        CLI::Option* o_page = nullptr;
    };
    std::map<CLI::App*, std::pair<ScsiOp, std::unique_ptr<ScsiOptions>>> scsi_cmds;
    for (auto [name, op, help] : {std::tuple{"inquiry", ScsiOp::Inquiry, "Standard INQUIRY, or a VPD page with --page"},
                                  std::tuple{"report-luns", ScsiOp::ReportLuns, "REPORT LUNS of the target"},
                                  std::tuple{"read-capacity", ScsiOp::ReadCapacity, "READ CAPACITY(16) of the LUN"}}) {
        CLI::App* c = cli.sub(c_scsi, name, help);
        auto opts = std::make_unique<ScsiOptions>();
        SelectionOptions& o = cli.selection(c);
        cli.port_options(o, c);
        o.o_port->description("Local port number (default: the port that discovered the target)");
        o.o_wwpn->description("Local port WWPN (default: the port that discovered the target)");
        o.forms = {{o.o_port}, {o.o_wwpn}};
        o.forms_optional = true;
        c->add_option("--target", opts->target, "The target port's WWPN")->check(kWwnCheck)->type_name("WWPN")->required();
        if (op != ScsiOp::ReportLuns)
            c->add_option("--lun", opts->lun, "LUN number (0 to 65535)")
                ->check(CLI::Range(0u, 65535u))
                ->type_name("N")
                ->required();
        if (op == ScsiOp::Inquiry)
            opts->o_page = c->add_option("--page", opts->page,
                                         "Vital product data page (0x00, 0x80, 0x83, ...); sets EVPD")
                               ->type_name("PAGE")
                               ->check(CLI::Validator(
                                   [](std::string& text) {
                                       try {
                                           std::size_t used = 0;
                                           const unsigned long v = std::stoul(text, &used, 0);
                                           if (used == text.size() && v <= 0xff) return std::string();
                                       } catch (const std::exception&) {
                                       }
                                       return "'" + text + "' is not a page code (0 to 255, e.g. 0x83)";
                                   },
                                   "PAGE", "PAGE"));
        scsi_cmds.emplace(c, std::pair{op, std::move(opts)});
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }

    // Which subcommand, down to the leaf.
    CLI::App* leaf = &app;
    while (!leaf->get_subcommands().empty()) leaf = leaf->get_subcommands().front();
    SelectionOptions* sel_opts = cli.options_of(leaf);
    try {
        if (sel_opts) sel_opts->check_forms();
    } catch (const UsageError& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        return kExitUsage;
    }

    std::FILE* out = separate_library_output(cli.quiet);
    int status = kExitOk;
    try {
        const SnapshotView view = all_fields ? SnapshotView::Fields : SnapshotView::Overview;
        if (leaf->get_name() == "adapters") {
            PluginLoader plugin;
            plugin.load();
            const nlohmann::json adapters = gather_adapters(plugin);
            plugin.free();
            if (cli.as_json) {
                std::fprintf(out, "%s\n", nlohmann::json{{"adapters", adapters}}.dump(2).c_str());
            } else {
                print_adapters_text(out, adapters);
            }
        } else if (leaf == c_decode) {
            Outcome o;
            {
                Progress progress("decoding " + decode_file);
                o = decode_command(decode_file, view);
            }
            print(out, cli.as_json, o);
        } else if (leaf == c_metrics) {
            Session session;
            metrics_command(session, !metrics_no_luns, metrics_file, out);
        } else {
            Session session;
            const Selection sel = sel_opts ? sel_opts->selection() : Selection{};
            Outcome o;
            bool failed = false;
            if (leaf->get_name() == "adapter-info") o = adapter_info_command(session);
            else if (leaf == c_adapter_stats) o = adapter_stats_command(session, sel);
            else if (leaf == c_ports) o = ports_command(session, sel);
            else if (leaf == c_port) o = port_command(session, sel);
            else if (leaf == c_port_stats) o = port_stats_command(session, sel);
            else if (leaf == c_rports) o = rports_command(session, sel);
            else if (leaf == c_rport_stats) o = rport_stats_command(session, sel);
            else if (leaf == c_vports) o = vports_command(session, sel);
            else if (leaf == c_vport_stats) o = vport_stats_command(session, sel);
            else if (leaf == c_vport_rports) o = vport_rports_command(session, sel);
            else if (leaf == c_vport_rport_stats) o = vport_rport_stats_command(session, sel);
            else if (leaf == c_luns) o = luns_command(session, sel);
            else if (leaf == c_vport_luns) o = vport_luns_command(session, sel);
            else if (leaf == c_snapshot || leaf == &app) o = snapshot_command(session, raw_file, view);
            else if (leaf == c_topology) o = topology_command(session, topology_format);
            else if (leaf == c_mapping) {
                Progress progress("reading the FCP target mapping");
                o = mapping_command(session, sel, &failed);
            }
            else if (leaf == c_npiv_create || leaf == c_npiv_delete) {
                const NpivOptions& n = leaf == c_npiv_create ? npiv_create_opts : npiv_delete_opts;
                NpivRequest r;
                r.sel = sel;
                r.vport_wwpn = *parse_wwn(n.wwpn);
                if (n.o_wwnn->count()) r.vport_wwnn = parse_wwn(n.wwnn);
                if (n.o_port_wwpn->count()) r.port_wwpn = parse_wwn(n.port_wwpn);
                if (n.o_port_wwnn->count()) r.port_wwnn = parse_wwn(n.port_wwnn);
                if (leaf == c_npiv_create) {
                    if (!r.port_wwpn && !r.sel.port) r.sel.port = 0;
                    o = npiv_create_command(session, r);
                } else {
                    o = npiv_delete_command(session, r);
                }
            } else if (scsi_cmds.count(leaf)) {
                const auto& [op, opts] = scsi_cmds.at(leaf);
                ScsiRequest r;
                r.op = op;
                r.sel = sel;
                r.target = *parse_wwn(opts->target);
                r.lun = opts->lun;
                if (opts->o_page && opts->o_page->count()) r.page = static_cast<uint8_t>(std::stoul(opts->page, nullptr, 0));
                o = scsi_command(session, r);
            }
            print(out, cli.as_json, o);
            if (failed) {
                std::fprintf(stderr, "mirvak-hba: the mapping of some ports could not be read (see above)\n");
                status = kExitFailed;
            }
        }
    } catch (const UsageError& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        status = kExitUsage;
    } catch (const RequestFailed& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        status = kExitFailed;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mirvak-hba: %s\n", e.what());
        status = kExitFailed;
    }
    std::fclose(out);
    return status;
}
