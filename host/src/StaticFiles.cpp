#include "StaticFiles.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <system_error>

#include "HostReplies.h"

namespace NyHost {

namespace {

std::string ContentType(const std::filesystem::path& file) {
    const std::string ext = file.extension().string();
    if (ext == ".html")
        return "text/html; charset=utf-8";
    if (ext == ".js" || ext == ".mjs")
        return "text/javascript; charset=utf-8";
    if (ext == ".css")
        return "text/css; charset=utf-8";
    if (ext == ".svg")
        return "image/svg+xml";
    if (ext == ".png")
        return "image/png";
    if (ext == ".json")
        return "application/json";
    if (ext == ".ico")
        return "image/x-icon";
    return "application/octet-stream";
}

}  // namespace

StaticFiles::StaticFiles(const std::filesystem::path& rootIn) {
    std::error_code error;
    root = std::filesystem::weakly_canonical(rootIn, error);
    if (error) {
        root = rootIn;
    }
}

bool StaticFiles::Handles(const std::string& path) {
    return path == "/" || path == "/index.html" || path.rfind("/web/", 0) == 0;
}

std::optional<std::filesystem::path> StaticFiles::Resolve(const std::string& path) const {
    std::string relative = (path == "/" || path == "/index.html") ? "index.html" : path.substr(5);
    if (relative.empty() || relative.find('\0') != std::string::npos ||
        relative.find('%') != std::string::npos) {
        return std::nullopt;
    }
    std::error_code error;
    const auto file = std::filesystem::weakly_canonical(root / relative, error);
    if (error) {
        return std::nullopt;
    }
    // The canonical path must still lie inside the folder: this catches "..", and links out of it.
    const auto [rootEnd, fileIt] = std::mismatch(root.begin(), root.end(), file.begin(), file.end());
    if (rootEnd != root.end() || !std::filesystem::is_regular_file(file, error)) {
        return std::nullopt;
    }
    return file;
}

HttpResponse StaticFiles::Serve(const std::string& method, const std::string& path) const {
    if (method != "GET" && method != "HEAD") {
        HttpResponse response = ErrorReply(405, "Method not allowed.");
        response.headers.emplace_back("Allow", "GET, HEAD");
        return response;
    }
    const auto file = Resolve(path);
    if (!file) {
        return ErrorReply(404, "Not found.");
    }
    std::ifstream in(*file, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    HttpResponse response;
    response.headers.emplace_back("Content-Type", ContentType(*file));
    response.headers.emplace_back("Cache-Control", "no-cache");
    response.headers.emplace_back("X-Content-Type-Options", "nosniff");
    // The console runs only its own files (no inline code, no foreign sources) and may not be framed by
    // another page; its address, which may carry a name of the device, is not handed on to links.
    response.headers.emplace_back("Content-Security-Policy", "default-src 'self'; frame-ancestors 'none'");
    response.headers.emplace_back("Referrer-Policy", "no-referrer");
    response.body = method == "HEAD" ? std::string() : content.str();
    return response;
}

}  // namespace NyHost
