// `NyRoutine::Testing::RoutineDriver`: runs one routine type in-process, as a host would, so that routine
// code can be tested without starting a host.
//
// A driver builds its own routine registry (holding the one type), routine manager (no limit), and the
// "/routines" and "/routineTypes" REST fronts on a router of its own; no HTTP. Every command and read
// goes through that router exactly as a REST client's request would (PATCH, POST .../commands/continue,
// GET ...), so a test sees what a host would serve: the same documents, the same refusals, the same
// notifications. The driver records every notification of its router and every debug-log line of the
// process from its construction on.
//
// No test framework inside: failures are `Ny::Exception`s and return values, so the kit works under
// GoogleTest, Catch2, doctest or a plain main.
//
//     NyRoutine::Testing::RoutineDriver driver("build/plugins/sample_routines.so", "Calibration");
//     driver.Create();                                  // returns once the routine exists
//     driver.SetParams({{"samples", 20}});              // a strict PATCH; throws on a refusal
//     driver.Continue();
//     if (!driver.WaitUntilEnded()) { /* still running after 10 s */ }
//     double gain = driver.Results()["gain"];
//
// Ownership and lifetime: the driver owns everything it builds, one routine at most, and (with the
// plug-in-file constructor) a private plug-in manager holding the loaded library. With the
// `RoutineInfo` constructor the caller keeps the record's factory alive for the driver's lifetime.
// Destruction deletes the routine (which aborts it), lets a creation that still waits go, joins the
// driver's thread and takes everything down; it never throws, and it never waits for a continue. It
// does wait for routine code that is running to return (as a host's deletion does): routine code that
// never checks `IsAborted()` holds it up.
//
// Threading: a creation that waits for the routine's first continue runs on a thread the driver owns.
// Call `Create` first (again only after a refusal); once it has returned the id, commands, reads and
// waits may be called from any thread, also at once. Log lines and notifications arrive on routine and
// request threads and are recorded under the driver's own lock. Several drivers may be alive at once
// (each records every log line); the log sink that was set before the first of them keeps receiving
// every line, and is set back once the last is gone, whatever the order of their destruction.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "NyApi/Logging.h"
#include "NyCommon/RoutineState.h"
#include "NyRoutine/RoutineInfo.h"

namespace NyRoutine::Testing {

// One resource notification of the driver's router.
struct Notification {
    std::string type;  // "created", "updated" or "deleted"
    std::string path;  // e.g. "/routines/Calibration-0"
    bool operator==(const Notification&) const = default;
};

class RoutineDriver {
  public:
    using Timeout = std::chrono::milliseconds;
    // Generous on purpose: a wait that should end at once may take long in a sanitizer build.
    static constexpr Timeout DefaultTimeout{10000};

    // Drives the type of `type`, a copy of which it registers. The record's factory must outlive the
    // driver. Throws what building the engine throws.
    explicit RoutineDriver(const RoutineInfo& type);
    // Loads the plug-in library `pluginFile` with a private plug-in manager and drives its type
    // `typeName`. Throws Ny::Exception -999 (NotFound) when the file or the type does not exist, and the
    // plug-in manager's refusals (-997) for a file that is not a plug-in.
    RoutineDriver(const std::filesystem::path& pluginFile, const std::string& typeName);
    // Deletes the routine (aborting it), joins everything. Never throws.
    ~RoutineDriver();
    RoutineDriver(const RoutineDriver&) = delete;
    RoutineDriver& operator=(const RoutineDriver&) = delete;

    // Creates the routine (POST "/routines" with {"type", "parameters": creationParams}) and returns its
    // id as soon as it exists; a creation that waits for the first continue goes on waiting on the
    // driver's thread. Throws Ny::Exception with the reply's status and message when the creation is
    // refused, and -1000 (Refused) when this driver created a routine already. JSON holding text that is
    // not UTF-8, which no client can send, is refused as the host refuses it: -997 (InvalidValue),
    // "The request body is not valid UTF-8.", and nothing is created.
    std::string Create(const nlohmann::json& creationParams = nullptr);
    // Writes parameters as a client would: PATCH {"parameters": parameters}, with "Prefer:
    // handling=strict" unless `strict` is false. Throws Ny::Exception with the reply's status and
    // message, its field refusals (Ny::Exception::FieldsOf) and its causes (nested), when refused; -997
    // for text that is not UTF-8, as Create.
    void SetParams(const nlohmann::json& parameters, bool strict = true);
    // POST .../commands/continue and .../commands/abort. Throw like SetParams when refused. As for any
    // client, a continue reaches the routine's code only once it waits for one: wait for the state
    // WaitingForFeedback first (a continue that comes earlier confirms the start, or is lost).
    void Continue();
    void Abort();

    // Bounded waits: true once reached, false when the time ran out, or at once when the routine does
    // not exist or ended without reaching it (an ended routine stays as it ended). Each re-reads the
    // routine after every notification of the driver's router and every few milliseconds besides (some
    // changes come with no notification). Timeout::max() waits without bound. They never throw.
    bool WaitForState(NyCommon::RoutineState state, Timeout timeout = DefaultTimeout);
    // True once the routine's current step is `step` or later.
    bool WaitForStep(unsigned int step, Timeout timeout = DefaultTimeout);
    // Completed, Aborted or Failed.
    bool WaitUntilEnded(Timeout timeout = DefaultTimeout);

    // Reads (GET "/routines/<id>"). Throw Ny::Exception like the commands; -999 before Create and after
    // the routine was deleted.
    NyCommon::RoutineState State() const;
    // The routine's id; empty before Create.
    const std::string& Id() const;
    // The routine's document; with its JSON Schema as "_schema" when asked (GET ...?schema=true).
    nlohmann::json Document(bool withSchema = false) const;
    // The document's "parameters" and "results" members.
    nlohmann::json Parameters() const;
    nlohmann::json Results() const;

    // Every notification of the driver's router since construction, in the order raised. Thread-safe.
    std::vector<Notification> Notifications() const;
    // Every debug-log line of the process since construction, in the order delivered. Thread-safe.
    std::vector<Ny::Logging::LogRecord> LogLines() const;

  private:
    struct Recording;
    struct Engine;
    struct Creation;

    nlohmann::json Read(bool withSchema) const;
    void Command(const std::string& name);
    template <typename Reached>
    bool WaitFor(Reached reached, Timeout timeout);

    std::string id;                        // set once by Create
    std::unique_ptr<Recording> recording;  // first built, last gone: records the engine's whole life
    std::unique_ptr<Engine> engine;
    std::unique_ptr<Creation> creation;
};

}  // namespace NyRoutine::Testing
