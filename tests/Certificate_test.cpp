#include "Certificate.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include "p11.h"
#include "test_certs.h"
#include "test_log.h"

namespace {

using p11::name_map;
using testcert::Entry;

std::wstring convertUtf8(const std::string& text) {
    std::vector<char> bytes(text.begin(), text.end());
    return p11::utf8ToWString(bytes.data(), bytes.size());
}

TEST(Utf8ToWString, StopsAtInvalidSequenceOrZero) {
    const struct {
        const char* name;
        std::string in;
        std::wstring out;
    } cases[] = {
        {"empty", "", L""},
        {"ascii", "Token", L"Token"},
        {"cyrillic", "Иван", L"Иван"},
        {"invalid byte drops the rest", std::string("AB\xFF") + "CD", L"AB"},
        {"zero byte ends", std::string("AB\0CD", 5), L"AB"},
        {"truncated sequence at the end", "A\xD0", L"A"},
        {"longer than the stack area", std::string(1000, 'x'), std::wstring(1000, L'x')},
    };
    for (const auto& c : cases) EXPECT_EQ(convertUtf8(c.in), c.out) << c.name;
}

TEST(ParseX509Name, DecodesByStringType) {
    std::string longUtf8;
    for (int i = 0; i < 600; ++i) longUtf8 += "Ж";
    const struct {
        const char* name;
        std::vector<Entry> entries;
        name_map expected;
    } cases[] = {
        {"UTF8String cyrillic", {{"CN", V_ASN1_UTF8STRING, "Иван Петров"}}, {{"CN", L"Иван Петров"}}},
        {"UTF8String longer than the stack area",
         {{"CN", V_ASN1_UTF8STRING, longUtf8}},
         {{"CN", std::wstring(600, L'Ж')}}},
        {"UTF8String invalid byte cuts",
         {{"CN", V_ASN1_UTF8STRING, std::string("Ok\xFF") + "no"}},
         {{"CN", L"Ok"}}},
        {"UTF8String zero byte ends", {{"CN", V_ASN1_UTF8STRING, std::string("A\0B", 3)}}, {{"CN", L"A"}}},
        {"BMPString 6 bytes", {{"O", V_ASN1_BMPSTRING, "\x04\x18\x04\x32\x04\x30"}}, {{"O", L"Ива"}}},
        {"BMPString surrogate pair",
         {{"O", V_ASN1_BMPSTRING, std::string("\xD8\x3D\xDE\x00", 4)}},
         {{"O", L"\U0001F600"}}},
        {"TeletexString as Windows-1251", {{"L", V_ASN1_T61STRING, "\xC8\xE2"}}, {{"L", L"Ив"}}},
        {"ASCII types",
         {{"C", V_ASN1_PRINTABLESTRING, "RU"},
          {"emailAddress", V_ASN1_IA5STRING, "a@b.ru"},
          {"serialNumber", V_ASN1_NUMERICSTRING, "123 45"}},
         {{"C", L"RU"}, {"emailAddress", L"a@b.ru"}, {"serialNumber", L"123 45"}}},
        {"ASCII type with a high byte cuts",
         {{"C", V_ASN1_PRINTABLESTRING, std::string("AB\xC0") + "CD"}},
         {{"C", L"AB"}}},
        {"empty values",
         {{"CN", V_ASN1_UTF8STRING, ""},
          {"O", V_ASN1_BMPSTRING, ""},
          {"L", V_ASN1_T61STRING, ""},
          {"C", V_ASN1_PRINTABLESTRING, ""}},
         {{"CN", L""}, {"O", L""}, {"L", L""}, {"C", L""}}},
        {"no short name gives the dotted number",
         {{"1.2.3.4.5", V_ASN1_UTF8STRING, "x"}},
         {{"1.2.3.4.5", L"x"}}},
        {"same attribute twice keeps the last",
         {{"OU", V_ASN1_UTF8STRING, "A"}, {"OU", V_ASN1_PRINTABLESTRING, "B"}},
         {{"OU", L"B"}}},
        {"UniversalString skipped",
         {{"CN", V_ASN1_UNIVERSALSTRING, std::string("\0\0\0A", 4)}, {"O", V_ASN1_UTF8STRING, "Org"}},
         {{"O", L"Org"}}},
    };
    for (const auto& c : cases) {
        auto name = testcert::makeName(c.entries);
        name_map map;
        p11::parseX509Name(name.get(), map);
        EXPECT_EQ(map, c.expected) << c.name;
    }
}

// OpenSSL refuses such a value when building or decoding a name, but a name may be altered in memory.
TEST(ParseX509Name, OddLengthBMPStringDropsTheHalfCharacter) {
    auto name = testcert::makeName({{"O", V_ASN1_BMPSTRING, std::string("\0A\0B", 4)}});
    ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name.get(), 0));
    ASSERT_EQ(ASN1_STRING_set(value, "\0A\0B\0", 5), 1);
    name_map map;
    p11::parseX509Name(name.get(), map);
    EXPECT_EQ(map, (name_map{{"O", L"AB"}}));
}

