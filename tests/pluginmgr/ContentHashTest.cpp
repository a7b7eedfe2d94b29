// The plug-in layer's own SHA-256, which names every loaded plug-in file by its content: published
// vectors, every way of feeding a message in pieces, agreement with an independent tool around the
// block and padding boundaries and the file reader's chunk size, and that hashing pulls no
// cryptography library into the process (an idle host would carry it resident for nothing).
#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "Files.h"
#include "NyPlugin/PluginManager.h"
#include "PrivateCopies.h"
#include "Sha256.h"

namespace {

namespace fs = std::filesystem;
using NyPlugin::Internal::Sha256;

std::string HashWhole(const std::string& message) {
    Sha256 digest;
    digest.Update(message.data(), message.size());
    return digest.FinishHex();
}

std::string RandomBytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() & 0xFF);
    }
    return bytes;
}

TEST(ContentHash, PublishedVectors) {
    EXPECT_EQ(HashWhole(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(HashWhole("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // 56 bytes: the length no longer fits the first block, so padding takes a second one.
    EXPECT_EQ(HashWhole("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(
        HashWhole("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
                  "lmnopqrsmnopqrstnopqrstu"),
        "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
    Sha256 million;
    const std::string thousand(1000, 'a');
    for (int i = 0; i < 1000; ++i) {
        million.Update(thousand.data(), thousand.size());
    }
    EXPECT_EQ(million.FinishHex(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(ContentHash, AnySplitOfAMessageGivesOneDigest) {
    // Up to three blocks, so that each split lands before, inside and after a partly filled block.
    constexpr size_t kLongest = 3 * 64 + 1;
    const std::string message = RandomBytes(kLongest, 1);
    for (size_t size = 0; size <= kLongest; ++size) {
        const std::string whole = HashWhole(message.substr(0, size));
        for (size_t split = 0; split <= size; ++split) {
            Sha256 digest;
            digest.Update(message.data(), split);
            digest.Update(message.data() + split, size - split);
            ASSERT_EQ(digest.FinishHex(), whole) << size << " bytes split at " << split;
        }
        Sha256 byBytes;
        for (size_t i = 0; i < size; ++i) {
            byBytes.Update(message.data() + i, 1);
        }
        ASSERT_EQ(byBytes.FinishHex(), whole) << size << " bytes fed one at a time";
    }
}

TEST(ContentHash, FilesAgreeWithAnIndependentToolAroundEveryBoundary) {
    const fs::path folder = fs::temp_directory_path() / ("nyr-contenthash-" + std::to_string(::getpid()));
    fs::create_directories(folder);
    const fs::path file = folder / "bytes";
    std::vector<size_t> sizes;
    for (size_t size = 0; size <= 2 * 64 + 1; ++size) {
        sizes.push_back(size);  // every padding case: the length fits its block or needs another
    }
    constexpr size_t kReaderChunk = 64 * 1024;  // the file reader's chunk: a digest across reads
    for (const size_t size : {kReaderChunk - 1, kReaderChunk, kReaderChunk + 1, 3 * kReaderChunk + 55}) {
        sizes.push_back(size);
    }
    for (const size_t size : sizes) {
        const std::string bytes = RandomBytes(size, static_cast<uint32_t>(size) + 7);
        NyTest::WriteInPlace(file, bytes);
        const std::string reference = NyTest::Sha256Of(file);
        ASSERT_EQ(reference.size(), 2 * Sha256::kDigestBytes) << "the reference tool did not answer";
        EXPECT_EQ(HashWhole(bytes), reference) << size << " bytes";
        EXPECT_EQ(NyPlugin::Internal::HashOf(file), reference) << size << " bytes read from a file";
    }
    fs::remove_all(folder);
}

bool CryptographyLibraryLoaded() {
    bool found = false;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* foundIn) {
            const std::string name = info->dlpi_name != nullptr ? info->dlpi_name : "";
            if (name.find("libcrypto") != std::string::npos || name.find("libssl") != std::string::npos) {
                *static_cast<bool*>(foundIn) = true;
            }
            return 0;
        },
        &found);
    return found;
}

TEST(ContentHash, HashingPluginsNeedsNoCryptographyLibrary) {
    NyPlugin::PluginManager plugins;
    plugins.LoadDirectory(NYR_PLUGINMGR_LIBS);
    ASSERT_FALSE(plugins.Libraries().empty());
    EXPECT_FALSE(CryptographyLibraryLoaded());
}

}  // namespace
