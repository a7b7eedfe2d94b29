// File helpers shared by the tests that change plug-in files under a running loader.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace NyTest {

// The whole content of `file` (empty when it cannot be read).
inline std::string ReadAll(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Writes `bytes` over `file` in place (same inode, truncated and rewritten), as `cp` or a linker does:
// the harshest way to change a library under a process that maps it.
inline void WriteInPlace(const std::filesystem::path& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

// The SHA-256 of a file as coreutils computes it: a reference that shares no code with the product.
inline std::string Sha256Of(const std::filesystem::path& file) {
    std::string output;
    if (FILE* pipe = ::popen(("sha256sum '" + file.string() + "'").c_str(), "r"); pipe != nullptr) {
        char buffer[256];
        while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
            output += buffer;
        }
        ::pclose(pipe);
    }
    return output.substr(0, output.find(' '));
}

}  // namespace NyTest
