// `Metrics`: the host's numbers for monitoring, and their rendering in the Prometheus text exposition
// format (version 0.0.4) that "/metrics" serves.
//
// What it counts: routines created and finished (by registered type and outcome), live routines,
// creations refused (by cause), HTTP requests (by method and status class) with a duration histogram,
// and plug-in libraries refused. What it samples at rendering time: event clients, event clients
// dropped, plug-in libraries loaded (`Sampled`, filled by the owner from the parts that know).
//
// Every label set is bounded by construction: methods are bucketed into seven names and "other", status
// codes into five classes, refusal causes and outcomes are fixed, and a type's slot is only ever made
// for a type the engine created a routine of (an unknown type is a refusal, never a label).
//
// Threading: every counting call is lock-free (relaxed atomics in slots made once), so a request or a
// routine thread never waits to count itself; only the first routine of a type takes `typesMutex`, to
// make its slot. `Render` takes that mutex just long enough to list the slots. Owned by the host
// service; it outlives every part that counts into it (`RoutineTally`, the transport's hook).
//
// `RoutineTally` follows the routine manager's created and deleted events and each routine's updated
// event, and counts into a `Metrics`. Built after the module and destroyed before it, on the host's
// thread; its handlers run on request, routine and clear threads.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyCommon/RoutineState.h"
#include "NyRoutine/Engine/RoutineManager.h"

namespace NyHost {

// Why a creation was refused. The words are the "cause" label's values.
enum class RefusalCause : std::size_t { Limit, UnknownType, InvalidRequest, ShuttingDown, Busy };

class Metrics {
  public:
    // One registered type's counters; made once per type, never moved or freed while the Metrics lives.
    struct TypeCounters {
        std::atomic<std::uint64_t> created{0};  // all: relaxed increments by the tally, read by Render
        std::atomic<std::uint64_t> completed{0};
        std::atomic<std::uint64_t> aborted{0};
        std::atomic<std::uint64_t> failed{0};
    };
    // What only other parts know, read by the owner when it renders.
    struct Sampled {
        std::size_t eventClients = 0;
        std::uint64_t eventClientsDropped = 0;
        std::size_t pluginLibraries = 0;
    };

    static constexpr std::size_t kMethodCount = 8;  // seven methods and "other"
    static constexpr std::size_t kStatusClassCount = 5;
    static constexpr std::size_t kCauseCount = 5;
    // Upper bounds of the duration histogram, in seconds; "+Inf" follows them.
    static constexpr std::array<double, 14> kDurationBounds = {
        0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10};
    static constexpr std::string_view kContentType = "text/plain; version=0.0.4; charset=utf-8";

    explicit Metrics(std::chrono::system_clock::time_point startTime = std::chrono::system_clock::now());
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    // The slot of a registered type, made on first use. Thread-safe; takes `typesMutex`.
    TypeCounters& Type(const std::string& typeName) NY_EXCLUDES(typesMutex);
    // Counts a routine created (and live) / finished with this state / gone. Thread-safe, lock-free.
    static void CountCreated(TypeCounters& type) { type.created.fetch_add(1, std::memory_order_relaxed); }
    // Counts nothing for a state that is not a stopped one.
    static void CountFinished(TypeCounters& type, NyCommon::RoutineState outcome);
    void RoutineAppeared() { live.fetch_add(1, std::memory_order_relaxed); }
    void RoutineGone() { live.fetch_sub(1, std::memory_order_relaxed); }

    void CountRefusal(RefusalCause cause);
    // One answered request. `method` is any token a client sent. Thread-safe, lock-free; never throws.
    void CountRequest(std::string_view method, int status,
                      std::chrono::steady_clock::duration duration) noexcept;
    void CountPluginRefusals(std::size_t refusals) {
        pluginRefusals.fetch_add(refusals, std::memory_order_relaxed);
    }

    // The whole exposition. Thread-safe; holds `typesMutex` only while listing the type slots.
    std::string Render(const Sampled& sampled) const NY_EXCLUDES(typesMutex);

    // The method's label index: 0..6 for GET HEAD POST PUT DELETE PATCH OPTIONS (as sent, case and all,
    // since methods are case-sensitive), 7 ("other") for anything else.
    static std::size_t MethodIndex(std::string_view method) noexcept;
    // `value` as a label value between double quotes: backslash, double quote and line feed escaped, and
    // bytes that are not UTF-8 replaced by U+FFFD (the format's text must be UTF-8).
    static std::string EscapeLabel(std::string_view value);
    // Which cause the engine's failed reply to "POST /routines" stands for; none when it is no refusal (a
    // routine was created, or the creation failed for another reason, such as a factory that made
    // nothing). `systemRunning`: the core's run state refuses creations now. The host's own refusals
    // (shutting down, too many asynchronous creations, a body that is not text) are counted where it
    // makes them.
    static std::optional<RefusalCause> CreationRefusal(int httpStatus, int engineStatus, bool created,
                                                       bool systemRunning);

  private:
    using Counter = std::atomic<std::uint64_t>;  // relaxed: each is an independent tally

    const double startSeconds;
    std::atomic<std::int64_t> live{0};  // relaxed; written by the tally's handlers
    std::array<Counter, kCauseCount> refusals{};
    Counter pluginRefusals{0};
    std::array<std::array<Counter, kStatusClassCount>, kMethodCount> requests{};
    // Per method: one count per bound and one past the last (the "+Inf" only part), not cumulative, so
    // that an observation is one increment; Render sums them up.
    std::array<std::array<Counter, kDurationBounds.size() + 1>, kMethodCount> durationBuckets{};
    std::array<Counter, kMethodCount> durationNanos{};

    // Guards the map of type slots (not the counters in them); a leaf lock, nothing is called under it.
    mutable Ny::Mutex typesMutex;
    std::map<std::string, std::unique_ptr<TypeCounters>> types NY_GUARDED_BY(typesMutex);
};

class RoutineTally {
  public:
    // Subscribes to the manager's created and deleted events; counts only routines created from now on.
    RoutineTally(Metrics& metrics, NyRoutine::Internal::RoutineManager& manager);
    // Unsubscribes from everything, waiting for handlers running on other threads.
    ~RoutineTally();
    RoutineTally(const RoutineTally&) = delete;
    RoutineTally& operator=(const RoutineTally&) = delete;

  private:
    // What the routine's updated handler needs; shared with it, so it needs no lock to count once.
    struct Outcome {
        explicit Outcome(Metrics::TypeCounters& typeIn) : type(typeIn) {}
        Metrics::TypeCounters& type;
        std::atomic<bool> counted{false};  // set once, by whichever thread sees the routine stopped first
        // Counts the routine finished the first time it is seen stopped. Thread-safe.
        void Observe(NyCommon::RoutineState state);
    };
    struct Tracked {
        std::shared_ptr<Outcome> outcome;
        Ny::Subscription updated;
    };

    void OnCreated(const std::string& id) NY_EXCLUDES(mutex);
    void OnDeleted(const std::string& id) NY_EXCLUDES(mutex);

    Metrics& metrics;
    NyRoutine::Internal::RoutineManager& manager;
    // Guards `tracked`; a leaf: subscriptions are made and reset outside it, since a reset waits for a
    // handler that may run on a routine thread.
    Ny::Mutex mutex;
    std::map<std::string, Tracked> tracked NY_GUARDED_BY(mutex);
    Ny::Subscription createdSubscription;
    Ny::Subscription deletedSubscription;
};

}  // namespace NyHost
