#include "EventJournal.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <random>

#include <nlohmann/json.hpp>

namespace NyHost {

namespace {

constexpr std::size_t kRunDigits = 8;
// The longest decimal a 64-bit counter is written with; a longer number cannot be one of ours, and is
// refused before it is converted.
constexpr std::size_t kMaxNumberDigits = 20;

std::string RunText(std::uint32_t run) {
    if (run == 0) {
        // Two servers started at the same moment must not share a run: seeded from the device, not the
        // clock. Zero is kept for "pick one".
        std::random_device device;
        std::uniform_int_distribution<std::uint32_t> pick(1, UINT32_MAX);
        run = pick(device);
    }
    char text[kRunDigits + 1];
    std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(run));
    return text;
}

bool IsLowerHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

}  // namespace

EventJournal::EventJournal(std::size_t maxFramesIn, std::size_t maxBytesIn, std::uint32_t runIn)
    : maxFrames(std::max<std::size_t>(maxFramesIn, 1)),
      maxBytes(std::max<std::size_t>(maxBytesIn, 1)),
      run(RunText(runIn)) {}

std::string EventJournal::Id(std::uint64_t number) const {
    return run + "-" + std::to_string(number);
}

std::string EventJournal::LatestId() const {
    return Id(latest);
}

// A line break inside `data` would end the field early; each line becomes a "data: " line of its own,
// which stream clients join again with "\n".
EventJournal::Frame EventJournal::Append(std::string_view event, std::string_view data) {
    ++latest;
    const std::string id = Id(latest);
    std::string text;
    text.reserve(id.size() + event.size() + data.size() + 24);
    text += "id: ";
    text += id;
    text += "\nevent: ";
    text += event;
    text += '\n';
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = data.find('\n', start);
        text += "data: ";
        text += data.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        text += '\n';
        if (end == std::string_view::npos) {
            break;
        }
        start = end + 1;
    }
    text += '\n';
    auto frame = std::make_shared<const std::string>(std::move(text));
    frames.push_back(frame);
    keptBytes += frame->size();
    // The newest frame stays even when it alone is over the byte bound: a client that saw the one before
    // it can still resume.
    while (frames.size() > 1 && (frames.size() > maxFrames || keptBytes > maxBytes)) {
        keptBytes -= frames.front()->size();
        frames.pop_front();
    }
    return frame;
}

EventJournal::Frame EventJournal::ResetFrame(std::string_view reason) const {
    const nlohmann::json data{{"type", "reset"}, {"reason", reason}};
    return std::make_shared<const std::string>(
        "id: " + LatestId() + "\nevent: reset\ndata: " +
        data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n\n");
}

EventJournal::Resumption EventJournal::After(std::string_view lastEventId) const {
    // The reasons never quote the id: it is the client's text, of any length and bytes.
    const auto reset = [this](std::string_view reason) { return Resumption{{ResetFrame(reason)}, true}; };
    const std::string_view digits =
        lastEventId.size() > kRunDigits + 1 ? lastEventId.substr(kRunDigits + 1) : std::string_view();
    if (lastEventId.size() < kRunDigits + 2 || lastEventId.size() > kRunDigits + 1 + kMaxNumberDigits ||
        lastEventId[kRunDigits] != '-' ||
        !std::all_of(lastEventId.begin(), lastEventId.begin() + kRunDigits, IsLowerHex) ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
        (digits.size() > 1 && digits.front() == '0')) {
        return reset("The event id is malformed.");
    }
    if (lastEventId.substr(0, kRunDigits) != run) {
        return reset("The event id is from another run of the server.");
    }
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size()) {
        return reset("The event id is malformed.");  // beyond 64 bits: never issued
    }
    if (number > latest) {
        return reset("The event id is ahead of the latest event.");
    }
    const std::uint64_t oldestKept = latest - frames.size() + 1;
    if (number + 1 < oldestKept) {
        return reset("The events after this id are no longer kept.");
    }
    const auto missed = static_cast<std::size_t>(latest - number);
    return Resumption{{frames.end() - static_cast<std::ptrdiff_t>(missed), frames.end()}, false};
}

}  // namespace NyHost
