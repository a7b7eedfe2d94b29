// Serves the web console's files from one folder: "/" is index.html, "/web/<path>" a file beneath the
// folder. Paths that would leave the folder (".." segments, symbolic links pointing out) are refused.
// Stateless after construction; thread-safe.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "HttpServer.h"

namespace NyHost {

class StaticFiles {
  public:
    explicit StaticFiles(const std::filesystem::path& root);

    // True for the paths this class answers ("/", "/index.html" and "/web/...").
    static bool Handles(const std::string& path);
    // The file's reply (200), or a JSON 404/405 reply.
    HttpResponse Serve(const std::string& method, const std::string& path) const;

  private:
    std::optional<std::filesystem::path> Resolve(const std::string& path) const;

    std::filesystem::path root;  // canonical
};

}  // namespace NyHost
