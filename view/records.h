// One renderer per record the library answers: the management records
// (mirvak/mgmt_records.h) and the standard face's attribute structures as
// JSON, and that JSON as labelled text for people. Every subcommand of
// mirvak-hba, the snapshot decoder and the schema (schema/) use these, so a
// field has one key everywhere.
//
// Conventions of the JSON:
//  - A coded number keeps its key and gets its word beside it under the
//    same key with "_name": "state": 2, "state_name": "online"; "speed": 19,
//    "speed_name": "1, 2, 8 Gbit/s". Result codes likewise ("status",
//    "status_name").
//  - WWNs and MACs are "20:00:..." text; texts that are not printable ASCII
//    show their bytes as \xNN.
//  - Fields the library carries through from the driver without giving them
//    a meaning are named by their place in the driver's record ("word_192",
//    "byte_12") and kept apart: the adapter's under "hardware", a local
//    port's among its "fcoe" fields.
#ifndef MIRVAK_VIEW_RECORDS_H
#define MIRVAK_VIEW_RECORDS_H

#include <cstddef>
#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "mirvak/mgmt_records.h"
#include "view/port_names.h"

namespace mv::tool {

// A fixed text field up to its first NUL, never past the field; bytes that
// are not printable ASCII as \xNN (so the text is always valid JSON).
std::string field_text(const char* field, std::size_t size);

// What a port_info or port_stats describes: the fields worth showing differ.
enum class PortKind { Local, Virtual, Remote };

// The standard face's structures.
nlohmann::json adapter_attributes_json(const HBA_ADAPTERATTRIBUTES& a);
nlohmann::json port_attributes_json(const HBA_PORTATTRIBUTES& a);

// The management records.
nlohmann::json adapter_info_json(const adapter_info& a);
nlohmann::json port_info_json(const port_info& p, PortKind kind);
nlohmann::json port_stats_json(const port_stats& s, PortKind kind);
nlohmann::json lun_info_json(const lun_info& l);

// Adds "<key>": status and "<key>_name": its name and meaning, for a
// status of the standard face or the extended interface.
void add_hba_status(nlohmann::json& j, const std::string& key, unsigned status);

void print_adapter_info(std::FILE* out, const nlohmann::json& a, int indent);
void print_port_info(std::FILE* out, const nlohmann::json& p, int indent, PortKind kind);
void print_port_stats(std::FILE* out, const nlohmann::json& s, int indent, PortKind kind);
void print_lun_info(std::FILE* out, const nlohmann::json& l, int indent);

// "  Label:               value" (label padded to 20 columns).
void print_line(std::FILE* out, int indent, const std::string& label, const std::string& value);

// A JSON value as text: strings as they are, numbers in decimal, true/false
// as yes/no, arrays joined by blanks.
std::string value_text(const nlohmann::json& v);

// "word (number)": a coded field of a record with its name beside it.
std::string coded_text(const nlohmann::json& rec, const std::string& key);

}  // namespace mv::tool

#endif
