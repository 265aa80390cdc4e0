#include "Session.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include <openssl/bn.h>

#include "Module.h"
#include "Slot.h"
#include "log.h"
#include "test_fixture.h"
#include "test_log.h"

namespace {

class SessionTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        token_ = std::make_unique<tp::Token>(1);
        token_->pin("1234");
        module_ = load();
        slot_ = firstSlot(module_);
    }
    std::shared_ptr<p11::Session> open(int mode = 0) { return slot_->openSession(mode); }

    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
};

TEST_F(SessionTest, ModeIsShiftedIntoTheOpenFlags) {
    struct {
        int mode;
        CK_FLAGS flags;
    } cases[] = {{0, 0x4}, {1, 0x40000004}, {2, 0xFFFFFFFF80000004ul}, {3, 0xFFFFFFFFC0000004ul}};
    for (const auto& c : cases) {
        tp_clear_log();
        auto session = open(c.mode);
        EXPECT_EQ(tp::call("C_OpenSession").flags, c.flags) << c.mode;
        EXPECT_EQ(tp::call("C_OpenSession").slot, 1u);
        EXPECT_EQ(tp::call("C_OpenSession").null_ptr, 0);
    }
}

TEST_F(SessionTest, OpenFailuresCallAgainAndAreCode105) {
    struct {
        const char* function;
        const char* message;
        int open_calls;
    } cases[] = {
        {"C_OpenSession", "failed to open session", 2},
        {"C_GetSessionInfo", "failed to get session information", 1},
    };
    for (const auto& c : cases) {
        tp_clear_log();
        tp_clear_failures();
        testlog::Capture log;
        tp_fail_from(c.function, 1, CKR_SESSION_COUNT);
        EXPECT_P11_ERROR(open(), 105, c.message);
        EXPECT_EQ(tp_call_count(c.function), 2);
        EXPECT_EQ(tp_call_count("C_OpenSession"), c.open_calls);
        EXPECT_EQ(log.errors(), std::vector<std::wstring>{L"PKCS11 function " + p11::widen_bytes(c.function) +
                                                          L"() failed: rv = CKR_SESSION_COUNT (177)"});
    }
}

TEST_F(SessionTest, SessionInfoFlagsBelowBit31) {
    for (auto [flags, below] : {std::pair{CK_FLAGS(0x6), true}, std::pair{CK_FLAGS(0x80000000), false}}) {
        tp_set_session_info_flags(flags);
        EXPECT_EQ(open()->flagsBelowBit31(), below);
    }
}

TEST_F(SessionTest, DestructionClosesOnce) {
    auto session = open();
    CK_SESSION_HANDLE handle = session->getHandle();
    testlog::Capture log;
    session.reset();
    EXPECT_EQ(tp_call_count("C_CloseSession"), 1);
    EXPECT_EQ(tp::call("C_CloseSession").session, handle);
    EXPECT_EQ(log.messages(), std::vector<std::wstring>{L"destructing and close session: " + std::to_wstring(handle)});
}

TEST_F(SessionTest, SessionOutlivingItsSlotOnlyLogs) {
    auto session = open();
    slot_.reset();
    testlog::Capture log;
    session.reset();
    EXPECT_EQ(tp_call_count("C_CloseSession"), 0);
    EXPECT_EQ(log.errors(), std::vector<std::wstring>{L"failed to get slot"});
}

TEST_F(SessionTest, FailedCloseIsLogged) {
    auto session = open();
    testlog::Capture log;
    tp_fail_nth("C_CloseSession", 1, CKR_DEVICE_REMOVED);
    session.reset();
    EXPECT_EQ(log.errors(),
              std::vector<std::wstring>{L"PKCS11 function C_CloseSession() failed: rv = CKR_DEVICE_REMOVED (50)"});
}