TEST(ParseX509Name, AddsToTheMapGiven) {
    auto name = testcert::makeName({{"CN", V_ASN1_UTF8STRING, "new"}});
    name_map map{{"CN", L"old"}, {"O", L"kept"}};
    p11::parseX509Name(name.get(), map);
    EXPECT_EQ(map, (name_map{{"CN", L"new"}, {"O", L"kept"}}));
}

TEST(ParseX509Name, LogsUnsupportedTypes) {
    auto name = testcert::makeName({{"CN", V_ASN1_UNIVERSALSTRING, std::string("\0\0\0A", 4)},
                                    {"O", V_ASN1_UTF8STRING, "Org"},
                                    {"1.2.3.4.5", V_ASN1_BIT_STRING, "v"}});
    testlog::Capture log;
    name_map map;
    p11::parseX509Name(name.get(), map);
    EXPECT_EQ(log.errors(), (std::vector<std::wstring>{L"Can't parse [name=CN, type=28] loaded.",
                                                       L"Can't parse [name=1.2.3.4.5, type=3] loaded."}));
}

std::shared_ptr<CK_TOKEN_INFO> tokenInfo(const std::string& label, const std::string& model) {
    auto info = std::make_shared<CK_TOKEN_INFO>();
    std::memset(info.get(), ' ', sizeof *info);
    std::memcpy(info->label, label.data(), label.size());
    std::memcpy(info->manufacturerID, "Maker", 5);
    std::memcpy(info->model, model.data(), model.size());
    std::memcpy(info->serialNumber, "0042", 4);
    return info;
}

TEST(ParseTokenInfo, KeepsBlankPadding) {
    name_map map;
    p11::parseTokenInfo(tokenInfo("Токен", "M1"), map);
    EXPECT_EQ(map, (name_map{{"label", L"Токен" + std::wstring(22, L' ')},
                             {"manufacturerID", L"Maker" + std::wstring(27, L' ')},
                             {"model", L"M1" + std::wstring(14, L' ')},
                             {"serialNumber", L"0042" + std::wstring(12, L' ')}}));

    name_map untouched{{"label", L"x"}};
    p11::parseTokenInfo(nullptr, untouched);
    EXPECT_EQ(untouched, (name_map{{"label", L"x"}}));
}

using x509_owner = std::unique_ptr<X509, void (*)(X509*)>;

x509_owner parse(const std::vector<unsigned char>& der) {
    const unsigned char* p = der.data();
    return x509_owner(d2i_X509(nullptr, &p, static_cast<long>(der.size())), X509_free);
}

std::shared_ptr<p11::Certificate> build(x509_owner& x509, p11::Certificate::id_type& id) {
    std::string label = "cert label";
    return std::make_shared<p11::Certificate>(std::weak_ptr<p11::Session>(), label, x509, id,
                                              tokenInfo("Token", "Model"));
}

