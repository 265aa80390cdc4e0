// zorvo-sign's text helpers: the certificate selector and pkcs11: URIs, UTF-8 and JSON output,
// and the wording and exit status of library errors.
#include <gtest/gtest.h>

#include "failure.h"
#include "text.h"

namespace {

using zs::Bytes;

TEST(Selector, FormsOfCert) {
    struct Row {
        const char* text;
        bool hasLabel;
        std::string label;
        bool hasId;
        Bytes id;
        std::map<std::string, std::string> token;
    };
    const Row rows[] = {
        {"rsa1", true, "rsa1", false, {}, {}},
        {"label:id:01", true, "id:01", false, {}, {}},  // the prefix makes any text a label
        {"label:pkcs11:x", true, "pkcs11:x", false, {}, {}},
        {"id:0A0b", false, "", true, {0x0a, 0x0b}, {}},
        {"id:01:ff", false, "", true, {0x01, 0xff}, {}},
        {"pkcs11:object=my%20key;id=%01%02;type=cert", true, "my key", true, {1, 2}, {}},
        {"pkcs11:token=%D0%9F%D0%BE;serial=42;model=m;manufacturer=a%3Bb",
         false,
         "",
         false,
         {},
         {{"token", "\xD0\x9F\xD0\xBE"}, {"serial", "42"}, {"model", "m"}, {"manufacturer", "a;b"}}},
        {"pkcs11:id=%00%3b", false, "", true, {0x00, 0x3b}, {}},  // any byte, NUL included
        {"pkcs11:object=a=b;;", true, "a=b", false, {}, {}},      // '=' in a value, empty attributes
        {"pkcs11:", false, "", false, {}, {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text);
        const zs::Selector s = zs::parse_selector(r.text);
        EXPECT_EQ(s.hasLabel, r.hasLabel);
        EXPECT_EQ(s.label, r.label);
        EXPECT_EQ(s.hasId, r.hasId);
        EXPECT_EQ(s.id, r.id);
        EXPECT_EQ(s.token, r.token);
    }
}

TEST(Selector, RefusedWithAReason) {
    struct Row {
        const char* text;
        const char* reason;
    };
    const Row rows[] = {
        {"", "empty certificate label"},
        {"label:", "empty certificate label"},
        {"id:", "even number"},
        {"id:123", "even number"},
        {"id:0g", "not a hexadecimal"},
        {"pkcs11:object=a%2", "bad percent-encoding in URI attribute object"},
        {"pkcs11:object=a%zz", "bad percent-encoding"},
        {"pkcs11:object=a;object=b", "given twice: object"},
        {"pkcs11:type=private", "only certificates"},
        {"pkcs11:slot-id=1", "not supported: slot-id"},
        {"pkcs11:object", "without a value"},
        {"pkcs11:object=a?pin-value=1234", "a PIN does not belong in the URI"},
        {"pkcs11:object=a?module-path=/x.so", "query attributes are not supported"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text);
        try {
            zs::parse_selector(r.text);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(r.reason), std::string::npos) << e.what();
            EXPECT_EQ(std::string(e.what()).find("1234"), std::string::npos) << "the PIN is echoed";
        }
    }
}

TEST(Selector, PrintedUriSelectsTheSameCertificate) {
    const std::map<std::string, std::string> token = {
        {"token", "Подпись; №1"}, {"manufacturer", "A&B"}, {"model", "m 2"}, {"serial", "0042"}};
    const Bytes id = {0x00, 0x41, 0xff};
    const std::string uri = zs::pkcs11_uri(token, "key/1 ?%", id);
    EXPECT_EQ(uri.find(' '), std::string::npos);
    EXPECT_NE(uri.find("id=%00%41%FF;type=cert"), std::string::npos) << uri;  // ids are bytes, always encoded
    const zs::Selector s = zs::parse_selector(uri);
    EXPECT_EQ(s.token, token);
    EXPECT_EQ(s.label, "key/1 ?%");
    EXPECT_EQ(s.id, id);
}

TEST(Text, WideToUtf8) {
    EXPECT_EQ(zs::to_utf8(L"A\u00e9\u0416\u20ac\U0001F600"), "A\xC3\xA9\xD0\x96\xE2\x82\xAC\xF0\x9F\x98\x80");
    // Not code points: surrogates and values past U+10FFFF.
    EXPECT_EQ(zs::to_utf8(std::wstring{wchar_t(0xD800), L'x', wchar_t(0x110000)}),
              "\xEF\xBF\xBDx\xEF\xBF\xBD");
}

TEST(Text, IllFormedUtf8IsReplaced) {
    const std::string r = "\xEF\xBF\xBD";
    struct Row {
        std::string in, out;
    };
    const Row rows[] = {
        {"plain", "plain"},
        {"\xD0\x9F\xF0\x9F\x98\x80", "\xD0\x9F\xF0\x9F\x98\x80"},
        {"a\xFF"
         "b",
         "a" + r + "b"},
        {"\xC0\xAF", r + r},                  // overlong
        {"\xED\xA0\x80", r + r + r},          // a surrogate
        {"\xF4\x90\x80\x80", r + r + r + r},  // past U+10FFFF
        {"\xE2\x82", r + r},                  // cut short at the end
        {"\xD0", r},
    };
    for (const Row& row : rows) EXPECT_EQ(zs::clean_utf8(row.in), row.out) << row.in;
    EXPECT_EQ(zs::printable(std::string("a\tb\x1b[31m\x7f", 9)), "a?b?[31m?");
}

TEST(Text, JsonString) {
    struct Row {
        std::string in, out;
    };
    const Row rows[] = {
        {"", "\"\""},
        {"odd \"label\"\tx", "\"odd \\\"label\\\"\\tx\""},
        {"back\\slash/", "\"back\\\\slash/\""},
        {std::string("\x00\x01\x1f\n\r\b\f", 7), "\"\\u0000\\u0001\\u001f\\n\\r\\b\\f\""},
        {"Подпись", "\"Подпись\""},
        {"bad\xFF", "\"bad\xEF\xBF\xBD\""},
    };
    for (const Row& r : rows) EXPECT_EQ(zs::json_string(r.in), r.out);
}

TEST(Failure, LibraryCodesToWordsAndStatus) {
    struct Row {
        int code;
        const char* message;
        bool gone;
        zs::Exit status;
        const char* text;
    };
    const Row rows[] = {
        {201, "pin incorrect", false, zs::kWrongPin, "wrong PIN (201: pin incorrect)"},
        {204, "pin locked", false, zs::kLoginRefused, "PIN locked (204: pin locked)"},
        {100, "failed to load p11 module", false, zs::kProvider,
         "cannot load the PKCS#11 provider (100: failed to load p11 module)"},
        {300, "error while locking OPENSSL P11 engine", false, zs::kEngineBusy,
         "engine busy: another signature is in progress (300: error while locking OPENSSL P11 engine)"},
        {300, "error while signing finalization", false, zs::kSigning,
         "signing failed (300: error while signing finalization)"},
        {300, "error while signing finalization", true, zs::kTokenRemoved,
         "token removed (300: error while signing finalization)"},
        {501, "user cancel operation", false, zs::kCancelled,
         "signature cancelled on the token (501: user cancel operation)"},
        {110, "unsupported private key type", false, zs::kKey,
         "unsupported key type (110: unsupported private key type)"},
        {-1, "unknown_error", false, zs::kInternal, "library error (-1: unknown_error)"},
    };
    for (const Row& r : rows) {
        const zs::Failure f = zs::describe(r.code, r.message, r.gone);
        EXPECT_EQ(f.status, r.status) << r.code;
        EXPECT_STREQ(f.what(), r.text);
    }
}

TEST(Failure, EveryDocumentedCodeHasItsOwnWords) {
    for (int code : {10,  11,  12,  13,  100, 101, 102, 103, 104, 105, 106, 107, 108, 109,
                     110, 120, 121, 122, 200, 201, 202, 203, 204, 210, 290, 301, 302, 501}) {
        const zs::Failure f = zs::describe(code, "m", false);
        EXPECT_NE(f.status, zs::kInternal) << code;
        EXPECT_EQ(std::string(f.what()).find("library error"), std::string::npos) << code;
    }
}

}  // namespace
