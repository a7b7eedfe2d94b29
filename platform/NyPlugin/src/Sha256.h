// SHA-256 for the plug-in manager's content hashes (internal to NyPlugin).
//
// The manager hashes every plug-in file it copies, and a host that serves plain HTTP would otherwise
// initialise a whole cryptography library for this one digest: that costs megabytes of resident memory
// for as long as the process lives. The algorithm is small and public, so the layer carries its own.
// A Sha256 is a value owned by whoever hashes; one object is used by one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace NyPlugin::Internal {

class Sha256 {
  public:
    static constexpr size_t kDigestBytes = 32;

    // Adds `size` bytes at `data` to the message; any split of a message into calls gives one digest.
    void Update(const void* data, size_t size);
    // The digest of everything added, as 64 lower-case hex digits. Ends this message: the object must
    // not be updated or finished again.
    std::string FinishHex();

  private:
    static constexpr size_t kBlockBytes = 64;

    void Compress(const unsigned char* block);

    std::array<uint32_t, 8> state{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                  0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::array<unsigned char, kBlockBytes> pending{};  // the start of a block not yet compressed
    size_t pendingBytes = 0;
    uint64_t totalBytes = 0;
};

}  // namespace NyPlugin::Internal
