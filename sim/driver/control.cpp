// The control interface (tusksim.h): loading fabrics, call counts, faults.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>

#include "state.h"

#pragma GCC visibility push(default)
#include "tusksim.h"
#pragma GCC visibility pop

namespace {

using tusksim::Driver;

// Control calls take the lock like the operations but are not counted. All
// but the loads first load the fabric as first use would, so that what they
// set is not undone by that load later.
template <class Body>
auto control(Body&& body) {
    Driver& d = tusksim::driver();
    std::lock_guard<std::mutex> lock(d.mutex());
    d.ensure_loaded();
    return body(d);
}

void put_error(char* err, std::size_t errlen, const std::string& message) {
    if (err == nullptr || errlen == 0) return;
    const std::size_t n = std::min(message.size(), errlen - 1);
    std::memcpy(err, message.data(), n);
    err[n] = '\0';
}

// Read a description (outside the lock) and install it.
template <class Read>
int load(char* err, std::size_t errlen, Read read) {
    try {
        std::pair<sim::Fabric, std::string> loaded = read();  // fabric, file to write back to
        Driver& d = tusksim::driver();
        std::lock_guard<std::mutex> lock(d.mutex());
        d.install(std::move(loaded.first), std::move(loaded.second));
        return 0;
    } catch (const std::exception& e) {
        put_error(err, errlen, e.what());
        return -1;
    }
}

}  // namespace

extern "C" {

int tusksim_load_text(const char* json, const char* source, char* err, std::size_t errlen) {
    const std::string name = source != nullptr ? source : "<text>";
    return load(err, errlen, [&] {
        if (json == nullptr) throw sim::FabricError(name + ": no description");
        const std::size_t n = strnlen(json, sim::kMaxFabricFileBytes + 1);
        if (n > sim::kMaxFabricFileBytes) throw sim::FabricError(name + ": description too large");
        return std::make_pair(sim::parse_fabric_text(std::string(json, n), name), std::string());
    });
}

int tusksim_load_file(const char* path, char* err, std::size_t errlen) {
    return load(err, errlen, [&] {
        if (path == nullptr) throw sim::FabricError("<file>: no path");
        return std::make_pair(sim::load_fabric_file(path), std::string(path));
    });
}

int tusksim_load_default(void) {
    return load(nullptr, 0, [] {
        return std::make_pair(sim::parse_fabric_text(sim::default_fabric_text(), "<default>"), std::string());
    });
}

int tusksim_load_env(void) {
    Driver& d = tusksim::driver();
    std::lock_guard<std::mutex> lock(d.mutex());
    return d.load_from_environment();
}

const char* tusksim_dump(void) {
    return control([](Driver& d) {
        d.dump_buffer() = sim::fabric_to_json(d.fabric()).dump(2);
        return d.dump_buffer().c_str();
    });
}

uint64_t tusksim_call_count(const char* op) {
    return control([&](Driver& d) {
        const auto which = tusksim::op_by_name(op);
        return which ? d.calls(*which) : uint64_t{0};
    });
}

uint64_t tusksim_call_total(void) {
    return control([](Driver& d) { return d.total_calls(); });
}

void tusksim_reset_counts(void) {
    control([](Driver& d) { d.reset_counts(); });
}

uint32_t tusksim_most_in_flight(void) {
    return control([](Driver& d) { return d.most_in_flight(); });
}

uint32_t tusksim_open_handles(void) {
    return control([](Driver& d) { return static_cast<uint32_t>(d.open_handles()); });
}

uint32_t tusksim_last_handle(void) {
    return control([](Driver& d) { return d.last_handle(); });
}

int tusksim_add_fault(const char* op, uint32_t nth, int status, int every) {
    const auto which = tusksim::op_by_name(op);
    if (!which || nth == 0) return -1;
    return control([&](Driver& d) {
        d.add_fault(*which, nth, status, every != 0);
        return 0;
    });
}

int tusksim_add_hang(const char* op, uint32_t nth, const char* release_file) {
    const auto which = tusksim::op_by_name(op);
    if (!which || nth == 0 || release_file == nullptr || release_file[0] == '\0') return -1;
    return control([&](Driver& d) {
        d.add_fault(*which, nth, 0, false, release_file);
        return 0;
    });
}

void tusksim_clear_faults(void) {
    control([](Driver& d) { d.clear_faults(); });
}

}  // extern "C"
