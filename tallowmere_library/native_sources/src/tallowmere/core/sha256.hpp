// SHA-256 (FIPS 180-4) of a byte string, for graph fingerprints and
// idempotency keys.
//
// Both hash short texts (a few hundred bytes), for which calling hashlib from
// C costs more than the hash itself. The digest is computed with
// the processor's SHA extensions where it has them, otherwise portably.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tallowmere {

enum class Sha256Engine : unsigned char { best, portable };

// The 64 lowercase hexadecimal digits of the digest of data[0:length].
void sha256_hex(const unsigned char* data, size_t length, char hex[64], Sha256Engine engine = Sha256Engine::best);

// True when `best` uses the processor's SHA instructions.
bool sha256_uses_instructions();

}  // namespace tallowmere
