#include "LogCapture.h"

#include <algorithm>

#include "NyRuntime/Runtime.h"

namespace NyTest {

LogCapture::LogCapture() {
    previous = Ny::Logging::SetSink([this](const Ny::Logging::LogRecord& record) {
        {
            std::lock_guard guard(mutex);
            records.push_back(record);
        }
        added.notify_all();
    });
    previousRuntime = NyRt::SetLogSink([this](std::string_view line) {
        {
            std::lock_guard guard(mutex);
            runtimeLines.emplace_back(line);
        }
        added.notify_all();
    });
}

LogCapture::~LogCapture() {
    Ny::Logging::SetSink(std::move(previous));
    NyRt::SetLogSink(std::move(previousRuntime));
}

std::vector<Ny::Logging::LogRecord> LogCapture::Records() const {
    std::lock_guard guard(mutex);
    return records;
}

std::vector<std::string> LogCapture::Texts() const {
    std::lock_guard guard(mutex);
    std::vector<std::string> texts;
    for (const auto& record : records) {
        texts.push_back(record.text);
    }
    return texts;
}

std::vector<std::string> LogCapture::Texts(std::uint64_t levelWord) const {
    std::lock_guard guard(mutex);
    std::vector<std::string> texts;
    for (const auto& record : records) {
        if (record.levelWord == levelWord) {
            texts.push_back(record.text);
        }
    }
    return texts;
}

std::vector<std::string> LogCapture::RuntimeLines() const {
    std::lock_guard guard(mutex);
    return runtimeLines;
}

bool LogCapture::Contains(const std::string& text) const {
    return Count(text) > 0;
}

size_t LogCapture::Count(const std::string& text) const {
    std::lock_guard guard(mutex);
    return static_cast<size_t>(std::count_if(records.begin(), records.end(),
                                             [&](const auto& record) { return record.text == text; }) +
                               std::count(runtimeLines.begin(), runtimeLines.end(), text));
}

bool LogCapture::WaitFor(const std::string& text, size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock guard(mutex);
    return added.wait_for(guard, timeout, [&] {
        const auto n = std::count_if(records.begin(), records.end(),
                                     [&](const auto& record) { return record.text == text; }) +
                       std::count(runtimeLines.begin(), runtimeLines.end(), text);
        return static_cast<size_t>(n) >= count;
    });
}

void LogCapture::Clear() {
    std::lock_guard guard(mutex);
    records.clear();
    runtimeLines.clear();
}

}  // namespace NyTest
