// Decoder for the whole-system snapshot stream that MvFCoEIni::GetFCoEAll
// hands out: a 4-byte adapter count, then fixed-size records back to back,
// each parent carrying the count of the child records that follow it.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace mv::tool {

// A stream that is truncated or whose counts do not fit the bytes present.
// `offset` is the byte offset in the stream where decoding had to stop (the
// start of the record, or of the header, that could not be read whole).
struct DecodeError : std::runtime_error {
    std::size_t offset;
    DecodeError(std::size_t off, const std::string& what);
};

// Walks the records by their counts: adapters > ports > remote ports > LUNs,
// and ports > virtual ports > remote ports > LUNs.
//
// The tree:
//   { "adapter_count": <header>, "adapter_records": <adapter records read>,
//     "size": <stream bytes>,
//     "adapters": [ { "offset", "index", "port_count", "ports_present",
//                     "repeat", "instance", "name", standard attributes
//                     ("model", "serial_number", ...), "hardware": {...},
//                     "ports": [ { "offset", "index", "remote_count",
//                                  "vport_count", port attributes ("port_wwn",
//                                  "state", "speed", ...), "fcoe": {MACs, FCF
//                                  index, VLAN, ...}, "statistics": {...},
//                                  "remote_ports": [ {..., "luns": [...]} ],
//                                  "virtual_ports": [ {..., "remote_ports":
//                                                      [...]} ],
//                                  "virtual_ports_listed" } ] } ] }
// WWNs and MACs are "20:00:..." text; texts that are not printable ASCII
// show their bytes as \xNN.
//
// How the stream is read where the library's counts are not record counts:
//  - The header counts the adapters the library reported, not the records
//    present (adapters whose queries failed leave none), so adapter records
//    are read until the end of the stream, whatever the header says.
//  - An adapter record is known by its two identical copies of the adapter
//    description. After one, port records are read until its port count is
//    reached or the next adapter record begins: a port whose query failed
//    leaves no record, and after a later port fails the library writes the
//    adapter record again with port count 0. Such a record is kept in the
//    list in stream order with "repeat": true (an index already seen); its
//    own port count is 0, so no ports are read under it.
//  - A cleared (all-zero) record in place of a port's first virtual port is
//    the library's answer when the list could not be had: it is consumed,
//    "virtual_ports_listed" is false, and no further virtual-port records
//    are read for that port.
//  - The stream ending while an adapter still expects port records is
//    reported as a truncation (a stream whose last adapter lost its last
//    ports to failed queries cannot be told from one cut short). Ending
//    between two adapters is not an error.
//  - Records must carry the indexes their place implies (ports rising and
//    below the port count, under the adapter's name; remote ports, virtual
//    ports and LUNs 0, 1, 2 ...); anything else is an inconsistent stream.
//    A stream in which the library could not allocate a record array holds
//    counts without records and is reported so.
//
// Throws DecodeError naming the byte offset for a truncated or inconsistent
// stream (the start of the record that cannot be read whole or does not
// fit); never reads outside [data, data + size).
//
// With SnapshotDetail::Layout the tree holds only where each record is and
// what it contains ("offset", "index", the counts, the child lists,
// "repeat", "virtual_ports_listed"), for a reader that takes the values
// from the records at those offsets itself; the stream is checked the same.
enum class SnapshotDetail { Fields, Layout };
nlohmann::json decode_snapshot(const unsigned char* data, std::size_t size,
                               SnapshotDetail detail = SnapshotDetail::Fields);

// The decoded tree as readable text, one line a field, indented by level.
std::string snapshot_text(const nlohmann::json& tree);

}  // namespace mv::tool
