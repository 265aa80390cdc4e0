#include "enc_converter.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using wide_converter = utils::encoding::enc_converter<unsigned char, wchar_t>;
using byte_converter = utils::encoding::enc_converter<unsigned char, char>;

std::wstring convert(const char* from, std::string in) {
    auto conv = wide_converter::create(from, "WCHAR_T");
    std::wstring out(in.size() + 1, L'\0');
    size_t inLeft = in.size(), outLeft = out.size() * sizeof(wchar_t);
    conv->conv(reinterpret_cast<unsigned char*>(in.data()), &inLeft, out.data(), &outLeft);
    out.resize(out.size() - outLeft / sizeof(wchar_t));
    return out;
}

TEST(EncConverter, CharacterSetsTheLibraryUses) {
    struct {
        const char* from;
        std::string in;
        std::wstring out;
    } cases[] = {
        {"UTF-8", "\xD0\x98\xD0\xB2", L"\u0418\u0432"},
        {"UTF-16BE", std::string("\x04\x18\x00" "A", 4), L"\u0418A"},
        {"US-ASCII", "Plain", L"Plain"},
        {"WINDOWS-1251", "\xC8\xE2", L"\u0418\u0432"},
    };
    for (auto& c : cases) EXPECT_EQ(convert(c.from, c.in), c.out) << c.from;
}

TEST(EncConverter, ConvUpdatesOnlyTheCounts) {
    auto conv = byte_converter::create("UTF-16BE", "UTF-8");
    unsigned char in[] = {0x04, 0x18};
    char out[8] = {};
    size_t inLeft = 2, outLeft = sizeof out;
    EXPECT_EQ(conv->conv(in, &inLeft, out, &outLeft), 0u);
    EXPECT_EQ(inLeft, 0u);
    EXPECT_EQ(outLeft, sizeof out - 2);
    EXPECT_EQ(std::string(out), "\xD0\x98");
}

TEST(EncConverter, InvalidInputIsReportedByResult) {
    auto conv = wide_converter::create("UTF-8", "WCHAR_T");
    unsigned char in[] = {'A', 0xFF, 'B'};
    wchar_t out[4] = {};
    size_t inLeft = 3, outLeft = sizeof out;
    EXPECT_EQ(conv->conv(in, &inLeft, out, &outLeft), static_cast<size_t>(-1));
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(inLeft, 2u);
}

TEST(EncConverter, UnknownNameThrowsErrno) {
    try {
        wide_converter::create("NO-SUCH-CHARSET", "WCHAR_T");
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "errno: 22");
    }
}

}  // namespace
