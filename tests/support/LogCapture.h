// Captures debug-log and runtime-log lines for the lifetime of the object and restores the previous
// sinks afterwards, so that tests never leak a sink into each other. Thread-safe: lines may arrive
// from routine threads while the test reads them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "NyApi/Logging.h"

namespace NyTest {

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Ny::Logging::LogRecord> Records() const;
    // Texts of the captured debug-log lines, optionally only those with the level word.
    std::vector<std::string> Texts() const;
    std::vector<std::string> Texts(std::uint64_t levelWord) const;
    // Lines written through the runtime library's printf-style log.
    std::vector<std::string> RuntimeLines() const;
    bool Contains(const std::string& text) const;
    size_t Count(const std::string& text) const;
    // Waits (bounded) until a line with exactly this text has been captured `count` times.
    bool WaitFor(const std::string& text, size_t count = 1,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void Clear();

  private:
    mutable std::mutex mutex;
    mutable std::condition_variable added;
    std::vector<Ny::Logging::LogRecord> records;  // guarded by mutex
    std::vector<std::string> runtimeLines;        // guarded by mutex
    Ny::Logging::LogSink previous;
    std::function<void(std::string_view)> previousRuntime;
};

}  // namespace NyTest