TEST_F(SessionTest, LoginResultTable) {
    struct {
        CK_RV rv;
        int code;
        const char* message;
    } cases[] = {
        {CKR_ARGUMENTS_BAD, 201, "pin incorrect"},   {CKR_PIN_INCORRECT, 201, "pin incorrect"},
        {CKR_PIN_LEN_RANGE, 201, "pin incorrect"},   {CKR_PIN_INVALID, 202, "pin invalid"},
        {CKR_PIN_EXPIRED, 203, "pin expired"},       {CKR_PIN_LOCKED, 204, "pin locked"},
        {CKR_CRYPTOKI_NOT_INITIALIZED, 290, "cryptoki usage conflict"},
        {CKR_DEVICE_REMOVED, 200, "failed to login"}, {CKR_USER_TYPE_INVALID, 200, "failed to login"},
    };
    auto session = open();
    for (const auto& c : cases) {
        tp_clear_log();
        testlog::Capture log;
        tp_fail_nth("C_Login", 1, c.rv);
        EXPECT_P11_ERROR(session->login("1234", 4), c.code, c.message);
        EXPECT_EQ(tp_call_count("C_Login"), 1);  // never repeated
        EXPECT_EQ(tp_call_count("C_Logout"), 0);
        auto errors = log.errors();
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0].rfind(L"PKCS11 function C_Login() failed: rv = ", 0), 0u);
    }
}

TEST_F(SessionTest, WarnsOnCryptokiConflict) {
    auto session = open();
    testlog::Capture log;
    tp_fail_nth("C_Login", 1, CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_THROW(session->login("1234", 4), p11::process_error);
    auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].level, log4cplus::WARN_LOG_LEVEL);
    EXPECT_EQ(records[1].message,
              L"Unexpected error: cryptoki not initialized. Likely it's conflict of using cryptoki. Check settings of "
              L"window crypto providers.");
}

TEST_F(SessionTest, LoginAndLogoutWhenTheTokenDies) {
    auto session = open();
    auto token = session->login("1234", 4);
    EXPECT_TRUE(tp_is_logged_in(1));
    EXPECT_EQ(tp::call("C_Login").flags, CKU_USER);
    EXPECT_EQ(tp::call("C_Login").in_len, 4u);
    token.reset();
    EXPECT_FALSE(tp_is_logged_in(1));
    EXPECT_EQ(tp_call_count("C_Logout"), 1);
}

TEST_F(SessionTest, AlreadyLoggedInCountsAsSuccessAndStillLogsOut) {
    auto session = open();
    auto first = session->login("1234", 4);
    testlog::Capture log;
    auto second = session->login("1234", 4);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(log.contains(L"user already logged in"));
    second.reset();
    EXPECT_EQ(tp_call_count("C_Logout"), 1);
}

TEST_F(SessionTest, NullPinGoesOutWithLengthZero) {
    auto session = open();
    EXPECT_THROW(session->login(nullptr, 8), p11::process_error);
    EXPECT_EQ(tp::call("C_Login").null_ptr, 1);
    EXPECT_EQ(tp::call("C_Login").in_len, 0u);
}

TEST_F(SessionTest, TokenOutlivingItsSessionCallsNothing) {
    auto session = open();
    auto token = session->login("1234", 4);
    session.reset();
    tp_clear_log();
    testlog::Capture log;
    token.reset();
    EXPECT_EQ(log.messages(), (std::vector<std::wstring>{L"session logging out", L"failed to get session"}));
    EXPECT_EQ(tp_call_count(nullptr), 0);
}

TEST_F(SessionTest, LogoutFailureIsOnlyLogged) {
    auto session = open();
    testlog::Capture log;
    session->logout();  // not logged in
    EXPECT_EQ(log.errors(), std::vector<std::wstring>{
                                L"PKCS11 function C_Logout() failed: rv = CKR_USER_NOT_LOGGED_IN (257)"});
}

TEST_F(SessionTest, LoginTokenAfterModuleIsGoneDoesNotThrow) {
    auto session = open();
    auto token = session->login("1234", 4);
    module_.reset();
    EXPECT_NO_THROW(token.reset());
}

TEST_F(SessionTest, LoginNeedsASharedOwner) {
    p11::Session session(slot_, 0);
    EXPECT_THROW(session.login("1234", 4), std::bad_weak_ptr);
}

