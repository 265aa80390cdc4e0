#pragma once
// Shared helpers of the GOST tests: hex, the vector file, our hashes and libgcrypt's.
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace gost_test {

using bytes = std::vector<uint8_t>;

std::string to_hex(const uint8_t* data, size_t size);
inline std::string to_hex(const bytes& b) {
    return to_hex(b.data(), b.size());
}
bytes random_bytes(std::mt19937_64& rng, size_t n);

/// One line of vectors.txt.
struct vector_row {
    std::string algorithm;
    bytes message;
    std::string digest;  ///< lower-case hex
    int line;
};

/// Reads vectors.txt; throws std::runtime_error on a line it cannot parse.
std::vector<vector_row> load_vectors();

/// The hashes under test, by the names used in vectors.txt.
struct hash_algorithm {
    const char* name;
    int gcrypt_id;
    size_t size;
};
extern const hash_algorithm hash_algorithms[4];

/// Our hash of `data`, fed in pieces whose sizes cycle through `pieces` (one call if empty).
bytes our_hash(const std::string& algorithm, const bytes& data, const std::vector<size_t>& pieces = {});
/// libgcrypt's hash of `data`.
bytes gcrypt_hash(int gcrypt_id, const bytes& data, size_t size);
/// Makes libgcrypt usable; safe to call repeatedly.
void init_gcrypt();

}  // namespace gost_test
