#include "Metrics.h"

#include <charconv>
#include <set>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "HostReplies.h"
#include "NyApi/Logging.h"
#include "NyApi/Status.h"

namespace NyHost {

namespace {

constexpr std::array<std::string_view, Metrics::kMethodCount> kMethodNames = {
    "GET", "HEAD", "POST", "PUT", "DELETE", "PATCH", "OPTIONS", "other"};
constexpr std::array<std::string_view, Metrics::kStatusClassCount> kStatusClasses = {"1xx", "2xx", "3xx",
                                                                                     "4xx", "5xx"};
constexpr std::array<std::string_view, Metrics::kCauseCount> kCauseNames = {
    "limit", "unknown_type", "invalid_request", "shutting_down", "busy"};
// The bounds as the "le" label spells them: the shortest text that reads back as the same number.
constexpr std::array<std::string_view, Metrics::kDurationBounds.size()> kBoundLabels = {
    "0.0005", "0.001", "0.0025", "0.005", "0.01", "0.025", "0.05",
    "0.1",    "0.25",  "0.5",    "1",     "2.5",  "5",     "10"};

constexpr std::string_view kPrefix = "routine_host_";

std::size_t StatusClassIndex(int status) {
    // The transport only writes real statuses; anything outside them would be its own fault: 5xx.
    if (status < 100 || status > 599) {
        return kStatusClasses.size() - 1;
    }
    return static_cast<std::size_t>(status / 100 - 1);
}

// Prometheus reads a sample value as a Go float; integers are written exactly, others with enough
// digits to read back the same double, and no more (the shortest such form: 0.000561914, not
// 0.00056191399999999995).
std::string Number(double value) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

class Writer {
  public:
    void Family(std::string_view name, std::string_view type, std::string_view help) {
        out.append("# HELP ").append(kPrefix).append(name).append(" ").append(help).append("\n");
        out.append("# TYPE ").append(kPrefix).append(name).append(" ").append(type).append("\n");
    }
    // `labels`: already rendered `name="value"` pairs joined by commas, or empty.
    void Sample(std::string_view name, const std::string& labels, const std::string& value) {
        out.append(kPrefix).append(name);
        if (!labels.empty()) {
            out.append("{").append(labels).append("}");
        }
        out.append(" ").append(value).append("\n");
    }
    void Sample(std::string_view name, const std::string& labels, std::uint64_t value) {
        Sample(name, labels, std::to_string(value));
    }
    std::string Take() { return std::move(out); }

  private:
    std::string out;
};

std::string Label(std::string_view name, std::string_view value) {
    std::string text(name);
    text += "=";
    text += Metrics::EscapeLabel(value);
    return text;
}

}  // namespace

Metrics::Metrics(std::chrono::system_clock::time_point startTime)
    : startSeconds(std::chrono::duration<double>(startTime.time_since_epoch()).count()) {}

Metrics::TypeCounters& Metrics::Type(const std::string& typeName) {
    Ny::MutexLock guard(typesMutex);
    auto& slot = types[typeName];
    if (!slot) {
        slot = std::make_unique<TypeCounters>();
    }
    return *slot;
}

void Metrics::CountFinished(TypeCounters& type, NyCommon::RoutineState outcome) {
    using NyCommon::RoutineState;
    switch (outcome) {
        case RoutineState::Completed:
            type.completed.fetch_add(1, std::memory_order_relaxed);
            break;
        case RoutineState::Aborted:
            type.aborted.fetch_add(1, std::memory_order_relaxed);
            break;
        case RoutineState::Failed:
            type.failed.fetch_add(1, std::memory_order_relaxed);
            break;
        default:
            break;
    }
}

void Metrics::CountRefusal(RefusalCause cause) {
    refusals[static_cast<std::size_t>(cause)].fetch_add(1, std::memory_order_relaxed);
}

void Metrics::CountRequest(std::string_view method, int status,
                           std::chrono::steady_clock::duration duration) noexcept {
    const std::size_t m = MethodIndex(method);
    requests[m][StatusClassIndex(status)].fetch_add(1, std::memory_order_relaxed);
    const double seconds = std::chrono::duration<double>(duration).count();
    std::size_t bucket = 0;
    while (bucket < kDurationBounds.size() && seconds > kDurationBounds[bucket]) {
        ++bucket;
    }
    durationBuckets[m][bucket].fetch_add(1, std::memory_order_relaxed);
    const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
    durationNanos[m].fetch_add(nanos > 0 ? static_cast<std::uint64_t>(nanos) : 0, std::memory_order_relaxed);
}

std::size_t Metrics::MethodIndex(std::string_view method) noexcept {
    for (std::size_t i = 0; i + 1 < kMethodNames.size(); ++i) {
        if (method == kMethodNames[i]) {
            return i;
        }
    }
    return kMethodNames.size() - 1;
}

std::string Metrics::EscapeLabel(std::string_view value) {
    std::string text(value);
    if (!IsValidUtf8(text)) {
        // The JSON writer already knows how to replace what is not UTF-8; read its output back.
        text = nlohmann::json::parse(SafeDump(text)).get<std::string>();
    }
    std::string escaped = "\"";
    for (const char c : text) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '"') {
            escaped += "\\\"";
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped.push_back(c);
        }
    }
    escaped += "\"";
    return escaped;
}

