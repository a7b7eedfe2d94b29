#include "HostReplies.h"

#include <cstdio>

namespace NyHost {

std::string SafeDump(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

HttpResponse ErrorReply(int httpStatus, const std::string& message, int engineStatus) {
    HttpResponse response;
    response.status = httpStatus;
    response.headers.emplace_back("Content-Type", "application/json");
    response.body =
        SafeDump({{"status", engineStatus}, {"message", message}, {"causes", nlohmann::json::array()}});
    return response;
}

bool IsValidUtf8(std::string_view text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x80) {
            ++i;
            continue;
        }
        size_t length = 0;
        unsigned long code = 0;
        unsigned long smallest = 0;
        if ((byte & 0xE0) == 0xC0) {
            length = 2, code = byte & 0x1F, smallest = 0x80;
        } else if ((byte & 0xF0) == 0xE0) {
            length = 3, code = byte & 0x0F, smallest = 0x800;
        } else if ((byte & 0xF8) == 0xF0) {
            length = 4, code = byte & 0x07, smallest = 0x10000;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (next & 0x3F);
        }
        if (code < smallest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

std::string ForLog(std::string_view text, std::size_t limit) {
    std::string out;
    for (size_t i = 0; i < text.size() && i < limit; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 || byte > 0x7E || byte == '\\') {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            out += escaped;
        } else {
            out.push_back(static_cast<char>(byte));
        }
    }
    if (text.size() > limit) {
        out += "...";
    }
    return out;
}

}  // namespace NyHost
