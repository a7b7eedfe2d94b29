// The host's log forms: JSON lines that stay valid JSON whatever bytes a line holds, text lines that
// stay one line, the journal's priority prefixes, the choice of the journal form by stderr's device and
// inode, and the routine id of lines logged by routine code (in-process and from a real host).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>

#include "HostProcess.h"
#include "LogCapture.h"
#include "LogSinks.h"
#include "NyApi/Logging.h"
#include "Sync.h"

namespace {

using nlohmann::json;
using NyHost::FormatLogLine;
using NyHost::LogForm;
namespace Level = Ny::Logging::Level;

const auto kTime = std::chrono::system_clock::time_point(std::chrono::milliseconds(1795478587654));

// Every byte value, and the sequences a JSON writer trips over.
std::string HostileBytes() {
    std::string bytes;
    for (int b = 0; b < 256; ++b) {
        bytes.push_back(static_cast<char>(b));
    }
    return bytes + "\"\\\n\r\xC0\x80\xED\xA0\x80\xF4\x90\x80\x80 end";
}

Ny::Logging::LogRecord Record(std::uint64_t word, std::string context, std::string text,
                              std::string routine = "") {
    Ny::Logging::LogRecord record;
    record.levelWord = word;
    record.context = std::move(context);
    record.text = std::move(text);
    record.routine = std::move(routine);
    return record;
}

TEST(LogSinks, JsonLinesAreOneValidObjectWhateverBytesTheyCarry) {
    const std::string hostile = HostileBytes();
    for (const auto& routine : {std::string(), std::string("Cal\"ib\n-0"), hostile}) {
        const std::string line =
            FormatLogLine(LogForm::Json, Record(Level::CaughtFailure, hostile, hostile, routine), kTime);
        ASSERT_EQ(line.back(), '\n');
        EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line only";
        const json parsed = json::parse(line);  // throws on anything that is not JSON
        EXPECT_EQ(parsed["time"], "2026-11-24T00:03:07.654Z");
        EXPECT_EQ(parsed["level"], "error");
        ASSERT_TRUE(parsed["context"].is_string());
        // Printable ASCII survives as it is; what is not UTF-8 became U+FFFD.
        EXPECT_NE(parsed["context"].get<std::string>().find(" !\"#$%&'()*+,-./0123456789"),
                  std::string::npos);
        EXPECT_NE(parsed["message"].get<std::string>().find("\xEF\xBF\xBD end"), std::string::npos);
        EXPECT_EQ(parsed.contains("routine"), !routine.empty());
        // The order a reader expects: time first, routine last.
        EXPECT_EQ(nlohmann::ordered_json::parse(line).begin().key(), "time");
    }
}

TEST(LogSinks, TextAndJournalLinesStayOneLineWithTheirLevel) {
    struct Case {
        std::uint64_t word;
        const char* level;
        int priority;
    };
    const Case cases[] = {
        {Level::Progress, "debug", 7},        {Level::Notice, "notice", 5},
        {Level::ManagerRefusal, "notice", 5}, {Level::CaughtFailure, "error", 3},
        {Level::Validation, "error", 3},      {0x0000000000000007ULL, "info", 6}};  // a word of another kind
    for (const Case& c : cases) {
        const auto record = Record(c.word, "ctx\nforged", "message\r\nforged line", "R-1");
        EXPECT_EQ(json::parse(FormatLogLine(LogForm::Json, record, kTime))["level"], c.level);
        const std::string journal = FormatLogLine(LogForm::Journal, record, kTime);
        EXPECT_EQ(journal.rfind("<" + std::to_string(c.priority) + ">0x", 0), 0u) << journal;
        EXPECT_EQ(journal.find("2026-"), std::string::npos) << "the journal stamps lines itself";
        const std::string text = FormatLogLine(LogForm::Text, record, kTime);
        EXPECT_EQ(text.rfind("2026-11-24T00:03:07.654Z 0x", 0), 0u) << text;
        for (const std::string& line : {journal, text}) {
            EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
            EXPECT_EQ(line.find('\r'), std::string::npos) << line;
            EXPECT_NE(line.find("message\\x0D\\x0Aforged line"), std::string::npos) << line;
            EXPECT_NE(line.find("(R-1)"), std::string::npos) << line;
        }
    }
}

// A real file's "<device>:<inode>", as the service manager writes JOURNAL_STREAM.
std::string DeviceAndInode(int fd) {
    struct stat status {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

TEST(LogSinks, JournalFormOnlyWhenJournalStreamNamesTheLogsOwnFile) {
    std::FILE* log = std::tmpfile();
    std::FILE* other = std::tmpfile();
    ASSERT_NE(log, nullptr);
    ASSERT_NE(other, nullptr);
    const int fd = fileno(log);
    const std::string own = DeviceAndInode(fd);
    EXPECT_EQ(NyHost::ChooseLogForm("text", own.c_str(), fd), LogForm::Journal);
    EXPECT_EQ(NyHost::ChooseLogForm("json", own.c_str(), fd), LogForm::Json);
    // stderr redirected to a file while the variable still names the service's stream: stamped text.
    EXPECT_EQ(NyHost::ChooseLogForm("text", DeviceAndInode(fileno(other)).c_str(), fd), LogForm::Text);
    for (const char* malformed : {"", ":", "1:", ":1", "12", "1:2:3", "a:b", "1:2x"}) {
        EXPECT_FALSE(NyHost::IsJournalStream(malformed, fd)) << malformed;
    }
    EXPECT_EQ(NyHost::ChooseLogForm("text", nullptr, fd), LogForm::Text);
    EXPECT_FALSE(NyHost::IsJournalStream(own.c_str(), -1));
    std::fclose(log);
    std::fclose(other);
}

TEST(LogSinks, RoutineScopesNameTheRoutineForTheirThreadOnly) {
    NyTest::LogCapture capture;
    {
        const std::string outer = "Outer-0";
        const Ny::Logging::RoutineScope scope(outer);
        NY_LOG(Level::Notice, "in outer");
        {
            const std::string inner = "Inner-1";
            const Ny::Logging::RoutineScope nested(inner);
            NY_LOG(Level::Notice, "in inner");
        }
        NY_LOG(Level::Notice, "outer again");
        std::thread([] { NY_LOG(Level::Notice, "other thread"); }).join();
    }
    NY_LOG(Level::Notice, "outside");
    std::map<std::string, std::string> routineOf;
    for (const auto& record : capture.Records()) {
        routineOf[record.text] = record.routine;
    }
    EXPECT_EQ(routineOf.at("in outer"), "Outer-0");
    EXPECT_EQ(routineOf.at("in inner"), "Inner-1");
    EXPECT_EQ(routineOf.at("outer again"), "Outer-0");
    EXPECT_EQ(routineOf.at("other thread"), "");
    EXPECT_EQ(routineOf.at("outside"), "");
}

TEST(HostLogs, JsonLinesOfARealHostParseAndNameTheFailingRoutine) {
    char name[] = "/tmp/host-logs-XXXXXX";
    const std::filesystem::path folder = mkdtemp(name);
    std::filesystem::copy_file(std::filesystem::path(NYR_FAULTY_PLUGIN_DIR) / "faulty_routines.so",
                               folder / "faulty_routines.so");
    {
        NyTest::HostProcess host(
            {"--plugins", folder.string(), "--log-format", "json", "--log-level", "info"});
        ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "ThrowInRun"}}).status, 201);
        ASSERT_TRUE(NyTest::Eventually([&] { return host.Log().find("Run failed") != std::string::npos; }));
        std::istringstream lines(host.Log());
        std::size_t count = 0;
        bool sawRoutineLine = false;
        for (std::string line; std::getline(lines, line); ++count) {
            json parsed;
            ASSERT_NO_THROW(parsed = json::parse(line)) << line;
            for (const char* key : {"time", "level", "context", "message"}) {
                EXPECT_TRUE(parsed[key].is_string()) << key << " in " << line;
            }
            EXPECT_TRUE(std::regex_match(parsed["time"].get<std::string>(),
                                         std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)")));
            if (parsed["message"].get<std::string>().find("Run failed") != std::string::npos) {
                EXPECT_EQ(parsed["routine"], "ThrowInRun-0") << line;
                EXPECT_EQ(parsed["level"], "error");
                sawRoutineLine = true;
            } else if (parsed["message"].get<std::string>().rfind("audit:", 0) == 0) {
                EXPECT_FALSE(parsed.contains("routine")) << "a request thread runs no routine: " << line;
            }
        }
        EXPECT_GT(count, 2u);
        EXPECT_TRUE(sawRoutineLine);
    }
    std::filesystem::remove_all(folder);
}

