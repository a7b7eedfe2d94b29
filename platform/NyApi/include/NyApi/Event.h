// `Ny::Event<Args...>`: an ordered list of handlers raised synchronously.
//
// `Subscribe` appends a handler and returns a handle that removes exactly that handler.
// `Raise` calls every handler in subscription order on the raising thread, each with its own copy of
// the arguments; an exception from a handler stops the raise and passes to the raiser.
//
// Threading: subscribing, unsubscribing and raising are safe from any thread at any time. A raise
// works on a snapshot of the list taken when it starts, but skips handlers removed meanwhile. A
// handler may remove itself (or others) during a raise. `Unsubscribe` from another thread returns
// only when that handler is no longer running on any other thread, so the owner of a handler may be
// destroyed right after unsubscribing. The event's own mutex is never held while a handler runs.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Ny {

namespace Internal {

// Bookkeeping shared by all events: which handler entries the current thread is running, so that a
// handler unsubscribing itself does not wait for its own return.
struct HandlerEntryBase {
    std::uint64_t id = 0;
    bool removed = false;  // guarded by the owning event's mutex
    unsigned active = 0;   // guarded by the owning event's mutex: calls in progress, on all threads
};

void PushRunningHandler(const HandlerEntryBase* entry);
void PopRunningHandler();
unsigned RunningOnThisThread(const HandlerEntryBase* entry);

}  // namespace Internal

template <typename... Args>
class Event {
  public:
    using Handler = std::function<void(Args...)>;

    // Identifies one subscription. 0 is never a valid handle.
    using Handle = std::uint64_t;

    Event() = default;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    // Handlers must be removed (or never run again) before the event dies.
    ~Event() = default;

    Handle Subscribe(Handler handler) {
        auto entry = std::make_shared<Entry>();
        entry->handler = std::move(handler);
        std::lock_guard guard(mutex);
        entry->id = ++lastId;
        entries.push_back(entry);
        return entry->id;
    }

    // Removes the handler; unknown or already removed handles are ignored. Waits until calls of this
    // handler on other threads have returned (see the class comment).
    void Unsubscribe(Handle handle) {
        std::unique_lock guard(mutex);
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            if ((*it)->id != handle) {
                continue;
            }
            std::shared_ptr<Entry> entry = *it;
            entry->removed = true;
            entries.erase(it);
            const unsigned mine = Internal::RunningOnThisThread(entry.get());
            idle.wait(guard, [&] { return entry->active <= mine; });
            return;
        }
    }

    void Raise(Args... args) {
        std::vector<std::shared_ptr<Entry>> snapshot;
        {
            std::lock_guard guard(mutex);
            if (entries.empty()) {
                return;
            }
            snapshot = entries;
        }
        for (const auto& entry : snapshot) {
            {
                std::lock_guard guard(mutex);
                if (entry->removed) {
                    continue;
                }
                ++entry->active;
            }
            Running running(*this, *entry);
            entry->handler(args...);
        }
    }

    size_t HandlerCount() const {
        std::lock_guard guard(mutex);
        return entries.size();
    }

  private:
    struct Entry : Internal::HandlerEntryBase {
        Handler handler;
    };

    // Marks a handler call as in progress for its whole duration, also when the handler throws.
    class Running {
      public:
        Running(Event& eventIn, Entry& entryIn) : event(eventIn), entry(entryIn) {
            Internal::PushRunningHandler(&entry);
        }
        ~Running() {
            Internal::PopRunningHandler();
            {
                std::lock_guard guard(event.mutex);
                --entry.active;
            }
            event.idle.notify_all();
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

      private:
        Event& event;
        Entry& entry;
    };

    mutable std::mutex mutex;                     // guards entries, lastId and each entry's removed/active
    std::condition_variable idle;                 // signalled when a handler call returns
    std::vector<std::shared_ptr<Entry>> entries;  // guarded by mutex
    std::uint64_t lastId = 0;                     // guarded by mutex
};

}  // namespace Ny
