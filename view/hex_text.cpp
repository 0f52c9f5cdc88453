#include "view/hex_text.h"

#include <cstdio>

namespace mv::tool {

std::string hex_bytes(const uint8_t* data, std::size_t n, char sep) {
    std::string out;
    out.reserve(n * 3);
    char buf[4];
    for (std::size_t i = 0; i < n; ++i) {
        if (i != 0 && sep != '\0') out += sep;
        std::snprintf(buf, sizeof buf, "%02x", data[i]);
        out += buf;
    }
    return out;
}

}  // namespace mv::tool
