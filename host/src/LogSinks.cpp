#include "LogSinks.h"

#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include <nlohmann/json.hpp>

#include "HostReplies.h"
#include "NyApi/Mutex.h"
#include "NyRuntime/Runtime.h"
#include "OperatorResources.h"

namespace NyHost {

namespace {

// The low half of a level word tells its kind: progress (0), notices (1), failures (2). Words of other
// kinds (a plug-in's own) are plain information.
constexpr std::uint64_t kKindMask = 0xFFFFFFFFULL;
constexpr std::uint64_t kProgress = 0;
constexpr std::uint64_t kNotice = 1;
constexpr std::uint64_t kFailure = 2;

// Control bytes would split a line or forge one (a message may quote a client's text): written as
// \xNN. Everything else, UTF-8 included, stays as it is.
std::string OneLine(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            out += escaped;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

}  // namespace

bool LogPasses(const std::string& level, std::uint64_t levelWord) {
    if (level == "none") {
        return false;
    }
    if (level == "debug") {
        return true;
    }
    const std::uint64_t kind = levelWord & kKindMask;
    if (level == "error") {
        return kind == kFailure;
    }
    return kind != kProgress;  // info: everything but progress lines
}

std::string_view LevelName(std::uint64_t levelWord) {
    switch (levelWord & kKindMask) {
        case kProgress:
            return "debug";
        case kNotice:
            return "notice";
        case kFailure:
            return "error";
        default:
            return "info";
    }
}

int SyslogPriority(std::uint64_t levelWord) {
    const std::string_view name = LevelName(levelWord);
    return name == "debug" ? 7 : name == "info" ? 6 : name == "notice" ? 5 : 3;
}

bool IsJournalStream(const char* journalStream, int fd) {
    if (journalStream == nullptr) {
        return false;
    }
    // "<device>:<inode>", both decimal, as the service manager writes them.
    char* end = nullptr;
    const unsigned long long device = std::strtoull(journalStream, &end, 10);
    if (end == journalStream || *end != ':') {
        return false;
    }
    const char* inodeText = end + 1;
    const unsigned long long inode = std::strtoull(inodeText, &end, 10);
    if (end == inodeText || *end != '\0') {
        return false;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return false;
    }
    return static_cast<unsigned long long>(status.st_dev) == device &&
           static_cast<unsigned long long>(status.st_ino) == inode;
}

LogForm ChooseLogForm(const std::string& format, const char* journalStream, int fd) {
    if (format == "json") {
        return LogForm::Json;
    }
    return IsJournalStream(journalStream, fd) ? LogForm::Journal : LogForm::Text;
}

std::string FormatLogLine(LogForm form, const Ny::Logging::LogRecord& record,
                          std::chrono::system_clock::time_point time) {
    if (form == LogForm::Json) {
        nlohmann::ordered_json line = {{"time", PluginsResource::Iso8601(time)},
                                       {"level", LevelName(record.levelWord)},
                                       {"context", record.context},
                                       {"message", record.text}};
        if (!record.routine.empty()) {
            line["routine"] = record.routine;
        }
        // The writer escapes every control byte and replaces what is not UTF-8.
        return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    }
    char word[24];
    std::snprintf(word, sizeof word, "0x%016llx", static_cast<unsigned long long>(record.levelWord));
    std::string line;
    if (form == LogForm::Journal) {
        line = "<" + std::to_string(SyslogPriority(record.levelWord)) + ">";
    } else {
        line = PluginsResource::Iso8601(time) + " ";
    }
    line += word;
    line += " [" + OneLine(record.context) + "] ";
    if (!record.routine.empty()) {
        line += "(" + OneLine(record.routine) + ") ";
    }
    line += OneLine(record.text);
    line += "\n";
    return line;
}

std::string ProcessLine(LogForm form, std::uint64_t levelWord, const std::string& text,
                        std::chrono::system_clock::time_point time) {
    if (form == LogForm::Text) {
        return text + "\n";
    }
    Ny::Logging::LogRecord record;
    record.levelWord = levelWord;
    record.context = "main";
    record.text = text;
    return FormatLogLine(form, record, time);
}

void InstallLogSinks(const std::string& level, const std::string& format) {
    // Guards stderr, one line at a time; taken by the log sinks only, with no other lock held.
    static Ny::Mutex stderrMutex;
    const LogForm form = ChooseLogForm(format, std::getenv("JOURNAL_STREAM"), fileno(stderr));
    const auto write = [](const std::string& line) {
        Ny::MutexLock lock(stderrMutex);
        std::fwrite(line.data(), 1, line.size(), stderr);
    };
    Ny::Logging::SetSink([level, form, write](const Ny::Logging::LogRecord& record) {
        if (!LogPasses(level, record.levelWord)) {
            return;
        }
        write(FormatLogLine(form, record, std::chrono::system_clock::now()));
    });
    if (level != "debug") {
        NyRt::SetLogSink(nullptr);
        return;
    }
    NyRt::SetLogSink([form, write](std::string_view text) {
        Ny::Logging::LogRecord record;
        record.levelWord = Ny::Logging::Level::Progress;
        record.context = "runtime";
        record.text = std::string(text);
        write(FormatLogLine(form, record, std::chrono::system_clock::now()));
    });
}

}  // namespace NyHost
