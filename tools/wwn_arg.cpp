#include "tools/wwn_arg.h"

#include <cctype>
#include <cstdio>

namespace mv::tool {

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<Wwn> refuse(std::string* why, const std::string& reason) {
    if (why != nullptr) *why = reason;
    return std::nullopt;
}

}  // namespace

std::optional<Wwn> parse_wwn(const std::string& text, std::string* why) {
    const char* kForm = "expected 16 hex digits, optionally with a colon between bytes (21:00:00:1b:9e:a1:00:00)";
    std::string digits;
    if (text.size() == 16) {
        digits = text;
    } else if (text.size() == 23) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (i % 3 == 2) {
                if (text[i] != ':') return refuse(why, kForm);
            } else {
                digits += text[i];
            }
        }
    } else {
        return refuse(why, kForm);
    }
    Wwn w{};
    for (std::size_t i = 0; i < 8; ++i) {
        const int hi = hex_value(digits[2 * i]);
        const int lo = hex_value(digits[2 * i + 1]);
        if (hi < 0 || lo < 0) return refuse(why, kForm);
        w[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    if (w[0] == 0) return refuse(why, "a WWN whose first byte is 00 reads as no WWN at all to the library");
    return w;
}

std::string wwn_text(const uint8_t* w) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", w[0], w[1], w[2], w[3], w[4], w[5],
                  w[6], w[7]);
    return buf;
}

}  // namespace mv::tool