std::shared_ptr<p11::Certificate> build(const testcert::Options& options) {
    x509_owner x509 = parse(testcert::makeDer(options));
    p11::Certificate::id_type id{std::make_unique<unsigned char[]>(1), 1};
    return build(x509, id);
}

TEST(Certificate, ReadsNamesValidityAndTokenInfo) {
    testcert::Options options;
    options.subject = {{"CN", V_ASN1_UTF8STRING, "Иван"}, {"C", V_ASN1_PRINTABLESTRING, "RU"}};
    options.issuer = {{"CN", V_ASN1_T61STRING, "\xC8\xE2"},
                      {"O", V_ASN1_BMPSTRING, std::string("\0C\0A", 4)}};
    options.notBefore = "20200101000000Z";
    options.notAfter = "20500228123456Z";
    auto cert = build(options);

    EXPECT_EQ(cert->getLabel(), "cert label");
    EXPECT_EQ(cert->getSubject(), (name_map{{"CN", L"Иван"}, {"C", L"RU"}}));
    EXPECT_EQ(cert->getIssuer(), (name_map{{"CN", L"Ив"}, {"O", L"CA"}}));
    EXPECT_EQ(cert->getTokenInfo().at("label"), L"Token" + std::wstring(27, L' '));
    EXPECT_EQ(cert->getNotBeforeStr(), "Jan  1 00:00:00 2020 GMT");
    EXPECT_EQ(cert->getNotAfterStr(), "Feb 28 12:34:56 2050 GMT");
}

TEST(Certificate, SerialNumberInDecimal) {
    const struct {
        int64_t serial;
        const char* text;
    } cases[] = {{0x0100, "256"}, {-5, "-5"}, {0, "0"}, {INT64_MAX, "9223372036854775807"}};
    for (const auto& c : cases) {
        testcert::Options options;
        options.serial = c.serial;
        EXPECT_EQ(build(options)->getSerialNumber(), c.text) << c.serial;
    }
}

TEST(Certificate, KeyUsageBits) {
    const struct {
        const char* extension;
        unsigned long bits;
    } cases[] = {
        {"", 0},
        {"digitalSignature,nonRepudiation", 0b000000011},
        {"critical,keyCertSign,cRLSign", 0b001100000},
        {"keyAgreement,decipherOnly", 0b100010000},
        {"digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment,keyAgreement,keyCertSign,cRLSign,"
         "encipherOnly,decipherOnly",
         0b111111111},
    };
    for (const auto& c : cases) {
        testcert::Options options;
        options.keyUsage = c.extension;
        EXPECT_EQ(build(options)->getKeyUsage().to_ulong(), c.bits) << c.extension;
    }
}

TEST(Certificate, TakesOverX509AndIdOnlyWhenBuilt) {
    x509_owner x509 = parse(testcert::makeDer());
    X509* raw = x509.get();
    p11::Certificate::id_type id{std::make_unique<unsigned char[]>(3), 3};
    std::memcpy(id.first.get(), "\x01\x02\x03", 3);

    auto cert = build(x509, id);
    EXPECT_EQ(x509.get(), nullptr);
    EXPECT_EQ(id.first.get(), nullptr);
    EXPECT_EQ(id.second, 3u);
    EXPECT_EQ(cert->getX509(), raw);
    EXPECT_EQ(cert->get_public_key(), X509_get_X509_PUBKEY(raw));
    ASSERT_EQ(cert->get_id().second, 3u);
    EXPECT_EQ(std::memcmp(cert->get_id().first.get(), "\x01\x02\x03", 3), 0);
}

