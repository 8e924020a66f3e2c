#include "core/sha256.hpp"

#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define TALLOWMERE_SHA_INSTRUCTIONS 1
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace tallowmere {

namespace {

constexpr uint32_t round_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

constexpr uint32_t initial_state[8] = {
    0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19,
};

using BlockFunction = void (*)(uint32_t state[8], const unsigned char* blocks, size_t count);

inline uint32_t rotate_right(uint32_t x, int bits) { return (x >> bits) | (x << (32 - bits)); }

inline uint32_t load_big_endian(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

void portable_blocks(uint32_t state[8], const unsigned char* blocks, size_t count) {
    for (; count > 0; --count, blocks += 64) {
        uint32_t w[64];
        for (int t = 0; t < 16; ++t) w[t] = load_big_endian(blocks + 4 * t);
        for (int t = 16; t < 64; ++t) {
            uint32_t s0 = rotate_right(w[t - 15], 7) ^ rotate_right(w[t - 15], 18) ^ (w[t - 15] >> 3);
            uint32_t s1 = rotate_right(w[t - 2], 17) ^ rotate_right(w[t - 2], 19) ^ (w[t - 2] >> 10);
            w[t] = w[t - 16] + s0 + w[t - 7] + s1;
        }
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
        uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
        for (int t = 0; t < 64; ++t) {
            uint32_t sum1 = rotate_right(e, 6) ^ rotate_right(e, 11) ^ rotate_right(e, 25);
            uint32_t choice = (e & f) ^ (~e & g);
            uint32_t t1 = h + sum1 + choice + round_constants[t] + w[t];
            uint32_t sum0 = rotate_right(a, 2) ^ rotate_right(a, 13) ^ rotate_right(a, 22);
            uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
            uint32_t t2 = sum0 + majority;
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
}

#ifdef TALLOWMERE_SHA_INSTRUCTIONS

// The SHA extensions keep the state as two vectors, ABEF and CDGH, and run
// two rounds per instruction; the message schedule advances four words at a time.
__attribute__((target("sha,sse4.1,ssse3"))) void instruction_blocks(uint32_t state[8], const unsigned char* blocks,
                                                                      size_t count) {
    const __m128i byte_swap = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
    __m128i dcba = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&state[0]));
    __m128i hgfe = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&state[4]));
    __m128i cdab = _mm_shuffle_epi32(dcba, 0xB1);
    __m128i efgh = _mm_shuffle_epi32(hgfe, 0x1B);
    __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);

    for (; count > 0; --count, blocks += 64) {
        const __m128i abef_before = abef;
        const __m128i cdgh_before = cdgh;
        // words[g % 4] holds message words 4g-16 .. 4g-13 until group g replaces them.
        __m128i words[4];
        for (int group = 0; group < 16; ++group) {
            __m128i message;
            if (group < 4) {
                message = _mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 16 * group));
                message = _mm_shuffle_epi8(message, byte_swap);
            } else {
                const __m128i previous = words[(group + 3) & 3];  // words 4g-4 .. 4g-1
                message = _mm_sha256msg1_epu32(words[group & 3], words[(group + 1) & 3]);
                message = _mm_add_epi32(message, _mm_alignr_epi8(previous, words[(group + 2) & 3], 4));
                message = _mm_sha256msg2_epu32(message, previous);
            }
            words[group & 3] = message;
            __m128i scheduled = _mm_add_epi32(
                message, _mm_loadu_si128(reinterpret_cast<const __m128i*>(&round_constants[4 * group])));
            cdgh = _mm_sha256rnds2_epu32(cdgh, abef, scheduled);
            scheduled = _mm_shuffle_epi32(scheduled, 0x0E);
            abef = _mm_sha256rnds2_epu32(abef, cdgh, scheduled);
        }
        abef = _mm_add_epi32(abef, abef_before);
        cdgh = _mm_add_epi32(cdgh, cdgh_before);
    }

    __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
    __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    dcba = _mm_blend_epi16(feba, dchg, 0xF0);
    hgfe = _mm_alignr_epi8(dchg, feba, 8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[0]), dcba);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[4]), hgfe);
}

bool processor_has_sha_instructions() {
    unsigned int eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
    bool ssse3 = (ecx & (1u << 9)) != 0;
    bool sse41 = (ecx & (1u << 19)) != 0;
    if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;
    bool sha = (ebx & (1u << 29)) != 0;
    return ssse3 && sse41 && sha;
}

const bool has_sha_instructions = processor_has_sha_instructions();

#else

const bool has_sha_instructions = false;

#endif

BlockFunction block_function(Sha256Engine engine) {
#ifdef TALLOWMERE_SHA_INSTRUCTIONS
    if (engine == Sha256Engine::best && has_sha_instructions) return instruction_blocks;
#endif
    (void)engine;
    return portable_blocks;
}

}  // namespace

bool sha256_uses_instructions() { return has_sha_instructions; }

void sha256_hex(const unsigned char* data, size_t length, char hex[64], Sha256Engine engine) {
    BlockFunction blocks = block_function(engine);
    uint32_t state[8];
    std::memcpy(state, initial_state, sizeof state);

    size_t whole = length / 64;
    if (whole > 0) blocks(state, data, whole);

    // The tail, the 0x80 byte, zeros and the bit length: one or two blocks.
    unsigned char tail[128] = {};
    size_t rest = length - whole * 64;
    if (rest > 0) std::memcpy(tail, data + whole * 64, rest);
    tail[rest] = 0x80;
    size_t tail_length = rest + 1 + 8 <= 64 ? 64 : 128;
    uint64_t bits = static_cast<uint64_t>(length) * 8;
    for (int i = 0; i < 8; ++i) tail[tail_length - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
    blocks(state, tail, tail_length / 64);

    static constexpr char digits[] = "0123456789abcdef";
    for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 4; ++j) {
            unsigned byte = (state[i] >> (24 - 8 * j)) & 0xff;
            hex[8 * i + 2 * j] = digits[byte >> 4];
            hex[8 * i + 2 * j + 1] = digits[byte & 0xf];
        }
    }
}

}  // namespace tallowmere
