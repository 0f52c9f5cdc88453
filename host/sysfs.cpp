// Small readers of sysfs attribute files and the path builders every walk of
// the host's tree uses.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/entry_lock.h"
#include "host/sysfs_read.h"
#include "host/sysfs_view.h"
#include "mirvak/host_view.h"

namespace {

// Line buffers, as large as the attributes they are meant for.
constexpr int kStringLine = 256;  // SCSI inquiry texts
constexpr int kValueLine = 128;   // WWNs
constexpr int kProcBytes = 16;    // sizes

// A fresh copy of a + b + c (c may be empty), or null.
char* join(const char* a, const char* b, const char* c) {
    if (a == nullptr || b == nullptr) return nullptr;
    const std::size_t la = std::strlen(a), lb = std::strlen(b), lc = std::strlen(c);
    char* s = static_cast<char*>(std::malloc(la + lb + lc + 1));
    if (s == nullptr) return nullptr;
    std::memcpy(s, a, la);
    std::memcpy(s + la, b, lb);
    std::memcpy(s + la + lb, c, lc);
    s[la + lb + lc] = '\0';
    return s;
}

}  // namespace

char* path_cat(const char* dir, const char* name) {
    // No normalisation: "/sys/class/fc_host/" and "host3" give a double
    // slash, which the kernel accepts.
    if (name == nullptr) return nullptr;
    return join(dir, "/", name);
}

char* str_cat(const char* head, const char* tail) {
    // No separator: callers glue an rport entry's name onto
    // ".../fc_remote_ports:".
    return join(head, tail, "");
}

int read_string(const char* path, char* out) {
    const mv::EntryLock entry_lock;
    char line[kStringLine];
    std::memset(line, 0, sizeof line);
    std::FILE* f = nullptr;
    if (const mv::host::FileBytes* seen = mv::host::view_file(path)) {
        if (!seen->opened) return -1;
        if (!seen->gets(line, sizeof line)) line[0] = '\0';
    } else {
        f = std::fopen(path, "r");
        if (f == nullptr) return -1;  // silent: a missing vendor file is not worth a line
        // An unreadable file leaves the cleared line, which holds no word.
        if (std::fgets(line, sizeof line, f) == nullptr) line[0] = '\0';
    }
    // The line is cut at its first blank and the first word of what is left
    // is taken, so the newline goes and a two-word vendor yields only its
    // first word. A line without a word leaves out as it was.
    char* rest = nullptr;
    const char* token = strtok_r(line, " ", &rest);
    if (token != nullptr) std::sscanf(token, "%255s", out);  // a token holds at most 255 characters
    if (f != nullptr) std::fclose(f);
    return 0;
}

namespace mv {

namespace {

// The WWN on a port_name file's first line.
unsigned long value_of_line(char* line) {
    unsigned long value = 0;
    char* rest = nullptr;
    const char* token = strtok_r(line, " \n", &rest);
    // A line of blanks has no token and reads as 0. strtoul is what a "%lx"
    // conversion does (leading "0x" and sign accepted), without its
    // undefined result on overflow: a too-long number saturates.
    if (token != nullptr) value = std::strtoul(token, nullptr, 16);
    return value;
}

void say_open_failed(const char* who, const char* path, bool quiet) {
    if (!quiet) std::printf("%s:: File %s open failed\n", who, path);
}

}  // namespace

unsigned long read_val_text(const char* path, bool quiet) {
    char line[kValueLine];
    if (const host::FileBytes* seen = host::view_file(path)) {
        if (!seen->opened) {
            say_open_failed("read_val", path, quiet);
            return 0;
        }
        return seen->gets(line, sizeof line) ? value_of_line(line) : 0;
    }
    std::FILE* f = std::fopen(path, "r");
    if (f == nullptr) {
        say_open_failed("read_val", path, quiet);
        return 0;
    }
    if (std::fgets(line, sizeof line, f) == nullptr) {
        // An empty file reads as WWN 0, which matches no port. (The file
        // used to be left open here; callers cannot tell, and closing it
        // keeps a long-lived agent from running out of descriptors.)
        std::fclose(f);
        return 0;
    }
    const unsigned long value = value_of_line(line);
    std::fclose(f);
    return value;
}

unsigned long value_in_view(const char* path) {
    const host::FileBytes* seen = host::view_file(path);
    char line[kValueLine];
    return seen != nullptr && seen->opened && seen->gets(line, sizeof line) ? value_of_line(line) : 0;
}

int read_proc_text(const char* path, unsigned long* out, int base, bool quiet) {
    host::File f(path);
    // Only a descriptor above 0 counts: an open that hands out descriptor 0
    // (standard input was closed) is reported as a failure, and callers see
    // -1 with *out untouched.
    if (f.open_result() <= 0) {
        f.close();
        say_open_failed("read_proc", path, quiet);
        return -1;
    }
    // At most 16 bytes are read and the conversion stops at the file's own
    // newline: a longer number is cut to its first 16 characters. The byte
    // after what was read is a terminator, so a file without a newline (or
    // an unreadable one, which reads as empty and converts to 0) cannot take
    // the conversion past the bytes read.
    char buf[kProcBytes + 1];
    ssize_t n = f.read(buf, kProcBytes);
    if (n < 0) n = 0;
    buf[n] = '\0';
    char* end = nullptr;
    *out = static_cast<unsigned long>(std::strtol(buf, &end, base));
    f.close();
    return 0;
}

}  // namespace mv

unsigned long read_val(const char* path) {
    const mv::EntryLock entry_lock;
    return mv::read_val_text(path, false);
}

int read_proc(const char* path, unsigned long* out, int base) {
    const mv::EntryLock entry_lock;
    return mv::read_proc_text(path, out, base, false);
}