TEST(Certificate, UnprintableValidityLeavesOwnershipWithCaller) {
    for (auto which : {X509_getm_notBefore, X509_getm_notAfter}) {
        p11::ossl::x509_ptr made = testcert::make();
        x509_owner x509(made.release(), X509_free);
        ASSERT_EQ(ASN1_STRING_set(which(x509.get()), "garbage", 7), 1);
        X509* raw = x509.get();
        p11::Certificate::id_type id{std::make_unique<unsigned char[]>(1), 1};
        unsigned char* rawId = id.first.get();

        try {
            build(x509, id);
            ADD_FAILURE() << "no exception";
        } catch (const p11::process_error& e) {
            EXPECT_EQ(e.code(), 210);
            EXPECT_EQ(e.message(), "ASN1_TIME_print failed or wrote no data.");
        }
        EXPECT_EQ(x509.get(), raw);
        EXPECT_EQ(id.first.get(), rawId);
    }
}

TEST(ConvertASN1Time, PrintsOrThrows210) {
    const struct {
        int type;
        std::string text;
        const char* printed;  // null: throws
    } cases[] = {
        {V_ASN1_UTCTIME, "200101000000Z", "Jan  1 00:00:00 2020 GMT"},
        {V_ASN1_GENERALIZEDTIME, "20501231235959Z", "Dec 31 23:59:59 2050 GMT"},
        {V_ASN1_UTCTIME, "garbage", nullptr},
        {V_ASN1_UTCTIME, "", nullptr},
        {V_ASN1_GENERALIZEDTIME, "20501399000000Z", nullptr},
    };
    for (const auto& c : cases) {
        std::unique_ptr<ASN1_TIME, void (*)(ASN1_STRING*)> time(
            c.type == V_ASN1_UTCTIME ? ASN1_UTCTIME_new() : ASN1_GENERALIZEDTIME_new(), ASN1_STRING_free);
        ASSERT_EQ(ASN1_STRING_set(time.get(), c.text.data(), static_cast<int>(c.text.size())), 1);
        if (c.printed) {
            EXPECT_EQ(p11::convert_ASN1TIME(time.get()), c.printed) << c.text;
            continue;
        }
        try {
            p11::convert_ASN1TIME(time.get());
            ADD_FAILURE() << "no exception for " << c.text;
        } catch (const p11::process_error& e) {
            EXPECT_EQ(e.code(), 210) << c.text;
        }
    }
}

TEST(ParseKeyUsage, AbsentLeavesBitsUndecodableClearsThem) {
    const std::bitset<9> preset(0x1FF);

    p11::ossl::x509_ptr plain = testcert::make();
    std::bitset<9> bits = preset;
    p11::parseKeyUsage(plain.get(), &bits);
    EXPECT_EQ(bits, preset);

    testcert::Options options;
    options.keyUsage = "digitalSignature";
    p11::ossl::x509_ptr one = testcert::make(options);
    p11::parseKeyUsage(one.get(), &bits);
    EXPECT_EQ(bits.to_ulong(), 1u);

    // A SEQUENCE where the BIT STRING belongs.
    std::unique_ptr<ASN1_OCTET_STRING, void (*)(ASN1_OCTET_STRING*)> contents(ASN1_OCTET_STRING_new(),
                                                                              ASN1_OCTET_STRING_free);
    ASSERT_EQ(ASN1_OCTET_STRING_set(contents.get(), reinterpret_cast<const unsigned char*>("\x30\x00"), 2),
              1);
    std::unique_ptr<X509_EXTENSION, void (*)(X509_EXTENSION*)> ext(
        X509_EXTENSION_create_by_NID(nullptr, NID_key_usage, 0, contents.get()), X509_EXTENSION_free);
    ASSERT_TRUE(ext);
    p11::ossl::x509_ptr broken = testcert::make();
    ASSERT_EQ(X509_add_ext(broken.get(), ext.get(), -1), 1);
    bits = preset;
    p11::parseKeyUsage(broken.get(), &bits);
    EXPECT_EQ(bits.none(), true);
}

}  // namespace