std::optional<RefusalCause> Metrics::CreationRefusal(int httpStatus, int engineStatus, bool created,
                                                     bool systemRunning) {
    if (httpStatus < 400 || created) {
        return std::nullopt;
    }
    switch (engineStatus) {
        case Ny::Status::Refused:
            // The engine refuses for its run state before it looks at the limit. A running system is not
            // a limit the operator configured but a state that passes: counted with the other "try again
            // later" refusals.
            return systemRunning ? RefusalCause::Busy : RefusalCause::Limit;
        case Ny::Status::NotFound:
            // No routine was announced: the type was not there (a routine removed before its first
            // continue was announced, and is no refusal).
            return RefusalCause::UnknownType;
        case Ny::Status::InvalidValue:
            return RefusalCause::InvalidRequest;
        default:
            return std::nullopt;
    }
}

std::string Metrics::Render(const Sampled& sampled) const {
    std::vector<std::pair<std::string, const TypeCounters*>> typeList;
    {
        Ny::MutexLock guard(typesMutex);
        typeList.reserve(types.size());
        for (const auto& [name, counters] : types) {
            typeList.emplace_back(name, counters.get());
        }
    }
    const auto load = [](const Counter& counter) { return counter.load(std::memory_order_relaxed); };
    Writer out;

    out.Family("routines_created_total", "counter", "Routines created, by routine type.");
    for (const auto& [name, counters] : typeList) {
        out.Sample("routines_created_total", Label("type", name), load(counters->created));
    }
    out.Family("routines_finished_total", "counter", "Routines that ended, by routine type and outcome.");
    for (const auto& [name, counters] : typeList) {
        const std::string type = Label("type", name);
        out.Sample("routines_finished_total", type + ",outcome=\"completed\"", load(counters->completed));
        out.Sample("routines_finished_total", type + ",outcome=\"aborted\"", load(counters->aborted));
        out.Sample("routines_finished_total", type + ",outcome=\"failed\"", load(counters->failed));
    }
    out.Family("routines_live", "gauge", "Routines that exist now, finished ones until they are deleted.");
    out.Sample("routines_live", "", std::to_string(live.load(std::memory_order_relaxed)));
    out.Family("routine_creations_refused_total", "counter", "Routine creations refused, by cause.");
    for (std::size_t i = 0; i < kCauseCount; ++i) {
        out.Sample("routine_creations_refused_total", Label("cause", kCauseNames[i]), load(refusals[i]));
    }

    out.Family("http_requests_total", "counter", "HTTP requests answered, by method and status class.");
    for (std::size_t m = 0; m < kMethodCount; ++m) {
        for (std::size_t c = 0; c < kStatusClassCount; ++c) {
            const std::uint64_t count = load(requests[m][c]);
            if (count != 0) {  // 40 mostly empty series would hide the few that matter
                out.Sample("http_requests_total",
                           Label("method", kMethodNames[m]) + "," + Label("code", kStatusClasses[c]), count);
            }
        }
    }
    out.Family("http_request_duration_seconds", "histogram",
               "Time from a request's header read to its reply written, by method.");
    for (std::size_t m = 0; m < kMethodCount; ++m) {
        // Read once, summed from these reads: the +Inf bucket and the count agree within one rendering.
        std::array<std::uint64_t, kDurationBounds.size() + 1> buckets{};
        std::uint64_t total = 0;
        for (std::size_t b = 0; b < buckets.size(); ++b) {
            buckets[b] = load(durationBuckets[m][b]);
            total += buckets[b];
        }
        if (total == 0) {
            continue;
        }
        const std::string method = Label("method", kMethodNames[m]);
        std::uint64_t cumulative = 0;
        for (std::size_t b = 0; b < kDurationBounds.size(); ++b) {
            cumulative += buckets[b];
            out.Sample("http_request_duration_seconds_bucket",
                       method + ",le=\"" + std::string(kBoundLabels[b]) + "\"", cumulative);
        }
        out.Sample("http_request_duration_seconds_bucket", method + ",le=\"+Inf\"", total);
        out.Sample("http_request_duration_seconds_sum", method,
                   Number(static_cast<double>(load(durationNanos[m])) / 1e9));
        out.Sample("http_request_duration_seconds_count", method, total);
    }

    out.Family("event_clients", "gauge", "Event streams open now.");
    out.Sample("event_clients", "", std::to_string(sampled.eventClients));
    out.Family("event_clients_dropped_total", "counter", "Event streams dropped for being too slow.");
    out.Sample("event_clients_dropped_total", "", sampled.eventClientsDropped);
    out.Family("plugin_libraries_loaded", "gauge", "Plug-in libraries loaded now.");
    out.Sample("plugin_libraries_loaded", "", std::to_string(sampled.pluginLibraries));
    out.Family("plugin_libraries_refused_total", "counter", "Plug-in files refused, over every scan.");
    out.Sample("plugin_libraries_refused_total", "", load(pluginRefusals));
    out.Family("start_time_seconds", "gauge", "When the host started, in seconds since the Unix epoch.");
    out.Sample("start_time_seconds", "", Number(startSeconds));
    return out.Take();
}

