// How every MvFCoEIni method serves one request of the agent:
//
//   int MvFCoEIni::GetSomething(port_info* key, void* buf, unsigned int* size) {
//       if (facade::any_null(key, buf, size)) return FCOE_ERR_BAD_ARGUMENT;
//       facade::Request req(key->adapter_name);       // opens by the key's name
//       if (!req.opened()) return FCOE_ERR_ADAPTER_OPEN;  // nothing written
//       port_stats stats{};
//       if (int rc = req.step(mirvak_GetKXPortStatistics(req.handle(), key, &stats), FCOE_KIND_PORT))
//           return rc;                                // closed, status mapped
//       if (stats.something == 0) return req.fail(FCOE_ERR_NO_PORTS);  // closed, code as is
//       facade::answer(buf, size, &stats, sizeof stats);
//       return req.finish(FCOE_OK);                   // closed
//   }
//
// The adapter is closed on every way out of the method: by step() and
// fail() at a failure, by finish(), and by the destructor otherwise. A
// method that deliberately leaves the adapter open on one path says so with
// req.leave_open(code).
//
// Working arrays are facade::Array<T>: allocated with malloc, zeroed, and
// released when the method returns (or earlier with reset()).
#ifndef MIRVAK_FACADE_REQUEST_H
#define MIRVAK_FACADE_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mirvak/hba_plugin.h"
#include "mirvak/mgmt_records.h"
#include "mirvak/mv_fcoe_ini.h"

namespace mv::facade {

// Size of the adapter-name field that begins every key and record.
constexpr std::size_t kNameField = 256;

// The failed handle of mirvak_OpenAdapter.
constexpr HBA_HANDLE kBadHandle = 0xFFFFFFFFu;

// The status table of MapHBAStatusCodeToErrCode.
int map_status(int status, int kind);

// True when any of the pointers is null.
template <class... P>
bool any_null(const P*... p) {
    return ((p == nullptr) || ...);
}

// An adapter name taken from a 256-byte name field (or from the agent's
// text), never read past those 256 bytes: a field without a NUL gives its
// 256 characters, terminated here.
class AdapterName {
public:
    explicit AdapterName(const char* field);
    const char* c_str() const { return text_; }
    // Write the name into a record's 256-byte name field, NUL-terminated (a
    // 256-character name is cut to 255); the bytes after the NUL stay.
    void put(char* field) const;

private:
    char text_[kNameField + 1];
};

class Request {
public:
    // Opens the adapter by the name in the 256-byte field.
    explicit Request(const char* name_field);
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    bool opened() const { return handle_ != kBadHandle; }
    HBA_HANDLE handle() const { return handle_; }
    const AdapterName& name() const { return name_; }

    // After a call of the standard face or the extended interface: 0 for a
    // status of 0 (go on); otherwise the adapter is closed and the status is
    // answered as MapHBAStatusCodeToErrCode(status, kind) (never 0).
    int step(HBA_UINT32 status, int kind);
    // A check on the returned data failed: close, answer this code.
    int fail(int code);
    // Done: close, answer this code.
    int finish(int code);
    // Answer this code and deliberately keep the adapter open (the handle
    // is not closed by the destructor either).
    int leave_open(int code);
    // Close now (once; later closes do nothing).
    void close();

private:
    AdapterName name_;
    HBA_HANDLE handle_;
    bool keep_open_ = false;
};

// A working array of n zeroed records, allocated with malloc and released
// when it goes out of scope. ok() is false when the allocation failed (a
// count of 0 asks malloc for 0 bytes, as the system answers that).
template <class T>
class Array {
public:
    explicit Array(std::size_t n) : n_(n), p_(static_cast<T*>(std::malloc(n * sizeof(T)))) {
        if (p_) std::memset(static_cast<void*>(p_), 0, n * sizeof(T));
    }
    ~Array() { std::free(p_); }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;

    bool ok() const { return p_ != nullptr; }
    T* data() { return p_; }
    const T* data() const { return p_; }
    T& operator[](std::size_t i) { return p_[i]; }
    std::size_t count() const { return n_; }
    std::size_t bytes() const { return n_ * sizeof(T); }
    // Release now.
    void reset() {
        std::free(p_);
        p_ = nullptr;
    }

private:
    std::size_t n_;
    T* p_;
};

// Answer in the agent's buffer ("void* buf" methods): copy the bytes, store
// their count in *size.
void answer(void* buf, unsigned int* size, const void* data, std::size_t bytes);

// Answer in a fresh malloc block that the agent frees ("char** buf"
// methods): *buf and *size are written only when the block was allocated.
// False when malloc failed.
bool answer_block(char** buf, unsigned int* size, const void* data, std::size_t bytes);

}  // namespace mv::facade

#endif
