#include "NyApi/Logging.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

#include "NyApi/Mutex.h"
#include "NyRuntime/Runtime.h"

namespace Ny::Logging {

namespace {

Ny::Mutex sinkMutex;  // guards the sink; a leaf, never held while the sink runs
std::shared_ptr<const LogSink> sink NY_GUARDED_BY(sinkMutex);
std::atomic<bool> hasSink{false};  // written under sinkMutex, read relaxed as a fast "anyone listening?"
thread_local const std::string* currentRoutine = nullptr;  // this thread's innermost RoutineScope

}  // namespace

RoutineScope::RoutineScope(const std::string& id) : previous(std::exchange(currentRoutine, &id)) {}

RoutineScope::~RoutineScope() {
    currentRoutine = previous;
}

LogSink SetSink(LogSink next) {
    auto shared = next ? std::make_shared<const LogSink>(std::move(next)) : nullptr;
    Ny::MutexLock guard(sinkMutex);
    hasSink.store(shared != nullptr, std::memory_order_relaxed);
    auto previous = std::exchange(sink, std::move(shared));
    return previous ? *previous : LogSink{};
}

void Ny_Debug_LogUnchecked(int line, const char* file, std::uint64_t levelWord, const char* context,
                           const char* format, ...) {
    if (!hasSink.load(std::memory_order_relaxed) || format == nullptr) {
        return;
    }
    std::shared_ptr<const LogSink> current;
    {
        Ny::MutexLock guard(sinkMutex);
        current = sink;
    }
    if (!current) {
        return;
    }
    LogRecord record;
    record.line = line;
    record.file = file ? file : "";
    record.levelWord = levelWord;
    record.context = context ? context : "";
    record.threadId = NyRt::CurrentThreadId();
    if (currentRoutine != nullptr) {
        record.routine = *currentRoutine;
    }
    va_list args;
    va_start(args, format);
    record.text = NyRt::FormatV(format, args);
    va_end(args);
    (*current)(record);
}

}  // namespace Ny::Logging

namespace Ny {

std::string QualifiedName(const char* prettyFunction) {
    // Compilers spell some parts differently: one name for an anonymous namespace whichever builds it
    // ("(anonymous namespace)" has a space and parentheses that would end the name early below).
    std::string spelled(prettyFunction ? prettyFunction : "");
    static constexpr std::string_view Anonymous = "(anonymous namespace)";
    for (size_t at = spelled.find(Anonymous); at != std::string::npos; at = spelled.find(Anonymous, at)) {
        spelled.replace(at, Anonymous.size(), "{anonymous}");
    }
    std::string_view text(spelled);
    // Drop the template arguments that follow the signature (" [with T = ...]" or " [T = ...]") and
    // find the parameter list that closes the name: the last top-level "(...)" before the end
    // (qualifiers such as "const" may follow it).
    if (!text.empty() && text.back() == ']') {
        if (const auto with = text.rfind(" ["); with != std::string_view::npos) {
            text = text.substr(0, with);
        }
    }
    size_t close = text.rfind(')');
    if (close == std::string_view::npos) {
        return std::string(text);
    }
    int depth = 0;
    size_t open = close;
    for (size_t i = close + 1; i-- > 0;) {
        if (text[i] == ')') {
            ++depth;
        } else if (text[i] == '(' && --depth == 0) {
            open = i;
            break;
        }
    }
    // Walk back over the name; spaces inside template arguments belong to it.
    size_t begin = 0;
    int angle = 0;
    for (size_t i = open; i-- > 0;) {
        const char c = text[i];
        if (c == '>') {
            ++angle;
        } else if (c == '<') {
            --angle;
        } else if ((c == ' ' || c == '*' || c == '&') && angle == 0) {
            begin = i + 1;
            break;
        }
    }
    return std::string(text.substr(begin, open - begin));
}

}  // namespace Ny
