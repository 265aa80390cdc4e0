#pragma once
// A small owning wrapper around one iconv conversion descriptor.
#include <iconv.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

namespace utils {
namespace encoding {

/// Converts bytes in the character set `from` into elements of type To in the set `to`.
template <typename From, typename To>
class enc_converter {
public:
    /// Throws std::runtime_error "errno: <n>" when iconv does not know a name.
    static std::unique_ptr<enc_converter> create(const char* from, const char* to) {
        return std::make_unique<enc_converter>(from, to);
    }

    enc_converter(const char* from, const char* to) : descriptor_(iconv_open(to, from)) {
        if (descriptor_ == reinterpret_cast<iconv_t>(-1)) {
            char text[32];
            std::snprintf(text, sizeof text, "errno: %d", errno);
            throw std::runtime_error(text);
        }
    }
    enc_converter(const enc_converter&) = delete;
    enc_converter& operator=(const enc_converter&) = delete;
    virtual ~enc_converter() { iconv_close(descriptor_); }

    /// One iconv call; only the two counts are updated. Returns iconv's result.
    size_t conv(From* in, size_t* inLeft, To* out, size_t* outLeft) {
        char* src = reinterpret_cast<char*>(in);
        char* dst = reinterpret_cast<char*>(out);
        return iconv(descriptor_, &src, inLeft, &dst, outLeft);
    }

private:
    iconv_t descriptor_;
};

}  // namespace encoding
}  // namespace utils
