#include "p11.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log.h"
#include "test_log.h"

namespace {

struct NamedRv {
    CK_RV rv;
    const char* name;
};

#define ROW(x) {x, #x}
const NamedRv kNames[] = {
    ROW(CKR_OK), ROW(CKR_CANCEL), ROW(CKR_HOST_MEMORY), ROW(CKR_SLOT_ID_INVALID), ROW(CKR_GENERAL_ERROR),
    ROW(CKR_FUNCTION_FAILED), ROW(CKR_ARGUMENTS_BAD), ROW(CKR_NO_EVENT), ROW(CKR_NEED_TO_CREATE_THREADS),
    ROW(CKR_CANT_LOCK), ROW(CKR_ATTRIBUTE_READ_ONLY), ROW(CKR_ATTRIBUTE_SENSITIVE),
    ROW(CKR_ATTRIBUTE_TYPE_INVALID), ROW(CKR_ATTRIBUTE_VALUE_INVALID), ROW(CKR_DATA_INVALID),
    ROW(CKR_DATA_LEN_RANGE), ROW(CKR_DEVICE_ERROR), ROW(CKR_DEVICE_MEMORY), ROW(CKR_DEVICE_REMOVED),
    ROW(CKR_ENCRYPTED_DATA_INVALID), ROW(CKR_ENCRYPTED_DATA_LEN_RANGE), ROW(CKR_FUNCTION_CANCELED),
    ROW(CKR_FUNCTION_NOT_PARALLEL), ROW(CKR_FUNCTION_NOT_SUPPORTED), ROW(CKR_KEY_HANDLE_INVALID),
    ROW(CKR_KEY_SIZE_RANGE), ROW(CKR_KEY_TYPE_INCONSISTENT), ROW(CKR_KEY_NOT_NEEDED), ROW(CKR_KEY_CHANGED),
    ROW(CKR_KEY_NEEDED), ROW(CKR_KEY_INDIGESTIBLE), ROW(CKR_KEY_FUNCTION_NOT_PERMITTED),
    ROW(CKR_KEY_NOT_WRAPPABLE), ROW(CKR_KEY_UNEXTRACTABLE), ROW(CKR_MECHANISM_INVALID),
    ROW(CKR_MECHANISM_PARAM_INVALID), ROW(CKR_OBJECT_HANDLE_INVALID), ROW(CKR_OPERATION_ACTIVE),
    ROW(CKR_OPERATION_NOT_INITIALIZED), ROW(CKR_PIN_INCORRECT), ROW(CKR_PIN_INVALID), ROW(CKR_PIN_LEN_RANGE),
    ROW(CKR_PIN_EXPIRED), ROW(CKR_PIN_LOCKED), ROW(CKR_SESSION_CLOSED), ROW(CKR_SESSION_COUNT),
    ROW(CKR_SESSION_HANDLE_INVALID), ROW(CKR_SESSION_PARALLEL_NOT_SUPPORTED), ROW(CKR_SESSION_READ_ONLY),
    ROW(CKR_SESSION_EXISTS), ROW(CKR_SESSION_READ_ONLY_EXISTS), ROW(CKR_SESSION_READ_WRITE_SO_EXISTS),
    ROW(CKR_SIGNATURE_INVALID), ROW(CKR_SIGNATURE_LEN_RANGE), ROW(CKR_TEMPLATE_INCOMPLETE),
    ROW(CKR_TEMPLATE_INCONSISTENT), ROW(CKR_TOKEN_NOT_PRESENT), ROW(CKR_TOKEN_NOT_RECOGNIZED),
    ROW(CKR_TOKEN_WRITE_PROTECTED), ROW(CKR_UNWRAPPING_KEY_HANDLE_INVALID), ROW(CKR_UNWRAPPING_KEY_SIZE_RANGE),
    ROW(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT), ROW(CKR_USER_ALREADY_LOGGED_IN), ROW(CKR_USER_NOT_LOGGED_IN),
    ROW(CKR_USER_PIN_NOT_INITIALIZED), ROW(CKR_USER_TYPE_INVALID), ROW(CKR_USER_ANOTHER_ALREADY_LOGGED_IN),
    ROW(CKR_USER_TOO_MANY_TYPES), ROW(CKR_WRAPPED_KEY_INVALID), ROW(CKR_WRAPPED_KEY_LEN_RANGE),
    ROW(CKR_WRAPPING_KEY_HANDLE_INVALID), ROW(CKR_WRAPPING_KEY_SIZE_RANGE),
    ROW(CKR_WRAPPING_KEY_TYPE_INCONSISTENT), ROW(CKR_RANDOM_SEED_NOT_SUPPORTED), ROW(CKR_RANDOM_NO_RNG),
    ROW(CKR_DOMAIN_PARAMS_INVALID), ROW(CKR_BUFFER_TOO_SMALL), ROW(CKR_SAVED_STATE_INVALID),
    ROW(CKR_INFORMATION_SENSITIVE), ROW(CKR_STATE_UNSAVEABLE), ROW(CKR_CRYPTOKI_NOT_INITIALIZED),
    ROW(CKR_CRYPTOKI_ALREADY_INITIALIZED), ROW(CKR_MUTEX_BAD), ROW(CKR_MUTEX_NOT_LOCKED),
    ROW(CKR_VENDOR_DEFINED),
};
#undef ROW

TEST(CKR2Str, NamesEveryListedValue) {
    EXPECT_EQ(std::size(kNames), 85u);
    for (const auto& row : kNames) EXPECT_STREQ(p11::CKR2Str(row.rv), row.name) << std::hex << row.rv;
}

TEST(CKR2Str, UnknownValues) {
    // CKR_FUNCTION_REJECTED, later-version codes, the vendor range, values past 32 bits.
    for (CK_RV rv : {0x200ul, 0x1Bul, 0x140ul, 0x1B0ul, 0x1B8ul, 0x80000001ul, 0xFFFFFFFFul, 0x100000000ul,
                     0x1000000A0ul, 0x4ul, 0x1A2ul})
        EXPECT_STREQ(p11::CKR2Str(rv), "unknown PKCS11 error") << std::hex << rv;
}

TEST(ProcessError, Texts) {
    struct {
        p11::process_error error;
        int code;
        const char* what;
    } cases[] = {
        {p11::process_error(), -1, "-1:unknown_error"},
        {p11::process_error(102, "x"), 102, "102:x"},
        {p11::process_error(-5, "x"), -5, "-5:x"},
        {p11::process_error(104, ""), 104, "104:"},
        {p11::process_error(101, "failed to initialize p11 module"), 101, "101:failed to initialize p11 module"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(c.error.code(), c.code);
        EXPECT_STREQ(c.error.what(), c.what);
    }
    EXPECT_EQ(p11::concat_code_and_error(7, "a:b"), "7:a:b");
    EXPECT_EQ(p11::process_error(201, "pin incorrect").message(), "pin incorrect");
}

TEST(LogP11Error, ExactLine) {
    testlog::Capture log;
    struct {
        const char* function;
        CK_RV rv;
        const wchar_t* line;
    } cases[] = {
        {"C_Login", 0xA0, L"PKCS11 function C_Login failed: rv = CKR_PIN_INCORRECT (160)"},
        {"C_GetSlotList(NULL)", 0x80000001, L"PKCS11 function C_GetSlotList(NULL) failed: rv = unknown PKCS11 error (2147483649)"},
        {"C_Sign()", 0x1000000A0, L"PKCS11 function C_Sign() failed: rv = unknown PKCS11 error (160)"},
        {"C_Initialize", 0x191, L"PKCS11 function C_Initialize failed: rv = CKR_CRYPTOKI_ALREADY_INITIALIZED (401)"},
    };
    for (const auto& c : cases) p11::log_p11_error(c.function, c.rv);
    auto records = log.records();
    ASSERT_EQ(records.size(), std::size(cases));
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].message, cases[i].line);
        EXPECT_EQ(records[i].level, log4cplus::ERROR_LOG_LEVEL);
        EXPECT_EQ(records[i].file, "p11.cpp");
        EXPECT_EQ(records[i].function, "void p11::log_p11_error(const char*, CK_RV)");
    }
}

