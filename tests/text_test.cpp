// What needs no token: errors and their log lines, text fields, names, and the provider loader.
#include <dlfcn.h>

#include "fixture.h"

namespace {

using p11::name_map;

TEST(Text, ErrorsAndTheirLogLine) {
    EXPECT_STREQ(p11::process_error().what(), "-1:unknown_error");
    EXPECT_STREQ(p11::process_error(104, "").what(), "104:");
    auto log = fx::Log::capture();
    const struct {
        CK_RV rv;
        const wchar_t* line;
    } rows[] = {
        {0xA0, L"PKCS11 function C_Login failed: rv = CKR_PIN_INCORRECT (160)"},
        {0x1000000A0, L"PKCS11 function C_Login failed: rv = unknown PKCS11 error (160)"},
        {0x200, L"PKCS11 function C_Login failed: rv = unknown PKCS11 error (512)"},
        {0x80000000, L"PKCS11 function C_Login failed: rv = CKR_VENDOR_DEFINED (2147483648)"},
    };
    for (const auto& r : rows) {
        p11::log_p11_error("C_Login", r.rv);
        EXPECT_TRUE(log->has(fx::kError, r.line)) << r.rv;
    }
}

TEST(Text, TokenFieldsAndFlags) {
    const struct {
        std::string field;
        std::string text;
    } rows[] = {{"ABC  ", "ABC"},
                {std::string(32, ' '), ""},
                {"A\tB ", "A\tB"},
                {std::string(600, 'x'), std::string(511, 'x')}};
    for (auto r : rows)
        EXPECT_EQ(p11::p11_utf8_to_local(reinterpret_cast<unsigned char*>(r.field.data()), r.field.size()),
                  r.text);
    EXPECT_STREQ(p11::p11_slot_info_flags(0x7), "token present, removable device, hardware slot");
    EXPECT_STREQ(p11::p11_slot_info_flags(0x9), "token present, other flags=0x8");
    EXPECT_STREQ(p11::p11_slot_info_flags(0), "");

    std::string utf8 =
        "AB\xFF"
        "CD";
    EXPECT_EQ(p11::utf8ToWString(utf8.data(), utf8.size()), L"AB");
    std::string big(1000, 'x');
    EXPECT_EQ(p11::utf8ToWString(big.data(), big.size()), std::wstring(1000, L'x'));
    try {
        utils::encoding::enc_converter<unsigned char, wchar_t>::create("NO-SUCH-SET", "WCHAR_T");
        ADD_FAILURE() << "an unknown character set was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "errno: 22");
    }

    CK_TOKEN_INFO info{};
    std::memset(&info, ' ', sizeof info);
    std::memcpy(info.label, "Token", 5);
    name_map map;
    p11::parseTokenInfo(std::make_shared<CK_TOKEN_INFO>(info), map);
    EXPECT_EQ(map["label"], L"Token" + std::wstring(27, L' '));
    EXPECT_EQ(map["model"], std::wstring(16, L' '));
}

TEST(Text, NamesByStringType) {
    const struct {
        const char* field;
        int type;
        std::string bytes;
    } entries[] = {
        {"CN", V_ASN1_UTF8STRING, "Иван Петров"},
        {"O", V_ASN1_BMPSTRING, "\x04\x18\x04\x32\x04\x30"},
        {"L", V_ASN1_T61STRING, "\xC8\xE2"},
        {"C", V_ASN1_PRINTABLESTRING, "RU"},
        {"emailAddress", V_ASN1_IA5STRING, "a@b.ru"},
        {"ST", V_ASN1_PRINTABLESTRING,
         "AB\xC0"
         "CD"},
        {"OU", V_ASN1_UTF8STRING, "first"},
        {"OU", V_ASN1_UTF8STRING, "second"},
        {"1.2.3.4.5", V_ASN1_UTF8STRING, std::string("x\0y", 3)},
        {"title", V_ASN1_UNIVERSALSTRING, std::string("\0\0\0A", 4)},
    };
    X509_NAME* name = X509_NAME_new();
    for (const auto& e : entries)
        X509_NAME_add_entry_by_txt(name, e.field, e.type,
                                   reinterpret_cast<const unsigned char*>(e.bytes.data()),
                                   static_cast<int>(e.bytes.size()), -1, 0);
    auto log = fx::Log::capture();
    name_map map;
    p11::parseX509Name(name, map);
    X509_NAME_free(name);
    EXPECT_EQ(map, (name_map{{"CN", L"Иван Петров"},
                             {"O", L"Ива"},
                             {"L", L"Ив"},
                             {"C", L"RU"},
                             {"emailAddress", L"a@b.ru"},
                             {"ST", L"AB"},
                             {"OU", L"second"},
                             {"1.2.3.4.5", L"x"}}));
    EXPECT_TRUE(log->has(fx::kError, L"Can't parse [name=title, type=28] loaded."));

    ASN1_TIME* t = ASN1_TIME_set(nullptr, 1577836800);
    EXPECT_EQ(p11::convert_ASN1TIME(t), "Jan  1 00:00:00 2020 GMT");
    ASN1_STRING_set(t, "garbage", 7);
    EXPECT_P11(p11::convert_ASN1TIME(t), 210, "ASN1_TIME_print failed or wrote no data.");
    ASN1_TIME_free(t);
}

TEST(Loader, LoadsWhatItCanAndUnloadsWhatItLoaded) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    const struct {
        const char* path;
        const char* rules;
        std::string stderrStart;
    } refused[] = {
        {nullptr, "", ""},
        {"/nonexistent/provider.so", "",
         "sc_dlopen failed: /nonexistent/provider.so: cannot open shared object file"},
        {"libm.so.6", "", ""},
        {ZORVO_TPROV, "fl=0x5", "C_GetFunctionList failed 5"},
    };
    for (const auto& r : refused) {
        fx::provider(r.rules);
        testing::internal::CaptureStderr();
        EXPECT_EQ(C_LoadModule(r.path, &list), nullptr) << r.rules;
        EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, r.stderrStart.size()), r.stderrStart);
        if (*r.rules) {
            EXPECT_EQ(dlopen(r.path, RTLD_NOW | RTLD_NOLOAD), nullptr) << "left loaded";
        }
    }
    fx::provider();
    void* record = C_LoadModule(ZORVO_TPROV, &list);
    ASSERT_NE(record, nullptr);
    EXPECT_NE(list->C_Initialize, nullptr);
    EXPECT_EQ(C_UnloadModule(record), CKR_OK);
    EXPECT_EQ(C_UnloadModule(nullptr), CKR_ARGUMENTS_BAD);
    uint32_t notRecord[4] = {0xD00BED01};
    EXPECT_EQ(C_UnloadModule(notRecord), CKR_ARGUMENTS_BAD);

    // A map the loader never made: dlclose fails, and the record stays for another try.
    std::vector<char> notOpen(4096, 0);
    struct {
        uint32_t magic;
        void* library;
    }* kept = static_cast<decltype(kept)>(std::calloc(1, 16));
    *kept = {0xD00BED00, notOpen.data()};
    EXPECT_EQ(C_UnloadModule(kept), CKR_FUNCTION_FAILED);
    EXPECT_EQ(C_UnloadModule(kept), CKR_FUNCTION_FAILED);
    kept->library = nullptr;
    EXPECT_EQ(C_UnloadModule(kept), CKR_OK);
}

}  // namespace