void RoutineTally::Outcome::Observe(NyCommon::RoutineState state) {
    if (NyCommon::IsStopped(state) && !counted.exchange(true)) {
        Metrics::CountFinished(type, state);
    }
}

RoutineTally::RoutineTally(Metrics& metricsIn, NyRoutine::Internal::RoutineManager& managerIn)
    : metrics(metricsIn), manager(managerIn) {
    createdSubscription =
        manager.CreatedEvent().SubscribeScoped([this](const std::string& id) { OnCreated(id); });
    deletedSubscription =
        manager.DeletedEvent().SubscribeScoped([this](const std::string& id) { OnDeleted(id); });
}

RoutineTally::~RoutineTally() {
    createdSubscription.Reset();
    deletedSubscription.Reset();
    std::map<std::string, Tracked> remaining;
    {
        Ny::MutexLock guard(mutex);
        remaining.swap(tracked);
    }
    remaining.clear();  // each reset waits for its handler running on a routine thread
}

void RoutineTally::OnCreated(const std::string& id) {
    // Raised under the manager's announcement lock, before anything can remove the routine: the
    // instance is there, and its type is one the registry holds.
    std::shared_ptr<NyRoutine::Internal::RoutineInstance> instance;
    try {
        instance = manager.AcquireInstance(id);
    } catch (const std::exception& e) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Counting routine %1$s failed: %2$s", id.c_str(), e.what());
        return;
    }
    const auto* info = instance->TypeInfo();
    if (info == nullptr) {
        return;
    }
    auto outcome = std::make_shared<Outcome>(metrics.Type(info->TypeName()));
    Metrics::CountCreated(outcome->type);
    metrics.RoutineAppeared();
    // The handler runs only while the instance raises its own event, so the instance outlives each call.
    NyRoutine::Internal::RoutineInstance* raw = instance.get();
    Tracked entry{outcome, instance->UpdatedEvent().SubscribeScoped(
                               [outcome, raw](const std::string&) { outcome->Observe(raw->State()); })};
    // Its code has not started yet (the start follows this event); checked once more all the same.
    outcome->Observe(instance->State());
    Ny::MutexLock guard(mutex);
    tracked[id] = std::move(entry);
}

void RoutineTally::OnDeleted(const std::string& id) {
    std::map<std::string, Tracked> dropped;
    if (id == "*") {
        // A clear: raised once its routines have left the map, so every routine not listed now is gone.
        const auto survivors = manager.ListIds();
        const std::set<std::string> alive(survivors.begin(), survivors.end());
        Ny::MutexLock guard(mutex);
        for (auto it = tracked.begin(); it != tracked.end();) {
            auto next = std::next(it);
            if (alive.count(it->first) == 0) {
                dropped.insert(tracked.extract(it));
            }
            it = next;
        }
    } else {
        Ny::MutexLock guard(mutex);
        if (auto node = tracked.extract(id)) {
            dropped.insert(std::move(node));
        }
    }
    for (auto& [droppedId, entry] : dropped) {
        entry.updated.Reset();
        // A removal ends the routine (raising its updated event) before it announces the deletion; a
        // routine seen ending by nothing else was ended by its deletion, which is an abort.
        entry.outcome->Observe(NyCommon::RoutineState::Aborted);
        metrics.RoutineGone();
    }
}

}  // namespace NyHost
