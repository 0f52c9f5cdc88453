// The management records the facade answers (mirvak/mgmt_records.h) as JSON,
// and that JSON as text for people.
#ifndef MIRVAK_TOOLS_RECORDS_H
#define MIRVAK_TOOLS_RECORDS_H

#include <cstddef>
#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "mirvak/mgmt_records.h"
#include "port_names.h"

namespace mv::tool {

// A fixed text field up to its first NUL, never past the field.
std::string field_text(const char* field, std::size_t size);

nlohmann::json adapter_info_json(const adapter_info& a);
nlohmann::json port_info_json(const port_info& p);
nlohmann::json port_stats_json(const port_stats& s);
nlohmann::json lun_info_json(const lun_info& l);

// What a port_info or port_stats describes: the fields worth showing differ.
enum class PortKind { Local, Virtual, Remote };

void print_adapter_info(std::FILE* out, const nlohmann::json& a, int indent);
void print_port_info(std::FILE* out, const nlohmann::json& p, int indent, PortKind kind);
void print_port_stats(std::FILE* out, const nlohmann::json& s, int indent, PortKind kind);
void print_lun_info(std::FILE* out, const nlohmann::json& l, int indent);

// "  Label:               value" (label padded to 20 columns).
void print_line(std::FILE* out, int indent, const std::string& label, const std::string& value);

// A JSON value as text: strings as they are, numbers in decimal, true/false
// as yes/no.
std::string value_text(const nlohmann::json& v);


}  // namespace mv::tool

#endif
