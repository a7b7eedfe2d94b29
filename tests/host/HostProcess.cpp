#include "HostProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace NyTest {

std::string HttpReply::Header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (strcasecmp(key.c_str(), name.c_str()) == 0) {
            return value;
        }
    }
    return {};
}

namespace {

// Appends one exchange as a JSON line to this process's record file, when recording is on. One write(2)
// of the whole line to a file opened with O_APPEND: appends to a regular file do not interleave, so
// threads of one test need no lock, and every process writes a file of its own.
void RecordExchange(const std::string& method, const std::string& target, const HttpReply& reply) {
    const char* folder = std::getenv("NYR_CONTRACT_RECORD_DIR");
    if (folder == nullptr || *folder == '\0' || reply.status == 0) {
        return;
    }
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    nlohmann::json headers = nlohmann::json::array();
    for (const auto& [name, value] : reply.headers) {
        headers.push_back({name, value});
    }
    const nlohmann::json exchange = {
        {"test", test == nullptr ? std::string() : std::string(test->test_suite_name()) + "." + test->name()},
        {"method", method},
        {"target", target},
        {"status", reply.status},
        {"headers", std::move(headers)},
        {"body", reply.body}};
    // Tests send bytes that are not UTF-8 on purpose; they are replaced, not thrown on.
    const std::string line = exchange.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    const std::string file = std::string(folder) + "/exchanges-" + std::to_string(getpid()) + ".jsonl";
    ::mkdir(folder, 0755);  // the first record of a run makes the folder; EEXIST after that
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        ADD_FAILURE() << "cannot record the exchange in " << file << ": " << std::strerror(errno);
        return;
    }
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        ADD_FAILURE() << "cannot record the exchange in " << file;
    }
    ::close(fd);
}

}  // namespace

namespace {

// The status and headers of the reply at the start of `data`, and where its body starts; nullopt while
// the header is not complete. `length` is the Content-Length (0 without one).
struct ReplyHead {
    HttpReply reply;
    size_t bodyStart = 0;
    size_t length = 0;
};

std::optional<ReplyHead> ParseHead(const std::string& data) {
    const size_t headerEnd = data.find("\r\n\r\n");
    if (headerEnd == std::string::npos || headerEnd < 12) {
        return std::nullopt;
    }
    ReplyHead parsed;
    parsed.bodyStart = headerEnd + 4;
    const std::string head = data.substr(0, headerEnd);
    size_t lineEnd = head.find("\r\n");
    parsed.reply.status = std::atoi(head.substr(9, 3).c_str());
    while (lineEnd != std::string::npos && lineEnd < head.size()) {
        const size_t next = head.find("\r\n", lineEnd + 2);
        const std::string line =
            head.substr(lineEnd + 2, next == std::string::npos ? std::string::npos : next - lineEnd - 2);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            parsed.reply.headers.emplace_back(line.substr(0, colon), value);
            if (strcasecmp(line.substr(0, colon).c_str(), "Content-Length") == 0) {
                parsed.length = std::strtoul(value.c_str(), nullptr, 10);
            }
        }
        lineEnd = next;
    }
    return parsed;
}

}  // namespace

HttpConnection::HttpConnection(int port, std::chrono::milliseconds timeout, const std::string& source) {
    socket = ::socket(AF_INET, SOCK_STREAM, 0);
    if (!source.empty()) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, source.c_str(), &local.sin_addr);
        if (bind(socket, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            ::close(socket);
            throw std::runtime_error("cannot bind to " + source);
        }
    }
    timeval tv{static_cast<time_t>(timeout.count() / 1000),
               static_cast<suseconds_t>((timeout.count() % 1000) * 1000)};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        throw std::runtime_error("cannot connect to the host");
    }
}

HttpConnection::~HttpConnection() {
    // An event stream is read with ReadUntil and never ends: what arrived of it is its reply.
    try {
        if (auto parsed = ParseHead(pending);
            parsed && parsed->reply.Header("Content-Type").rfind("text/event-stream", 0) == 0) {
            parsed->reply.body = pending.substr(parsed->bodyStart);
            const SentRequest answered = TakeAnswered();
            RecordExchange(answered.method, answered.target, parsed->reply);
        }
    } catch (...) {
        // Recording is for the contract check; a destructor must not throw.
    }
    ::close(socket);
}