TEST(LogP11Error, NothingWhenErrorDisabled) {
    testlog::Capture log;
    p11::set_log_level(log4cplus::OFF_LOG_LEVEL);
    p11::log_p11_error("C_Login", 0xA0);
    EXPECT_TRUE(log.records().empty());
}

TEST(Logging, SuppressedRecordIsNeverBuilt) {
    testlog::Capture log;
    p11::set_log_level(40000);
    int built = 0;
    auto expensive = [&] {
        ++built;
        return L"text";
    };
    P11_DEBUG(expensive());
    P11_INFO(expensive());
    EXPECT_EQ(built, 0);
    P11_ERROR(expensive());
    EXPECT_EQ(built, 1);
    EXPECT_EQ(log.messages(), std::vector<std::wstring>{L"text"});
}

TEST(Logging, NarrowBytesAreWidenedOneByOne) {
    testlog::Capture log;
    P11_ERROR("label: " << p11::bytes("\xD0\x98x"));
    ASSERT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(log.messages()[0], std::wstring(L"label: \u00D0\u0098x"));
}

TEST(FlagNames, SlotFlags) {
    struct {
        CK_FLAGS flags;
        const char* text;
    } cases[] = {
        {0x7, "token present, removable device, hardware slot"},
        {0x5, "token present, hardware slot"},
        {0x9, "token present, other flags=0x8"},
        {0x8, "other flags=0x8"},
        {0, ""},
        {0x100000002ul, "removable device, other flags=0x0"},
    };
    for (const auto& c : cases) EXPECT_STREQ(p11::p11_slot_info_flags(c.flags), c.text) << c.flags;
}

