#include "tools/session.h"

#include <cctype>

#include "mirvak/hba_plugin.h"
#include "tools/codes.h"

namespace mv::tool {

bool is_adapter_index(const std::string& arg) {
    if (arg.empty() || arg.size() > 9) return false;
    for (char c : arg)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

std::vector<std::string> Session::adapter_names() {
    std::vector<std::string> names;
    const HBA_UINT32 n = mirvak_GetNumberOfAdapters();
    for (HBA_UINT32 i = 0; i < n; ++i) {
        char name[256] = {};
        names.push_back(mirvak_GetAdapterName(i, name) == HBA_STATUS_OK ? std::string(name) : std::string());
    }
    return names;
}

std::string Session::adapter_name(const std::string& arg) {
    if (!is_adapter_index(arg)) return arg;
    const unsigned long index = std::stoul(arg);
    const std::vector<std::string> names = adapter_names();
    if (index >= names.size()) {
        std::string known;
        for (std::size_t i = 0; i < names.size(); ++i)
            known += (i ? ", " : "") + std::to_string(i) + " " + names[i];
        throw UsageError("there is no adapter " + arg + (names.empty() ? ": the library finds no adapters"
                                                                        : " (adapters: " + known + ")"));
    }
    if (names[index].empty())
        throw RequestFailed(HBA_STATUS_ERROR, "the library cannot name adapter " + arg);
    return names[index];
}

OpenAdapter::OpenAdapter(const std::string& name) : handle_(mirvak_OpenAdapter(name.c_str())) {}

OpenAdapter::~OpenAdapter() {
    if (ok()) mirvak_CloseAdapter(handle_);
}

void check_facade(int code, const char* method) {
    if (code != FCOE_OK) throw RequestFailed(code, std::string(method) + " failed: " + describe_facade_code(code));
}

}  // namespace mv::tool
