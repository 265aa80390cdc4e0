#include "gost_test_util.h"

#include <gcrypt.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "gost/gosthash.h"
#include "gost/gosthash2012.h"

namespace gost_test {

const hash_algorithm hash_algorithms[4] = {
    {"gost94-cp", GCRY_MD_GOSTR3411_CP, 32},
    {"gost94-test", GCRY_MD_GOSTR3411_94, 32},
    {"streebog256", GCRY_MD_STRIBOG256, 32},
    {"streebog512", GCRY_MD_STRIBOG512, 64},
};

std::string to_hex(const uint8_t* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

bytes random_bytes(std::mt19937_64& rng, size_t n) {
    bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(rng());
    return b;
}

namespace {

bytes from_hex(const std::string& hex) {
    if (hex.size() % 2) throw std::runtime_error("odd hex length");
    bytes out;
    for (size_t i = 0; i < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

// "text", COUNT*"text" or hex:BYTES, starting at `pos`; leaves `pos` after the message.
bytes parse_message(const std::string& line, size_t& pos) {
    if (line.compare(pos, 4, "hex:") == 0) {
        size_t end = line.find_first_of(" \t", pos);
        bytes b = from_hex(line.substr(pos + 4, end - pos - 4));
        pos = end;
        return b;
    }
    size_t count = 1;
    size_t quote = line.find('"', pos);
    if (quote == std::string::npos) throw std::runtime_error("message expected");
    if (quote != pos) {
        if (line[quote - 1] != '*') throw std::runtime_error("COUNT*\"text\" expected");
        count = std::stoul(line.substr(pos, quote - 1 - pos));
    }
    size_t close = line.find('"', quote + 1);
    if (close == std::string::npos) throw std::runtime_error("unterminated text");
    std::string text = line.substr(quote + 1, close - quote - 1);
    bytes b;
    for (size_t i = 0; i < count; ++i) b.insert(b.end(), text.begin(), text.end());
    pos = close + 1;
    return b;
}

template <typename Feed>
void feed_pieces(const bytes& data, const std::vector<size_t>& pieces, Feed feed) {
    if (pieces.empty()) {
        feed(data.data(), data.size());
        return;
    }
    size_t off = 0;
    for (size_t i = 0; off < data.size(); ++i) {
        size_t n = std::min(pieces[i % pieces.size()], data.size() - off);
        feed(data.data() + off, n);
        off += n;
    }
}

}  // namespace

std::vector<vector_row> load_vectors() {
    std::ifstream in(GOST_VECTORS_FILE);
    if (!in) throw std::runtime_error("cannot open " GOST_VECTORS_FILE);
    std::vector<vector_row> rows;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        size_t pos = line.find_first_not_of(" \t");
        if (pos == std::string::npos || line[pos] == '#') continue;
        try {
            vector_row row;
            row.line = n;
            size_t end = line.find_first_of(" \t", pos);
            row.algorithm = line.substr(pos, end - pos);
            pos = line.find_first_not_of(" \t", end);
            if (pos == std::string::npos) throw std::runtime_error("message expected");
            row.message = parse_message(line, pos);
            std::istringstream rest(line.substr(pos));
            if (!(rest >> row.digest)) throw std::runtime_error("digest expected");
            rows.push_back(row);
        } catch (const std::exception& e) {
            throw std::runtime_error("vectors.txt:" + std::to_string(n) + ": " + e.what());
        }
    }
    return rows;
}

bytes our_hash(const std::string& algorithm, const bytes& data, const std::vector<size_t>& pieces) {
    if (algorithm == "gost94-cp" || algorithm == "gost94-test") {
        gost_hash_ctx ctx;
        if (!init_gost_hash_ctx(&ctx, algorithm == "gost94-cp" ? &GostR3411_94_CryptoProParamSet
                                                               : &GostR3411_94_TestParamSet))
            throw std::runtime_error("init_gost_hash_ctx");
        start_hash(&ctx);
        feed_pieces(data, pieces, [&](const uint8_t* p, size_t n) { hash_block(&ctx, p, n); });
        bytes out(32);
        finish_hash(&ctx, out.data());
        done_gost_hash_ctx(&ctx);
        return out;
    }
    if (algorithm == "streebog256" || algorithm == "streebog512") {
        unsigned bits = algorithm == "streebog256" ? 256 : 512;
        gost2012_hash_ctx ctx;
        init_gost2012_hash_ctx(&ctx, bits);
        feed_pieces(data, pieces, [&](const uint8_t* p, size_t n) { gost2012_hash_block(&ctx, p, n); });
        bytes out(bits / 8);
        gost2012_finish_hash(&ctx, out.data());
        return out;
    }
    throw std::runtime_error("unknown algorithm " + algorithm);
}

void init_gcrypt() {
    static const bool ready = [] {
        gcry_check_version(nullptr);
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        return true;
    }();
    (void)ready;
}

bytes gcrypt_hash(int gcrypt_id, const bytes& data, size_t size) {
    init_gcrypt();
    bytes out(gcry_md_get_algo_dlen(gcrypt_id));
    gcry_md_hash_buffer(gcrypt_id, out.data(), data.data(), data.size());
    out.resize(size);
    return out;
}

}  // namespace gost_test
