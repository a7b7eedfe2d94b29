// The process-wide debug log of the API library.
//
// Every line carries the source line and file, a 64-bit level word, a context (usually the qualified
// function name) and a printf-style text; positional placeholders ("%1$s") are supported. Lines go to
// one sink for the whole process. Without a sink lines are dropped before they are formatted, so
// logging on hot paths costs one atomic load (and NY_LOG's once-per-call-site context check). Thread-safe:
// any thread may log while another replaces the sink; a line already being delivered finishes with the sink
// it started with.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "NyApi/PrintfArgument.h"

namespace Ny::Logging {

namespace Level {
inline constexpr std::uint64_t Progress = 0x8000000000000000ULL;        // the engine's progress lines
inline constexpr std::uint64_t Notice = 0x8000000000000001ULL;          // aborting all, read-only refusals
inline constexpr std::uint64_t CaughtFailure = 0x8000000000000002ULL;   // caught failures
inline constexpr std::uint64_t ManagerRefusal = 0x8000000100000001ULL;  // creation refused
inline constexpr std::uint64_t Validation = 0x8000000100000002ULL;      // parameter validation failures
}  // namespace Level

struct LogRecord {
    int line = 0;
    std::string file;
    std::uint64_t levelWord = 0;
    std::string context;
    std::string text;
    std::uint32_t threadId = 0;
    // The routine whose code the logging thread ran (see RoutineScope); empty when none.
    std::string routine;
};

// Names a routine for every line the current thread logs while the scope lives, so that a line of
// routine code (which does not know its routine's id) can be told apart. The engine opens one around
// each call into routine code. Scopes nest; the id must outlive the scope. One thread: not movable.
class RoutineScope {
  public:
    explicit RoutineScope(const std::string& id);
    ~RoutineScope();
    RoutineScope(const RoutineScope&) = delete;
    RoutineScope& operator=(const RoutineScope&) = delete;

  private:
    const std::string* previous;
};

using LogSink = std::function<void(const LogRecord&)>;

// The printf-style entry point behind Ny_Debug_Log; call Ny_Debug_Log (or NY_LOG), whose arguments are
// checked. Positional placeholders: no format attribute (see PrintfArgument.h).
void Ny_Debug_LogUnchecked(int line, const char* file, std::uint64_t levelWord, const char* context,
                           const char* format, ...);

// Formats and delivers one line. The arguments are checked at compile time (see PrintfArgument.h).
template <PrintfArgument... Args>
void Ny_Debug_Log(int line, const char* file, std::uint64_t levelWord, const char* context,
                  const char* format, Args... args) {
    Ny_Debug_LogUnchecked(line, file, levelWord, context, format, args...);
}

// Replaces the process-wide sink (an empty function drops every line); returns the previous sink.
LogSink SetSink(LogSink sink);

}  // namespace Ny::Logging

// The context is the enclosing function's qualified name, worked out once per call site (and per
// instantiation of a template) on its first use and kept in a static of the lambda: lines on hot paths
// pay no string work when there is no sink, nor for the name when there is one. The name is taken
// outside the lambda, where __PRETTY_FUNCTION__ still names the enclosing function.
#define NY_LOG(levelWord, ...)                                                            \
    ::Ny::Logging::Ny_Debug_Log(                                                          \
        __LINE__, __FILE__, (levelWord),                                                  \
        [](const char* nyPrettyFunction_) -> const char* {                                \
            static const std::string nyContext_ = ::Ny::QualifiedName(nyPrettyFunction_); \
            return nyContext_.c_str();                                                    \
        }(__PRETTY_FUNCTION__),                                                           \
        __VA_ARGS__)

namespace Ny {
// "void Ny::Foo<T>::Bar(int) [with T = int]" -> "Ny::Foo<T>::Bar": the qualified function name.
std::string QualifiedName(const char* prettyFunction);
}  // namespace Ny