bool HttpConnection::SendRaw(const std::string& bytes) {
    NoteSent(bytes);
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

void HttpConnection::NoteSent(const std::string& bytes) {
    unsent += bytes;
    for (;;) {
        if (bodyLeft > 0) {
            const size_t taken = std::min(bodyLeft, unsent.size());
            unsent.erase(0, taken);
            bodyLeft -= taken;
            if (bodyLeft > 0) {
                return;
            }
        }
        const size_t headerEnd = unsent.find("\r\n\r\n");
        if (headerEnd == std::string::npos) {
            return;
        }
        const std::string head = unsent.substr(0, headerEnd);
        const std::string line = head.substr(0, head.find("\r\n"));
        const size_t space = line.find(' ');
        const size_t secondSpace = space == std::string::npos ? std::string::npos : line.find(' ', space + 1);
        SentRequest request;
        if (secondSpace != std::string::npos) {
            request.method = line.substr(0, space);
            request.target = line.substr(space + 1, secondSpace - space - 1);
        }
        sent.push_back(std::move(request));
        // Only Content-Length framing is followed: a chunked body's bytes, which no reply answers on their
        // own, would at worst be taken for a request line that no reply pairs with.
        bodyLeft = 0;
        for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
            if (strncasecmp(head.c_str() + at + 2, "Content-Length:", 15) == 0) {
                bodyLeft = std::strtoul(head.c_str() + at + 17, nullptr, 10);
            }
        }
        unsent.erase(0, headerEnd + 4);
    }
}

HttpConnection::SentRequest HttpConnection::TakeAnswered() {
    if (!sent.empty()) {
        SentRequest request = std::move(sent.front());
        sent.erase(sent.begin());
        return request;
    }
    // A reply to a header that never ended (too large, or not HTTP): the request line, if there is one.
    SentRequest request;
    const std::string line = unsent.substr(0, std::min(unsent.find("\r\n"), unsent.size()));
    const size_t space = line.find(' ');
    const size_t secondSpace = space == std::string::npos ? std::string::npos : line.find(' ', space + 1);
    if (secondSpace != std::string::npos) {
        request.method = line.substr(0, space);
        request.target = line.substr(space + 1, secondSpace - space - 1);
    }
    unsent.clear();
    return request;
}

std::string HttpConnection::ReadUntil(const std::function<bool(const std::string&)>& done) {
    char buffer[8192];
    while (!done(pending)) {
        const ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
        if (n <= 0) {
            break;
        }
        pending.append(buffer, static_cast<size_t>(n));
    }
    return pending;
}

HttpReply HttpConnection::ReadReply() {
    ReadUntil([](const std::string& data) { return data.find("\r\n\r\n") != std::string::npos; });
    auto parsed = ParseHead(pending);
    if (!parsed) {
        return {};
    }
    const size_t end = parsed->bodyStart + parsed->length;
    ReadUntil([&](const std::string& data) { return data.size() >= end; });
    HttpReply reply = std::move(parsed->reply);
    reply.body = pending.substr(parsed->bodyStart, parsed->length);
    pending.erase(0, std::min(pending.size(), end));
    const SentRequest answered = TakeAnswered();
    RecordExchange(answered.method, answered.target, reply);
    return reply;
}

namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> Environment(const std::vector<std::string>& additions) {
    std::vector<std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        all.emplace_back(*entry);
    }
    all.insert(all.end(), additions.begin(), additions.end());
    return all;
}

std::vector<std::string> Arguments(const std::vector<std::string>& extra) {
    std::vector<std::string> arguments = {NYR_HOST, "--listen",  "127.0.0.1:0", "--plugins", NYR_PLUGIN_DIR,
                                          "--web",  NYR_WEB_DIR, "--log-level", "error"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}

std::string TemporaryFile() {
    char name[] = "/tmp/host-test-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    ::close(fd);
    return name;
}

std::string ReadFile(const std::string& path) {
    std::string content;
    if (FILE* file = std::fopen(path.c_str(), "r"); file != nullptr) {
        char buffer[4096];
        size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
            content.append(buffer, n);
        }
        std::fclose(file);
    }
    return content;
}

}  // namespace

