// Waiting helpers for tests: a bounded poll and a one-shot gate (never a bare sleep as an assertion).
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace NyTest {

// The bound of a wait that should end long before it: generous, so that a slow sanitizer build never
// fails a test by its timing.
constexpr auto Generous = std::chrono::seconds(10);

// Polls `condition` until it holds or `timeout` passes; true when it holds.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A one-shot gate: Open() lets every Wait() through.
class Gate {
  public:
    void Open() {
        {
            std::lock_guard guard(mutex);
            open = true;
        }
        opened.notify_all();
    }
    bool Wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock guard(mutex);
        return opened.wait_for(guard, timeout, [this] { return open; });
    }
    bool IsOpen() {
        std::lock_guard guard(mutex);
        return open;
    }

  private:
    std::mutex mutex;
    std::condition_variable opened;
    bool open = false;
};

}  // namespace NyTest
