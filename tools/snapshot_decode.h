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
// The header counts the adapters the library reported, not the records
// present: adapters whose queries failed leave no record, and an adapter
// whose later port failed its query appears a second time with 0 ports.
// So adapter records are read until the end of the stream, whatever the
// header says. The tree is
//   { "adapter_count": <header>, "adapter_records": <records read>,
//     "adapters": [ { "index", "port_count", ..., "ports": [...],
//                     "repeat": true/false } ] }
// An adapter record whose index was already seen is kept in the list in
// stream order with "repeat": true (it is the second record the library
// writes after a failed port; its port count is 0 and no ports follow it).
//
// Throws DecodeError naming the byte offset for a truncated or inconsistent
// stream; never reads outside [data, data + size).
nlohmann::json decode_snapshot(const unsigned char* data, std::size_t size);

// The decoded tree as readable text, one line a field, indented by level.
std::string snapshot_text(const nlohmann::json& tree);

}  // namespace mv::tool
