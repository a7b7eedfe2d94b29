#include "Sha256.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace NyPlugin::Internal {

namespace {

constexpr std::array<uint32_t, 64> kRoundConstants{
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr size_t kLengthBytes = 8;  // the message length in bits closes the last block, big-endian
constexpr unsigned char kFirstPadByte = 0x80;

uint32_t LoadBigEndian(const unsigned char* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | uint32_t{bytes[3]};
}

}  // namespace

void Sha256::Compress(const unsigned char* block) {
    std::array<uint32_t, 64> schedule{};
    for (size_t i = 0; i < 16; ++i) {
        schedule[i] = LoadBigEndian(block + 4 * i);
    }
    for (size_t i = 16; i < schedule.size(); ++i) {
        const uint32_t s0 =
            std::rotr(schedule[i - 15], 7) ^ std::rotr(schedule[i - 15], 18) ^ (schedule[i - 15] >> 3);
        const uint32_t s1 =
            std::rotr(schedule[i - 2], 17) ^ std::rotr(schedule[i - 2], 19) ^ (schedule[i - 2] >> 10);
        schedule[i] = schedule[i - 16] + s0 + schedule[i - 7] + s1;
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (size_t i = 0; i < schedule.size(); ++i) {
        const uint32_t sum1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
        const uint32_t choose = (e & f) ^ (~e & g);
        const uint32_t t1 = h + sum1 + choose + kRoundConstants[i] + schedule[i];
        const uint32_t sum0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
        const uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        const uint32_t t2 = sum0 + majority;
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

void Sha256::Update(const void* data, size_t size) {
    auto bytes = static_cast<const unsigned char*>(data);
    totalBytes += size;
    if (pendingBytes > 0) {
        const size_t take = std::min(size, kBlockBytes - pendingBytes);
        std::memcpy(pending.data() + pendingBytes, bytes, take);
        pendingBytes += take;
        bytes += take;
        size -= take;
        if (pendingBytes < kBlockBytes) {
            return;
        }
        Compress(pending.data());
        pendingBytes = 0;
    }
    for (; size >= kBlockBytes; bytes += kBlockBytes, size -= kBlockBytes) {
        Compress(bytes);
    }
    if (size > 0) {
        std::memcpy(pending.data(), bytes, size);
        pendingBytes = size;
    }
}

std::string Sha256::FinishHex() {
    const uint64_t totalBits = totalBytes * 8;
    pending[pendingBytes++] = kFirstPadByte;
    if (pendingBytes > kBlockBytes - kLengthBytes) {
        std::memset(pending.data() + pendingBytes, 0, kBlockBytes - pendingBytes);
        Compress(pending.data());
        pendingBytes = 0;
    }
    std::memset(pending.data() + pendingBytes, 0, kBlockBytes - kLengthBytes - pendingBytes);
    for (size_t i = 0; i < kLengthBytes; ++i) {
        pending[kBlockBytes - 1 - i] = static_cast<unsigned char>(totalBits >> (8 * i));
    }
    Compress(pending.data());
    pendingBytes = 0;

    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * kDigestBytes);
    for (const uint32_t word : state) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            hex.push_back(kHexDigits[(word >> shift) & 0xF]);
        }
    }
    return hex;
}

}  // namespace NyPlugin::Internal
