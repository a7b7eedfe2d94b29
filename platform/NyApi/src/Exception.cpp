#include "NyApi/Exception.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "NyApi/Logging.h"
#include "NyRuntime/Runtime.h"

namespace Ny {

namespace {

// Calls `visit` for `e` and then for each exception nested inside it, outermost first.
template <typename Visit>
void WalkChain(const std::exception& e, Visit&& visit) {
    visit(e);
    try {
        std::rethrow_if_nested(e);
    } catch (const std::exception& inner) {
        WalkChain(inner, visit);
    } catch (...) {
        // A nested exception of a foreign type ends the chain; there is nothing more to say about it.
    }
}

}  // namespace

Exception::Exception(Unchecked, int lineIn, const char* fileIn, int statusIn, const char* contextIn,
                     const char* format, ...)
    : line(lineIn), file(fileIn ? fileIn : ""), status(statusIn), context(contextIn ? contextIn : "") {
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        message = NyRt::FormatV(format, args);
        va_end(args);
    }
    text = message.empty() ? context + " failed with status " + std::to_string(status) : message;
}

void Exception::LogException(const std::exception& e, std::uint64_t levelWord) {
    const std::uint64_t level = levelWord == 0 ? Logging::Level::CaughtFailure : levelWord;
    int depth = 0;
    WalkChain(e, [&](const std::exception& link) {
        const auto* ny = dynamic_cast<const Exception*>(&link);
        Logging::Ny_Debug_Log(ny ? ny->Line() : 0, ny ? ny->File().c_str() : "", level,
                              ny ? ny->Context().c_str() : "std::exception", "%*s%s (status %d)", depth * 2,
                              "", link.what(), StatusOf(link));
        ++depth;
    });
}

void Exception::LogBackTrace(const std::exception& e) {
    WalkChain(e, [](const std::exception& link) {
        if (const auto* ny = dynamic_cast<const Exception*>(&link)) {
            Logging::Ny_Debug_Log(ny->Line(), ny->File().c_str(), Logging::Level::CaughtFailure,
                                  ny->Context().c_str(), "  thrown at %s:%d in %s", ny->File().c_str(),
                                  ny->Line(), ny->Context().c_str());
        } else {
            Logging::Ny_Debug_Log(0, "", Logging::Level::CaughtFailure, "std::exception",
                                  "  thrown outside the API library: %s", link.what());
        }
    });
}

std::vector<std::string> Exception::NestedMessages(const std::exception& e) {
    std::vector<std::string> messages;
    bool first = true;
    WalkChain(e, [&](const std::exception& link) {
        if (!first) {
            messages.emplace_back(link.what());
        }
        first = false;
    });
    return messages;
}

void Exception::AddField(std::string path, std::string fieldMessage) {
    fields.push_back({std::move(path), std::move(fieldMessage)});
}

std::vector<Exception::FieldRefusal> Exception::FieldsOf(const std::exception& e) {
    std::vector<FieldRefusal> all;
    WalkChain(e, [&all](const std::exception& link) {
        if (const auto* ny = dynamic_cast<const Exception*>(&link)) {
            all.insert(all.end(), ny->Fields().begin(), ny->Fields().end());
        }
    });
    return all;
}

int StatusOf(const std::exception& e) noexcept {
    const auto* ny = dynamic_cast<const Exception*>(&e);
    return ny ? ny->Status() : 0;
}

}  // namespace Ny
