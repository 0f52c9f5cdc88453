// The whole system at a glance, from the decoded snapshot tree
// (snapshot_decode.h): one line a thing, indented as a tree: adapters, their
// ports, each port's remote ports with their LUNs and its virtual ports with
// theirs. States, speeds and sizes in words and units.
#ifndef MIRVAK_VIEW_OVERVIEW_H
#define MIRVAK_VIEW_OVERVIEW_H

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

namespace mv::tool {

// Lists longer than this show their first entries and a count of the rest.
constexpr std::size_t kOverviewListed = 12;

// The overview as text: a line of totals, then the tree.
std::string overview_text(const nlohmann::json& tree);

// The same system as a Graphviz graph (DOT language): adapters, ports,
// virtual ports, remote ports and LUNs as nodes, each labelled with its WWN
// or device; offline ports dashed, vanished remote ports (the library lists
// them without WWNs) dotted and red.
std::string topology_dot(const nlohmann::json& tree);

}  // namespace mv::tool

#endif
