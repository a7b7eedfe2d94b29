#include "ConditionalRead.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>

namespace NyHost {

namespace {

// The tag without its weakness marker: weak comparison looks only at this.
std::string_view Opaque(std::string_view entityTag) {
    if (entityTag.size() >= 2 && entityTag[0] == 'W' && entityTag[1] == '/') {
        entityTag.remove_prefix(2);
    }
    return entityTag;
}

bool IsListSpace(char c) {
    return c == ' ' || c == '\t' || c == ',';
}

// The headers a 304 repeats from the 200 it stands for; the rest describe a body it does not have.
bool KeptOnNotModified(std::string_view name) {
    for (const std::string_view kept :
         {"ETag", "Cache-Control", "Content-Location", "Date", "Expires", "Vary"}) {
        if (EqualsIgnoringCase(name, kept)) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string StrongEntityTag(std::string_view body) {
    std::uint64_t hash = 14695981039346656037ull;  // FNV-1a 64: offset basis and prime
    for (const char c : body) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 1099511628211ull;
    }
    char text[19];
    std::snprintf(text, sizeof text, "\"%016llx\"", static_cast<unsigned long long>(hash));
    return text;
}

bool NoneMatchHolds(std::string_view condition, std::string_view entityTag) {
    const std::string_view wanted = Opaque(entityTag);
    std::size_t i = 0;
    while (i < condition.size()) {
        if (IsListSpace(condition[i])) {
            ++i;
            continue;
        }
        if (condition[i] == '*') {
            return true;
        }
        std::size_t start = i;
        if (condition.compare(i, 2, "W/") == 0) {
            i += 2;
        }
        if (i >= condition.size() || condition[i] != '"') {
            return false;  // not a list of entity tags
        }
        // An entity tag holds no quote, but may hold a comma: its end is the next quote.
        const std::size_t close = condition.find('"', i + 1);
        if (close == std::string_view::npos) {
            return false;
        }
        if (Opaque(condition.substr(start, close + 1 - start)) == wanted) {
            return true;
        }
        i = close + 1;
    }
    return false;
}

void ApplyConditionalRead(const HttpRequest& request, HttpResponse& response) {
    if (request.method != "GET" || response.status != 200 || response.body.empty()) {
        return;
    }
    const auto own = std::find_if(response.headers.begin(), response.headers.end(), [](const auto& header) {
        return EqualsIgnoringCase(header.first, "ETag");
    });
    const std::string entityTag =
        own != response.headers.end() ? own->second : StrongEntityTag(response.body);
    if (own == response.headers.end()) {
        response.headers.emplace_back("ETag", entityTag);
    }
    const bool matched = std::any_of(request.headers.begin(), request.headers.end(), [&](const auto& header) {
        return EqualsIgnoringCase(header.first, "If-None-Match") && NoneMatchHolds(header.second, entityTag);
    });
    if (!matched) {
        return;
    }
    response.status = 304;
    response.body.clear();
    std::erase_if(response.headers, [](const auto& header) { return !KeptOnNotModified(header.first); });
}

}  // namespace NyHost
