// One run of the program against the library: the facade object that keeps
// the library loaded, the adapters by index or name, what a subcommand
// answers, and the selections typed on the command line.
#ifndef MIRVAK_TOOLS_SESSION_H
#define MIRVAK_TOOLS_SESSION_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "mirvak/mv_fcoe_ini.h"
#include "tools/wwn_arg.h"

namespace mv::tool {

// What a subcommand answers: its JSON, and the same as text for people.
struct Outcome {
    nlohmann::json data;
    std::function<void(std::FILE*)> text;
};

// The adapter, ports and remote ports a subcommand names. Unset means not
// given; which combinations a subcommand accepts its parser decides.
struct Selection {
    std::string adapter;  // an index ("0") or a name ("/dev/tuskstor1")
    std::optional<uint32_t> port;
    std::optional<Wwn> wwpn;
    std::optional<uint32_t> vport;
    std::optional<Wwn> vport_wwpn;
    std::optional<uint32_t> rport;
    std::optional<Wwn> rport_wwpn;
};

// An adapter typed by index: digits only.
bool is_adapter_index(const std::string& arg);

class Session {
public:
    Session() = default;  // loads the library
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    MvFCoEIni& facade() { return facade_; }

    // The adapter's name as mirvak_GetAdapterName gives it. A name is taken
    // as typed (the library says whether it can open it); an index must
    // name one of the adapters (UsageError otherwise).
    std::string adapter_name(const std::string& arg);
    // Names of every adapter, in index order (an adapter whose name cannot
    // be read gives "").
    std::vector<std::string> adapter_names();

private:
    MvFCoEIni facade_;
};

// An adapter opened through the standard face for the few questions the
// program asks itself (sizes of answers, a port's WWNs); closed when it
// goes out of scope.
class OpenAdapter {
public:
    explicit OpenAdapter(const std::string& name);
    ~OpenAdapter();
    OpenAdapter(const OpenAdapter&) = delete;
    OpenAdapter& operator=(const OpenAdapter&) = delete;
    bool ok() const { return handle_ != 0xFFFFFFFFu; }
    HBA_HANDLE handle() const { return handle_; }

private:
    HBA_HANDLE handle_;
};

// Throws RequestFailed naming the method and the facade's code unless the
// code is FCOE_OK.
void check_facade(int code, const char* method);

}  // namespace mv::tool

#endif