TEST(FlagNames, RowWhoseBitsWereTakenIsSkipped) {
    p11::flag_info table[] = {{0x3, "both"}, {0x1, "low"}, {0x4, "four"}, {0, nullptr}};
    EXPECT_STREQ(p11::p11_flag_names(table, 0x7), "both, four");
    EXPECT_STREQ(p11::p11_flag_names(table, 0x1), "both");
}

TEST(Utf8ToLocal, StripsBlankPadding) {
    std::string field600(600, 'x');
    struct {
        std::string in;
        std::string out;
    } cases[] = {
        {"ABC  ", "ABC"},
        {std::string(32, ' '), ""},
        {"", ""},
        {"A\tB\t", "A\tB\t"},
        {field600, std::string(511, 'x')},
        {std::string("AB\0C ", 5), "AB"},
    };
    for (auto& c : cases) {
        std::string copy = c.in;
        EXPECT_EQ(std::string(p11::p11_utf8_to_local(reinterpret_cast<unsigned char*>(copy.data()), copy.size())),
                  c.out);
    }
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class AppenderTest : public ::testing::Test {
protected:
    void TearDown() override {
        p11::logger.removeAllAppenders();
        std::remove(path_.c_str());
    }
    std::string path_ = ::testing::TempDir() + "zorvo_appender_test.log";
};

TEST_F(AppenderTest, FileAppenderTruncatesAndWritesUtf8) {
    {
        std::ofstream old(path_);
        old << "old content\n";
    }
    p11::add_file_appender(path_, "\xC2\xB7%m%n");  // non-ASCII pattern, widened byte by byte
    EXPECT_EQ(read_file(path_), "");
    p11::set_log_level(log4cplus::DEBUG_LOG_LEVEL);
    P11_ERROR(L"\u041C\u0435\u0442\u043A\u0430 label");
    P11_ERROR("after");
    // The pattern's two bytes each became one character, written back as UTF-8.
    EXPECT_EQ(read_file(path_),
              "\xC3\x82\xC2\xB7\xD0\x9C\xD0\xB5\xD1\x82\xD0\xBA\xD0\xB0 label\n\xC3\x82\xC2\xB7" "after\n");
}

TEST_F(AppenderTest, ConsoleAppenderWritesUtf8ToStandardError) {
    p11::add_console_appender(true, "%p %m%n");
    p11::set_log_level(log4cplus::DEBUG_LOG_LEVEL);
    ::testing::internal::CaptureStderr();
    P11_ERROR(L"\u0422\u043E\u043A\u0435\u043D");
    P11_ERROR("ascii");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "ERROR \xD0\xA2\xD0\xBE\xD0\xBA\xD0\xB5\xD0\xBD\nERROR ascii\n");
}

}  // namespace
