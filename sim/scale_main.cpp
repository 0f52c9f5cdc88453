// mirvak-simscale: print a large fabric description on standard output.
//
//   mirvak-simscale [--adapters N] [--ports N] [--vports N] [--targets N] [--luns N] [--paths N] [--compact]
//
// Every adapter has the same ports, every physical port the same number of
// virtual ports, every local port the same number of targets and every
// target the same number of LUNs, each with a block device (see
// scale_fabric.h for the names); with --paths N every LUN is reachable
// through N local ports, on different adapters where there are enough. The output is a fabric description
// (sim/FABRIC.md) for MIRVAK_SIM_FABRIC or mirvak-simhost --fabric.
// Exit status 0, 1 for parameters beyond their limits, 2 for a bad command line.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "scale_fabric.h"

int main(int argc, char** argv) {
    CLI::App app{"Print a fabric description of a simulated system of the given size."};
    app.name("mirvak-simscale");
    app.set_version_flag("--version", std::string("mirvak-simscale ") + MIRVAK_VERSION, "Print the version and exit");
    sim::ScaleParams p;
    bool compact = false;
    app.add_option("--adapters", p.adapters, "Adapters (instances 0, 1, ...; at most 32)")->capture_default_str();
    app.add_option("--ports", p.ports, "Physical ports per adapter (at most 67)")->capture_default_str();
    app.add_option("--vports", p.vports, "Virtual ports per physical port (at most 128)")->capture_default_str();
    app.add_option("--targets", p.targets, "Targets per local port, physical or virtual (at most 65536)")
        ->capture_default_str();
    app.add_option("--luns", p.luns, "LUNs per target, each with a block device (at most 16384)")
        ->capture_default_str();
    app.add_option("--paths", p.paths,
                   "Local ports each LUN is reachable through, each with its own target WWPNs and the same LUN "
                   "identities (divides adapters x ports)")
        ->capture_default_str();
    app.add_flag("--compact", compact, "One line instead of indented JSON");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    try {
        const nlohmann::json doc = sim::scale_fabric_json(p);
        std::cout << (compact ? doc.dump() : doc.dump(2)) << "\n";
        std::cout.flush();
        if (!std::cout) {
            std::cerr << "mirvak-simscale: cannot write the description\n";
            return 1;
        }
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "mirvak-simscale: " << e.what() << "\n";
        return 1;
    }
}