class AttributeTest : public SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        obj_ = token_->object({tp::ulong_attr(CKA_CLASS, CKO_DATA), tp::text_attr(CKA_LABEL, "abcd"),
                               tp::bytes_attr(CKA_VALUE, {0x01, 0x00, 0x01}), tp::bytes_attr(CKA_ID, {})});
        session_ = open();
    }
    CK_OBJECT_HANDLE obj_ = 0;
    std::shared_ptr<p11::Session> session_;
};

TEST_F(AttributeTest, LengthQueryAndRead) {
    size_t len = 0;
    session_->getattr_int(obj_, CKA_LABEL, nullptr, &len);
    EXPECT_EQ(len, 4u);
    char buffer[10];
    std::memset(buffer, 'x', sizeof buffer);
    session_->getattr_s(obj_, CKA_LABEL, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("abcd\0\0\0\0\0\0", 10));
}

TEST_F(AttributeTest, FailuresCallAgainAndAreCode107) {
    testlog::Capture log;
    char small[2];
    size_t len = sizeof small;
    EXPECT_P11_ERROR(session_->getattr_var(obj_, CKA_LABEL, small, &len), 107, "failed to get attribute value");
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(tp_call_count("C_GetAttributeValue"), 2);
    EXPECT_EQ(log.errors(), std::vector<std::wstring>{
                                L"PKCS11 function C_GetAttributeValue() failed: rv = CKR_BUFFER_TOO_SMALL (336)"});
    EXPECT_P11_ERROR(session_->getattr_var(obj_, CKA_MODULUS, nullptr, &len), 107, "failed to get attribute value");
}

TEST_F(AttributeTest, ProviderOverreportingTheLengthIsRefused) {
    tp_misbehave_attr_len(100);
    char buffer[8];
    size_t len = sizeof buffer;
    EXPECT_P11_ERROR(session_->getattr_var(obj_, CKA_LABEL, buffer, &len), 107, "failed to get attribute value");
}

TEST_F(AttributeTest, BigNumberReusesTheGivenObject) {
    BIGNUM* bn = BN_new();
    BIGNUM* given = bn;
    session_->getattr_bn(obj_, CKA_VALUE, &bn);
    EXPECT_EQ(bn, given);
    EXPECT_EQ(BN_get_word(bn), 65537u);
    BN_free(bn);
    BIGNUM* fresh = nullptr;
    session_->getattr_bn(obj_, CKA_VALUE, &fresh);
    EXPECT_EQ(BN_get_word(fresh), 65537u);
    BN_free(fresh);
}

TEST_F(AttributeTest, EmptyBigNumberIsCode107) {
    testlog::Capture log;
    BIGNUM* bn = nullptr;
    EXPECT_P11_ERROR(session_->getattr_bn(obj_, CKA_ID, &bn), 107, "failed to get attribute value");
    EXPECT_EQ(log.errors(), std::vector<std::wstring>{L"failed to get attribute value: size is 0"});
    EXPECT_EQ(bn, nullptr);
}

TEST_F(AttributeTest, ExpiredSlotIsCode11) {
    slot_.reset();
    size_t len = 0;
    EXPECT_P11_ERROR(session_->getattr_int(obj_, CKA_LABEL, nullptr, &len), 11, "failed to get slot");
    EXPECT_P11_ERROR(session_->login("1234", 4), 11, "failed to get slot");
    EXPECT_P11_ERROR(session_->enumerateCerts(), 11, "failed to get slot");
}

TEST_F(SessionTest, LogLinesReachAFileAppender) {
    const std::string path = ::testing::TempDir() + "zorvo_session_test.log";
    p11::add_file_appender(path, "%p|%F|%m%n");
    p11::set_log_level(log4cplus::DEBUG_LOG_LEVEL);
    auto session = open();
    EXPECT_THROW(session->login("0000", 4), p11::process_error);
    p11::logger.removeAllAppenders();
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::remove(path.c_str());
    EXPECT_NE(text.find("ERROR|p11.cpp|PKCS11 function C_Login() failed: rv = CKR_PIN_INCORRECT (160)\n"),
              std::string::npos)
        << text;
}

}  // namespace
