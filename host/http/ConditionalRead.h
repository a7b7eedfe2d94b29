// Conditional reads: entity tags on the replies to reads, and "304 Not Modified" for a client that
// already holds the current representation.
//
// Every 200 reply to a GET (HEAD is handled as GET) that has a body gets a strong entity tag: the body's
// 64-bit FNV-1a hash as 16 lowercase hex digits, in quotes. The hash is a fixed function of the bytes, so
// the tag of an unchanged document stays the same across requests and across runs of the server. A
// handler that sets "ETag" itself keeps its own.
//
// If-None-Match (any number of headers, each a list of entity tags, or "*") is compared weakly, as reads
// require: a tag matches whether or not either side is marked weak. A match turns the reply into a 304
// that carries the tag and the cache headers a 200 would, and no body. A list the transport cannot read
// matches nothing, so a malformed header costs the client its saving, never its reply.
//
// Pure functions of their arguments; any thread.
#pragma once

#include <string>
#include <string_view>

#include "HttpServer.h"

namespace NyHost {

// "\"" + 16 lowercase hex digits of the body's hash + "\"".
std::string StrongEntityTag(std::string_view body);

// True when the If-None-Match list `condition` matches `entityTag` (a quoted tag, weak or strong).
bool NoneMatchHolds(std::string_view condition, std::string_view entityTag);

// Adds the tag to a 200 GET reply with a body that has none, and answers 304 when the request's
// If-None-Match matches it. Leaves every other reply as it is.
void ApplyConditionalRead(const HttpRequest& request, HttpResponse& response);

}  // namespace NyHost
