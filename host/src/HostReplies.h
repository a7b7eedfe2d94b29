// Replies the host writes, made so that writing them cannot fail: text from a client (a path, a header,
// a body) may hold bytes that are not UTF-8, and a JSON writer that throws on them would turn a request
// into a crash or a 500. Stateless; thread-safe.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "HttpServer.h"

namespace NyHost {

// Compact JSON; bytes that are not UTF-8 become U+FFFD. Never throws for invalid text.
std::string SafeDump(const nlohmann::json& value);
// {"status": 0, "message": <message>, "causes": []}, written with SafeDump, with Content-Type
// application/json.
HttpResponse ErrorReply(int status, const std::string& message);
// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool IsValidUtf8(std::string_view text);
// `text` with every byte that is not printable ASCII (line breaks, escapes, bytes past 0x7E) and the
// backslash written as \xNN, cut at `limit` bytes: safe to put into one log line.
std::string ForLog(std::string_view text, std::size_t limit = 256);

}  // namespace NyHost