// The lines main writes itself (a warning about the options, a failed start, where it listens) reach the
// same stream as the log: in the json and journal forms they must be JSON objects and carry their
// priority too, or a shipper reading the stream stops at them and `journalctl -p err` misses the failure.
TEST(HostLogs, LinesTheHostWritesBesideTheLogTakeTheLogsForm) {
    const auto failed = NyTest::RunHostToExit({"--log-format", "json", "--log-level", "info", "--token",
                                               "0123456789abcdef-token", "--tls-cert", "/nonexistent/c.pem",
                                               "--tls-key", "/nonexistent/k.pem"});
    EXPECT_EQ(failed.status, 2);
    std::istringstream lines(failed.output);
    bool sawWarning = false;
    bool sawFailure = false;
    for (std::string line; std::getline(lines, line);) {
        json parsed;
        ASSERT_NO_THROW(parsed = json::parse(line)) << line;
        const std::string message = parsed["message"].get<std::string>();
        if (message.find("visible to local users") != std::string::npos) {
            EXPECT_EQ(parsed["level"], "notice") << line;
            sawWarning = true;
        }
        if (message.find("cannot start: ") != std::string::npos) {
            EXPECT_EQ(parsed["level"], "error") << line;
            EXPECT_NE(message.find("/nonexistent/c.pem"), std::string::npos) << line;
            sawFailure = true;
        }
    }
    EXPECT_TRUE(sawWarning) << failed.output;
    EXPECT_TRUE(sawFailure) << failed.output;

    // In the journal form: with its priority, on one line whatever the cause's text holds.
    const auto journal =
        NyHost::ProcessLine(LogForm::Journal, Level::CaughtFailure, "cannot start: a\n<6>forged", kTime);
    EXPECT_EQ(journal.rfind("<3>", 0), 0u) << journal;
    EXPECT_EQ(journal.find('\n'), journal.size() - 1) << journal;
    // For a person at a terminal, the plain text as before.
    EXPECT_EQ(NyHost::ProcessLine(LogForm::Text, Level::Notice, "listening on http://127.0.0.1:1", kTime),
              "listening on http://127.0.0.1:1\n");
}

TEST(HostLogs, StderrRedirectedAwayFromTheJournalKeepsItsTimestamps) {
    // The variable names a stream that is not the host's stderr (a file here): as when a service's
    // command redirects its output, the journal form would lose the time.
    std::FILE* elsewhere = std::tmpfile();
    ASSERT_NE(elsewhere, nullptr);
    NyTest::HostProcess host({"--log-level", "info"},
                             {"JOURNAL_STREAM=" + DeviceAndInode(fileno(elsewhere))});
    ASSERT_TRUE(NyTest::Eventually([&] { return host.Log().find("Serving HTTP") != std::string::npos; }));
    std::istringstream lines(host.Log());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(std::regex_search(line, std::regex(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 0x)")))
            << line;
    }
    std::fclose(elsewhere);
}

}  // namespace
