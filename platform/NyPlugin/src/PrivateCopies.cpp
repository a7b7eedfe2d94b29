#include "PrivateCopies.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "NyApi/Exception.h"
#include "Sha256.h"

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

[[noreturn]] void ThrowCannotRead(const fs::path& from, int error) {
    if (error == ENOENT) {
        throw NY_EXCEPTION(Ny::Status::NotFound, "Plug-in %s does not exist.", from.string().c_str());
    }
    throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be read: %2$s", from.string().c_str(),
                       std::strerror(error));
}

// Reads `from` to its end, hashing every byte and writing it to `out` when that is a descriptor.
std::string HashCopying(const fs::path& from, int out, const fs::path& to) {
    // O_NONBLOCK: opening a named pipe must not wait for a writer; reads of a regular file ignore it.
    FileDescriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (in.Get() < 0) {
        ThrowCannotRead(from, errno);
    }
    struct stat status {};
    if (::fstat(in.Get(), &status) != 0) {
        ThrowCannotRead(from, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %s is not a regular file.",
                           from.string().c_str());
    }
    Sha256 digest;
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
        digest.Update(chunk.data(), static_cast<size_t>(got));
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
    return digest.FinishHex();
}

// The layout this process's loader expects: its own word size and byte order.
using ElfHeader = ElfW(Ehdr);
using ProgramHeader = ElfW(Phdr);
using SectionHeader = ElfW(Shdr);
constexpr unsigned char kNativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char kNativeByteOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

[[noreturn]] void ThrowIncomplete(const std::string& file, const std::string& what) {
    throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s is not a complete shared library: %2$s.",
                       file.c_str(), what.c_str());
}

// Whether [offset, offset + length) lies inside a file of `size` bytes, without overflowing.
bool Inside(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
    return offset <= size && length <= size - offset;
}

// Reads exactly `length` bytes at `offset`; false when the file ends first.
bool ReadAt(int fd, void* into, size_t length, std::uint64_t offset) {
    auto* bytes = static_cast<unsigned char*>(into);
    for (size_t done = 0; done < length;) {
        const ssize_t got = ::pread(fd, bytes + done, length - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

std::string Range(const char* what, std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
    return std::string(what) + " spans bytes " + std::to_string(offset) + " to " +
           std::to_string(offset + length) + ", the file ends at " + std::to_string(size);
}

}  // namespace

void CheckComplete(const fs::path& copy, const std::string& file) {
    FileDescriptor in(::open(copy.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (in.Get() < 0 || ::fstat(in.Get(), &status) != 0) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Plug-in %1$s cannot be read from its copy %2$s: %3$s",
                           file.c_str(), copy.string().c_str(), std::strerror(errno));
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    unsigned char ident[EI_NIDENT] = {};
    if (!ReadAt(in.Get(), ident, SELFMAG, 0) || std::memcmp(ident, ELFMAG, SELFMAG) != 0) {
        return;  // not ELF at all: the loader says so itself, mapping nothing
    }
    if (!ReadAt(in.Get(), ident, EI_NIDENT, 0)) {
        ThrowIncomplete(file, "its ELF identification is cut short at " + std::to_string(size) + " bytes");
    }
    if (ident[EI_CLASS] != kNativeClass || ident[EI_DATA] != kNativeByteOrder) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue,
                           "Plug-in %1$s is not a shared library of this machine: ELF class %2$u, byte order "
                           "%3$u (this machine's: %4$u, %5$u).",
                           file.c_str(), unsigned{ident[EI_CLASS]}, unsigned{ident[EI_DATA]},
                           unsigned{kNativeClass}, unsigned{kNativeByteOrder});
    }
    ElfHeader header{};
    if (!ReadAt(in.Get(), &header, sizeof header, 0)) {
        ThrowIncomplete(file, "its ELF header needs " + std::to_string(sizeof header) +
                                  " bytes, the file has " + std::to_string(size));
    }
    if (header.e_phnum == 0 || header.e_phentsize != sizeof(ProgramHeader)) {
        ThrowIncomplete(file, "it has no program headers the loader can read");
    }
    const std::uint64_t programBytes = std::uint64_t{header.e_phnum} * sizeof(ProgramHeader);
    if (!Inside(header.e_phoff, programBytes, size)) {
        ThrowIncomplete(file, Range("its program header table", header.e_phoff, programBytes, size));
    }
    std::vector<ProgramHeader> segments(header.e_phnum);
    if (!ReadAt(in.Get(), segments.data(), programBytes, header.e_phoff)) {
        ThrowIncomplete(file, "its program headers cannot be read");
    }
    // Every header's file range, not only the loadable segments': the loader also reads notes and the
    // like by offset. Headers with no bytes in the file (the stack's, say) have nothing to check.
    for (size_t i = 0; i < segments.size(); ++i) {
        const ProgramHeader& segment = segments[i];
        if (segment.p_filesz != 0 && !Inside(segment.p_offset, segment.p_filesz, size)) {
            const std::string what =
                (segment.p_type == PT_LOAD ? "loadable segment " : "segment ") + std::to_string(i);
            ThrowIncomplete(file, Range(what.c_str(), segment.p_offset, segment.p_filesz, size));
        }
    }
    if (header.e_shoff == 0) {
        return;  // no section headers: the loader needs none
    }
    if (header.e_shentsize != sizeof(SectionHeader)) {
        ThrowIncomplete(file, "its section headers have the wrong size");
    }
    std::uint64_t sections = header.e_shnum;
    if (sections == 0) {
        // More sections than the header's field holds: the first section header holds the number.
        SectionHeader first{};
        if (!Inside(header.e_shoff, sizeof first, size) ||
            !ReadAt(in.Get(), &first, sizeof first, header.e_shoff)) {
            ThrowIncomplete(file, Range("its first section header", header.e_shoff, sizeof first, size));
        }
        sections = first.sh_size;
    }
    if (sections > size / sizeof(SectionHeader) ||
        !Inside(header.e_shoff, sections * sizeof(SectionHeader), size)) {
        ThrowIncomplete(
            file, Range("its section header table", header.e_shoff, sections * sizeof(SectionHeader), size));
    }
}

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
