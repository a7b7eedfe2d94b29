#include "PrivateCopies.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "NyApi/Exception.h"

namespace NyPlugin::Internal {

namespace {

namespace fs = std::filesystem;

constexpr size_t kChunkBytes = 64 * 1024;
constexpr mode_t kCopyMode = S_IRUSR | S_IWUSR;

// Closes a file descriptor on every path out.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fdIn) : fd(fdIn) {}
    ~FileDescriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int Get() const { return fd; }
    // Closes now and reports whether everything written reached the file.
    bool Close() { return ::close(std::exchange(fd, -1)) == 0; }

  private:
    int fd;
};

struct DigestFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

[[noreturn]] void ThrowCannotRead(const fs::path& from, int error) {
    if (error == ENOENT) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Plug-in %s does not exist.", from.string().c_str());
    }
    throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be read: %2$s", from.string().c_str(),
                       std::strerror(error));
}

// Reads `from` to its end, hashing every byte and writing it to `out` when that is a descriptor.
std::string HashCopying(const fs::path& from, int out, const fs::path& to) {
    FileDescriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.Get() < 0) {
        ThrowCannotRead(from, errno);
    }
    const std::unique_ptr<EVP_MD_CTX, DigestFree> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %s cannot be hashed.", from.string().c_str());
    }
    std::vector<unsigned char> chunk(kChunkBytes);
    for (;;) {
        const ssize_t got = ::read(in.Get(), chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            ThrowCannotRead(from, errno);
        }
        if (got == 0) {
            break;
        }
        EVP_DigestUpdate(context.get(), chunk.data(), static_cast<size_t>(got));
        for (ssize_t written = 0; out >= 0 && written < got;) {
            const ssize_t put = ::write(out, chunk.data() + written, static_cast<size_t>(got - written));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put <= 0) {
                throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be copied to %2$s: %3$s",
                                   from.string().c_str(), to.string().c_str(), std::strerror(errno));
            }
            written += put;
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest.data(), &length);
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * length);
    for (unsigned int i = 0; i < length; ++i) {
        hex.push_back(kHexDigits[digest[i] >> 4]);
        hex.push_back(kHexDigits[digest[i] & 0xF]);
    }
    return hex;
}

}  // namespace

fs::path MakePrivateFolder() {
    const char* tmpdir = std::getenv("TMPDIR");
    const fs::path base = tmpdir != nullptr && fs::path(tmpdir).is_absolute() ? fs::path(tmpdir) : "/tmp";
    std::string pattern = (base / "nyr-plugins-XXXXXX").string();
    // mkdtemp makes the folder with mode 0700 under a name nobody could have prepared.
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw NY_EXCEPTION(Ny::Status::Refused, "No private folder for plug-in copies under %1$s: %2$s",
                           base.string().c_str(), std::strerror(errno));
    }
    return pattern;
}

std::string CopyHashed(const fs::path& from, const fs::path& to) {
    FileDescriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kCopyMode));
    if (out.Get() < 0) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be copied to %2$s: %3$s",
                           from.string().c_str(), to.string().c_str(), std::strerror(errno));
    }
    try {
        std::string hash = HashCopying(from, out.Get(), to);
        if (!out.Close()) {
            throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be copied to %2$s: %3$s",
                               from.string().c_str(), to.string().c_str(), std::strerror(errno));
        }
        return hash;
    } catch (...) {
        std::error_code ignored;
        fs::remove(to, ignored);
        throw;
    }
}

std::string HashOf(const fs::path& file) {
    return HashCopying(file, -1, {});
}

}  // namespace NyPlugin::Internal
