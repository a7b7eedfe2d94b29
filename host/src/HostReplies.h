// Replies the host writes, made so that writing them cannot fail: text from a client (a path, a header,
// a body) may hold bytes that are not UTF-8, and a JSON writer that throws on them would turn a request
// into a crash or a 500. Stateless; thread-safe.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "HttpServer.h"
#include "NyApi/Status.h"

namespace NyHost {

// Compact JSON; bytes that are not UTF-8 become U+FFFD. Never throws for invalid text.
std::string SafeDump(const nlohmann::json& value);
// {"status": <engineStatus>, "message": <message>, "causes": []}, written with SafeDump, with
// Content-Type application/json. The host's own refusals carry no engine status (Wrapped, 0), except
// where the engine would have refused the same request itself (a body that is not text: InvalidValue).
HttpResponse ErrorReply(int httpStatus, const std::string& message, int engineStatus = Ny::Status::Wrapped);
// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF).
bool IsValidUtf8(std::string_view text);
// `text` with every byte that is not printable ASCII (line breaks, escapes, bytes past 0x7E) and the
// backslash written as \xNN, cut at `limit` bytes: safe to put into one log line.
std::string ForLog(std::string_view text, std::size_t limit = 256);

}  // namespace NyHost
