// `Ny::Event<Args...>`: an ordered list of handlers raised synchronously.
//
// `Subscribe` appends a handler and returns a handle that removes exactly that handler.
// `SubscribeScoped` does the same but returns a move-only `Ny::Subscription` that removes the handler
// when it is destroyed or reset: the form to use wherever an object subscribes one of its own members,
// so that no event can reach it once it is gone. A subscription may outlive its event (the routine
// whose events it follows may be destroyed first); it then does nothing.
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
#include "NyApi/Mutex.h"

namespace Ny {

namespace Internal {

// Bookkeeping shared by all events: which handler entries the current thread is running, so that a
// handler unsubscribing itself does not wait for its own return.
struct HandlerEntryBase {
    std::uint64_t id = 0;
    bool removed = false;  // guarded by the owning event's mutex
    unsigned active = 0;   // guarded by the owning event's mutex: calls in progress, on all threads
};

// The part of an event that outlives it while a `Subscription` is removing a handler.
class EventStateBase {
  public:
    virtual ~EventStateBase() = default;
    virtual void Unsubscribe(std::uint64_t handle) = 0;
};

void PushRunningHandler(const HandlerEntryBase* entry);
void PopRunningHandler();
unsigned RunningOnThisThread(const HandlerEntryBase* entry);

}  // namespace Internal

// Removes one handler from one event when destroyed, reset or assigned over. Move-only. Resetting
// waits, like `Event::Unsubscribe`, until the handler is no longer running on another thread, so the
// subscriber may die right after. Not thread-safe itself (one owner), but may be reset on any thread.
class Subscription {
  public:
    Subscription() = default;
    ~Subscription() { Reset(); }
    Subscription(Subscription&& other) noexcept
        : state(std::move(other.state)), handle(std::exchange(other.handle, 0)) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            Reset();
            state = std::move(other.state);
            handle = std::exchange(other.handle, 0);
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // Removes the handler now; nothing happens when it is empty or its event is gone.
    void Reset() {
        const auto live = state.lock();
        state.reset();
        if (live && handle != 0) {
            live->Unsubscribe(handle);
        }
        handle = 0;
    }
    explicit operator bool() const { return handle != 0 && !state.expired(); }

  private:
    template <typename... Args>
    friend class Event;
    Subscription(std::weak_ptr<Internal::EventStateBase> stateIn, std::uint64_t handleIn)
        : state(std::move(stateIn)), handle(handleIn) {}

    std::weak_ptr<Internal::EventStateBase> state;
    std::uint64_t handle = 0;
};

template <typename... Args>
class Event {
  public:
    using Handler = std::function<void(Args...)>;

    // Identifies one subscription. 0 is never a valid handle.
    using Handle = std::uint64_t;

    Event() = default;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    // Handlers subscribed with a plain handle must be removed (or never run again) before the event
    // dies; scoped subscriptions are released by the event's death.
    ~Event() = default;

    Handle Subscribe(Handler handler) {
        auto entry = std::make_shared<Entry>();
        entry->handler = std::move(handler);
        MutexLock guard(state->mutex);
        entry->id = ++state->lastId;
        state->entries.push_back(entry);
        return entry->id;
    }

    [[nodiscard]] Subscription SubscribeScoped(Handler handler) {
        return Subscription(state, Subscribe(std::move(handler)));
    }

    // Removes the handler; unknown or already removed handles are ignored. Waits until calls of this
    // handler on other threads have returned (see the class comment).
    void Unsubscribe(Handle handle) { state->Unsubscribe(handle); }

    void Raise(Args... args) {
        std::vector<std::shared_ptr<Entry>> snapshot;
        {
            MutexLock guard(state->mutex);
            if (state->entries.empty()) {
                return;
            }
            snapshot = state->entries;
        }
        for (const auto& entry : snapshot) {
            {
                MutexLock guard(state->mutex);
                if (entry->removed) {
                    continue;
                }
                ++entry->active;
            }
            Running running(*state, *entry);
            entry->handler(args...);
        }
    }

    size_t HandlerCount() const {
        MutexLock guard(state->mutex);
        return state->entries.size();
    }

  private:
    struct Entry : Internal::HandlerEntryBase {
        Handler handler;
    };

    struct State final : Internal::EventStateBase {
        void Unsubscribe(std::uint64_t handle) override {
            MutexLock guard(mutex);
            for (auto it = entries.begin(); it != entries.end(); ++it) {
                if ((*it)->id != handle) {
                    continue;
                }
                std::shared_ptr<Entry> entry = *it;
                entry->removed = true;
                entries.erase(it);
                const unsigned mine = Internal::RunningOnThisThread(entry.get());
                while (entry->active > mine) {
                    idle.Wait(mutex);
                }
                return;
            }
        }

        // Guards entries, lastId and each entry's removed/active. Innermost: no handler runs under it.
        mutable Mutex mutex;
        CondVar idle;  // signalled when a handler call returns
        std::vector<std::shared_ptr<Entry>> entries NY_GUARDED_BY(mutex);
        std::uint64_t lastId NY_GUARDED_BY(mutex) = 0;
    };

    // Marks a handler call as in progress for its whole duration, also when the handler throws.
    class Running {
      public:
        Running(State& stateIn, Entry& entryIn) : state(stateIn), entry(entryIn) {
            Internal::PushRunningHandler(&entry);
        }
        ~Running() {
            Internal::PopRunningHandler();
            // Notified under the lock: the unsubscriber may go on to destroy what owns the event.
            MutexLock guard(state.mutex);
            --entry.active;
            state.idle.NotifyAll();
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

      private:
        State& state;
        Entry& entry;
    };

    // Shared so that a `Subscription` outliving the event finds it gone rather than dangling.
    const std::shared_ptr<State> state = std::make_shared<State>();
};

}  // namespace Ny