HostExit RunHostToExit(const std::vector<std::string>& extraArguments,
                       const std::vector<std::string>& environment, std::chrono::milliseconds timeout) {
    std::vector<std::string> arguments = Arguments(extraArguments);
    std::vector<std::string> variables = Environment(environment);
    const std::string output = TemporaryFile();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    const bool spawned = posix_spawn(&pid, NYR_HOST, &actions, nullptr, Pointers(arguments).data(),
                                     Pointers(variables).data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
    HostExit result;
    if (!spawned) {
        throw std::runtime_error("cannot start routine-host");
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            result.output = ReadFile(output);
            std::remove(output.c_str());
            return result;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.output = ReadFile(output);
    std::remove(output.c_str());
    return result;
}

HostProcess::HostProcess(std::vector<std::string> extraArguments, std::vector<std::string> environment) {
    int output[2];
    if (pipe(output) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> arguments = Arguments(extraArguments);
    std::vector<std::string> variables = Environment(environment);
    logFile = TemporaryFile();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, output[0]);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logFile.c_str(), O_WRONLY | O_APPEND, 0);
    if (posix_spawn(&pid, NYR_HOST, &actions, nullptr, Pointers(arguments).data(),
                    Pointers(variables).data()) != 0) {
        throw std::runtime_error("cannot start routine-host");
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(output[1]);
    // The host prints one line when it is ready: "listening on http(s)://127.0.0.1:<port>".
    std::string line;
    char c;
    timeval tv{30, 0};
    fd_set ready;
    while (line.find('\n') == std::string::npos) {
        FD_ZERO(&ready);
        FD_SET(output[0], &ready);
        if (select(output[0] + 1, &ready, nullptr, nullptr, &tv) <= 0 || ::read(output[0], &c, 1) != 1) {
            break;
        }
        line.push_back(c);
    }
    ::close(output[0]);
    const size_t colon = line.rfind(':');
    if (line.rfind("listening on http", 0) != 0 || colon == std::string::npos) {
        throw std::runtime_error("routine-host did not start: " + line + ReadFile(logFile));
    }
    port = std::stoi(line.substr(colon + 1));
}

std::string HostProcess::Log() const {
    return ReadFile(logFile);
}

HostProcess::~HostProcess() {
    if (pid > 0 && Terminate(std::chrono::seconds(10)) == -1) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::remove(logFile.c_str());
}

long HostProcess::ResidentKiB() const {
    FILE* status = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long kib = -1;
    char line[256];
    while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr) {
        if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1) {
            break;
        }
    }
    if (status != nullptr) {
        std::fclose(status);
    }
    return kib;
}

int HostProcess::Terminate(std::chrono::milliseconds timeout) {
    if (pid <= 0) {
        return -1;
    }
    kill(pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

HttpReply HostProcess::Request(const std::string& method, const std::string& target, const std::string& body,
                               const std::vector<std::string>& headers) {
    HttpConnection connection(port);
    // A Host among `headers` replaces the one that names this host.
    bool ownHost = false;
    for (const auto& header : headers) {
        ownHost = ownHost || strncasecmp(header.c_str(), "Host:", 5) == 0;
    }
    std::string request = method + " " + target + " HTTP/1.1\r\n" + (ownHost ? "" : HostHeader() + "\r\n") +
                          "Connection: close\r\n";
    for (const auto& header : headers) {
        request += header + "\r\n";
    }
    for (const auto& header : alwaysHeaders) {
        request += header + "\r\n";
    }
    if (!body.empty() || method == "POST" || method == "PUT" || method == "PATCH") {
        request +=
            "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    }
    request += "\r\n" + body;
    connection.SendRaw(request);
    return connection.ReadReply();
}

}  // namespace NyTest
