// What the program reports, gathered once as JSON and printed either as
// JSON or as text for people.
#ifndef MIRVAK_TOOLS_OUTPUT_H
#define MIRVAK_TOOLS_OUTPUT_H

#include <cstdio>

#include <nlohmann/json.hpp>

#include "tools/plugin_loader.h"

// Every adapter the plug-in names, with its attributes and its ports.
nlohmann::json gather_adapters(const PluginLoader& plugin);

void print_adapters_text(std::FILE* out, const nlohmann::json& adapters);

#endif
