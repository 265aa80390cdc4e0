// Providers that break the PKCS#11 contract: lengths beyond the buffer, more objects than
// asked for, garbage token texts, missing functions, and a failure that the repeated call
// does not repeat. None may crash or corrupt memory (the ASan build runs these too); each
// must end in a process_error or in a result that is still right.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <openssl/err.h>

#include "Certificate.h"
#include "Module.h"
#include "Session.h"
#include "Signer.h"
#include "Slot.h"
#include "p11.h"
#include "p11_ossl.h"
#include "rsa_identity.h"
#include "test_fixture.h"
#include "test_log.h"
#include "test_openssl.h"
#include "testprov.h"

namespace {

constexpr CK_SLOT_ID kSlot = 9;
const tp::Bytes kKeyId{0x5A};

class Misbehave : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        p11::engine_in_use = false;
        token_ = std::make_unique<tp::Token>(kSlot);
        token_->pin("1234");
        reliability::installRsa(*token_, kKeyId);
    }
    void TearDown() override {
        p11::engine_in_use = false;
        ERR_clear_error();
        ProviderTest::TearDown();
    }

    // Module, slot, session and certificates, as a host reaches them.
    void open() {
        module_ = load();
        slot_ = firstSlot(module_);
        session_ = slot_->openSession(0);
    }
    void enumerate() { certs_ = session_->enumerateCerts(); }

    void expectVerifies(const std::string& pem, const std::string& message, bool attached) {
        auto verified =
            testssl::cms_verify(pem, reliability::rsaIdentity().certPem, attached ? nullptr : &message);
        EXPECT_TRUE(verified.ok) << verified.log;
        EXPECT_EQ(verified.content, message);
    }

    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
    std::shared_ptr<p11::Session> session_;
    std::shared_ptr<std::vector<std::shared_ptr<p11::Certificate>>> certs_;
};

// C_GetAttributeValue reporting more bytes than the buffer it was given (or, wrapping round,
// fewer than it wrote).
TEST_F(Misbehave, AttributeLengthBeyondBuffer) {
    struct Case {
        const char* what;
        CK_ULONG extra;
        const char* phase;  // where the provider starts lying
        int code;           // 0: still signs
        const char* message;
    };
    const Case cases[] = {
        {"one byte over, certificates", 1, "enumerate", 107, "failed to get attribute value"},
        {"a megabyte over, certificates", 1ul << 20, "enumerate", 107, "failed to get attribute value"},
        {"2^63 over, certificates", 1ul << 63, "enumerate", 107, "failed to get attribute value"},
        // buffer + (2^64 - 1): one byte short of what was written; the DER is cut.
        {"wraps to one short, certificates", ~0ul, "enumerate", 120, "failed to parse x509"},
        {"one byte over, one-shot key", 1, "sign", 107, "failed to get attribute value"},
        {"wraps to one short, one-shot key", ~0ul, "sign", 0, ""},
        {"one byte over, streamed key", 1, "stream", 107, "failed to get attribute value"},
        {"far over, streamed key", 1ul << 40, "stream", 107, "failed to get attribute value"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        open();
        const std::string phase = c.phase;
        if (phase != "enumerate") enumerate();
        tp_misbehave_attr_len(c.extra);
        const std::string message = "attribute lengths";
        try {
            if (phase == "enumerate") {
                enumerate();
            } else if (phase == "sign") {
                expectVerifies(certs_->at(0)->signOnIt(session_->login("1234", 4), message.c_str(), true),
                               message, true);
            } else {
                auto signer = certs_->at(0)->startSigning(session_->login("1234", 4), false);
                signer->addData(message.data(), static_cast<int>(message.size()));
                expectVerifies(signer->finish(), message, false);
            }
            EXPECT_EQ(c.code, 0) << "no process_error";
        } catch (const p11::process_error& e) {
            EXPECT_EQ(e.code(), c.code) << e.what();
            EXPECT_EQ(e.message(), c.message);
        }
        if (phase == "stream") {
            EXPECT_FALSE(p11::engine_in_use) << "a signer that failed to start gives the engine back";
            EXPECT_EQ(tp_call_count("C_Logout"), 1) << "and its login ends";
        }
        certs_.reset();
        session_.reset();
        slot_.reset();
        module_.reset();
        TearDown();
    }
}

// C_FindObjects claiming more handles than room was given for: only the handles written
// may be read.
TEST_F(Misbehave, FindCountBeyondMax) {
    for (CK_ULONG extra : {1ul, 15ul, 1ul << 30, ~0ul - 1}) {
        SCOPED_TRACE(extra);
        SetUp();
        reliability::installRsa(*token_, {0x77}, "second");
        open();
        tp_misbehave_find_count(extra);
        enumerate();
        ASSERT_EQ(certs_->size(), 2u);
        EXPECT_EQ(certs_->at(0)->getLabel(), "signer");
        EXPECT_EQ(certs_->at(1)->getLabel(), "second");
        for (int i = 0; i < tp_call_count("C_FindObjects"); ++i)
            EXPECT_EQ(tp::call("C_FindObjects", i).in_len, 1u);
        const std::string message = "find count";
        expectVerifies(certs_->at(1)->signOnIt(session_->login("1234", 4), message.c_str(), true), message,
                       true);
        certs_.reset();
        session_.reset();
        slot_.reset();
        module_.reset();
    }
}

// Token information is copied from the token as it is: nothing in it is trusted to be text.
TEST_F(Misbehave, GarbageTokenInfoCrafted) {
    struct Case {
        const char* what;
        std::string label;  // bytes of the 32-byte field; the rest blank
        std::wstring expected;
    };
    const std::string cyrillic = "\xD0\xA2\xD0\xBE\xD0\xBA\xD0\xB5\xD0\xBD";  // "Токен"
    const std::string threeByte = "\xE2\x82\xAC";                             // the euro sign
    std::string euros;
    for (int i = 0; i < 11; ++i) euros += threeByte;  // 33 bytes: the field cuts the last one
    const Case cases[] = {
        {"Cyrillic, blank padded", cyrillic, L"\x0422\x043E\x043A\x0435\x043D" + std::wstring(22, L' ')},
        {"sequence cut by the field end", std::string(31, 'a') + "\xD0", std::wstring(31, L'a')},
        {"three-byte sequences cut by the field end", euros.substr(0, 32), std::wstring(10, L'\x20AC')},
        {"invalid bytes only", std::string(32, '\xFF'), L""},
        {"zero byte inside", std::string("abc\0def", 7), L"abc"},
        {"invalid byte after text", "ok\x80tail", L"ok"},
    };
    open();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CK_TOKEN_INFO info = tp::token_info("");
        tp::pad(info.label, c.label);
        ASSERT_EQ(tp_set_token_info(kSlot, &info), 0);
        enumerate();
        ASSERT_EQ(certs_->size(), 1u);
        EXPECT_EQ(certs_->at(0)->getTokenInfo().at("label"), c.expected);
        EXPECT_EQ(certs_->at(0)->getTokenInfo().at("model"), L"testprov" + std::wstring(8, L' '));
    }
}

TEST_F(Misbehave, GarbageTokenInfoRandom) {
    open();
    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 300; ++round) {
        CK_TOKEN_INFO info;
        auto* raw = reinterpret_cast<unsigned char*>(&info);
        for (size_t i = 0; i < sizeof info; ++i) raw[i] = static_cast<unsigned char>(byte(random));
        // Half of the rounds keep to the bytes of text, where conversion gets further.
        if (round % 2 == 1)
            for (unsigned char* field : {info.label, info.manufacturerID, info.model, info.serialNumber})
                for (size_t i = 0; i < 16; ++i)
                    field[i] = static_cast<unsigned char>(0x20 + byte(random) % 0x60);
        ASSERT_EQ(tp_set_token_info(kSlot, &info), 0);

        auto read = slot_->readTokenInfo();
        ASSERT_EQ(std::memcmp(read.get(), &info, sizeof info), 0) << "round " << round;
        enumerate();
        ASSERT_EQ(certs_->size(), 1u);
        const auto& map = certs_->at(0)->getTokenInfo();
        ASSERT_EQ(map.size(), 4u);
        // One input byte gives at most one character.
        EXPECT_LE(map.at("label").size(), 32u);
        EXPECT_LE(map.at("manufacturerID").size(), 32u);
        EXPECT_LE(map.at("model").size(), 16u);
        EXPECT_LE(map.at("serialNumber").size(), 16u);
        for (const auto& entry : map)
            for (wchar_t ch : entry.second) EXPECT_NE(ch, L'\0');
        EXPECT_LE(std::strlen(p11::p11_utf8_to_local(info.label, sizeof info.label)), 32u);
    }
}

// A function list with holes: the library refuses it at load if it needs the missing entry,
// and works normally otherwise.
TEST_F(Misbehave, NullFunctionsTheLibraryCalls) {
    const char* needed[] = {"C_Initialize",        "C_Finalize",        "C_GetSlotList",
                            "C_GetSlotInfo",       "C_GetTokenInfo",    "C_GetMechanismList",
                            "C_GetMechanismInfo",  "C_OpenSession",     "C_CloseSession",
                            "C_GetSessionInfo",    "C_Login",           "C_Logout",
                            "C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects",
                            "C_FindObjectsFinal",  "C_SignInit",        "C_Sign"};
    testlog::Capture log;
    for (const char* name : needed) {
        SCOPED_TRACE(name);
        tp_clear_log();
        log.clear();
        tp_misbehave_null_functions(name);
        EXPECT_P11_ERROR(load(), 100, "failed to load p11 module");
        EXPECT_EQ(tp_call_count("C_Initialize"), 0) << "refused before it is initialised";
        EXPECT_TRUE(log.contains(
            L"failed to load p11 module: " +
            std::wstring(ZORVO_TESTPROV_PATH, ZORVO_TESTPROV_PATH + strlen(ZORVO_TESTPROV_PATH))));
    }
    tp_misbehave_null_functions(nullptr);
    EXPECT_NO_THROW(load());
}

TEST_F(Misbehave, NullFunctionsTheLibraryDoesNotCall) {
    tp_misbehave_null_functions(
        "C_GetFunctionList,C_GetInfo,C_CloseAllSessions,C_Encrypt,C_DigestInit,C_SignUpdate,C_SignFinal,"
        "C_GenerateRandom,C_WaitForSlotEvent");
    open();
    enumerate();
    ASSERT_EQ(certs_->size(), 1u);
    const std::string message = "holes in the list";
    auto signer = certs_->at(0)->startSigning(session_->login("1234", 4), true);
    signer->addData(message.data(), static_cast<int>(message.size()));
    expectVerifies(signer->finish(), message, true);
    signer.reset();
    EXPECT_EQ(tp_call_count("C_Logout"), 1);
}

// A provider whose failure is gone when the library repeats the call for the log: the
// operation still fails, the log shows the repeat's CKR_OK, and whatever the successful repeat
// started stays behind as documented; the host's retry then works.
TEST_F(Misbehave, SucceedsOnTheRepeatedCall) {
    struct Case {
        const char* function;
        unsigned nth;
        CK_RV rv;
        const char* step;
        int code;
        const char* message;
        const char* logged;  // function text of the log line; the value is the repeat's
        int leftOpen;        // sessions the successful repeat left open
        int retryCode;       // what the host's retry of the step on the same session gets; 0: works
    };
    const Case cases[] = {
        {"C_GetSlotList", 1, CKR_DEVICE_ERROR, "slots", 102,
         "failed to get a number of list of slots with token", "C_GetSlotList(NULL)", 0, 0},
        {"C_GetSlotList", 2, CKR_BUFFER_TOO_SMALL, "slots", 102,
         "failed to get a list of slotsWithToken with token", "C_GetSlotList()", 0, 0},
        {"C_GetSlotInfo", 1, CKR_DEVICE_ERROR, "slots", 105, "failed to get slot info session",
         "C_GetSlotInfo()", 0, 0},
        {"C_OpenSession", 1, CKR_DEVICE_MEMORY, "session", 105, "failed to open session", "C_OpenSession()",
         1, 0},
        {"C_GetSessionInfo", 1, CKR_DEVICE_ERROR, "session", 105, "failed to get session information",
         "C_GetSessionInfo()", 1, 0},
        {"C_GetTokenInfo", 1, CKR_DEVICE_ERROR, "enumerate", 103, "failed to get token info",
         "C_GetTokenInfo()", 0, 0},
        // The repeat starts a search that nothing ends, and a certificate that fails leaves
        // the search running: this session's next search is refused.
        {"C_FindObjectsInit", 1, CKR_DEVICE_ERROR, "enumerate", 106, "failed to find token's certificate",
         "C_FindObjectsInit()", 0, 106},
        {"C_GetAttributeValue", 1, CKR_DEVICE_ERROR, "enumerate", 107, "failed to get attribute value",
         "C_GetAttributeValue()", 0, 106},
        {"C_FindObjectsFinal", 1, CKR_DEVICE_ERROR, "enumerate", 106, "failed to find token's certificate",
         "C_FindObjectsFinal()", 0, 0},
        {"C_Login", 1, CKR_DEVICE_ERROR, "login", 200, "failed to login", "C_Login()", 0, 0},
    };
    testlog::Capture log;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.function) + " #" + std::to_string(c.nth));
        SetUp();
        log.clear();
        tp_fail_nth(c.function, c.nth, c.rv);
        const std::string step = c.step;
        module_ = load();
        auto runStep = [&] {
            if (step == "slots") {
                slot_ = firstSlot(module_);
                return;
            }
            if (!slot_) slot_ = firstSlot(module_);
            if (step == "session") {
                session_ = slot_->openSession(0);
                return;
            }
            if (!session_) session_ = slot_->openSession(0);
            if (step == "enumerate")
                enumerate();
            else
                session_->login("1234", 4);
        };
        EXPECT_P11_ERROR(runStep(), c.code, c.message);
        // Login logs the provider's own value; the others log the repeat's.
        const bool repeated = step != "login";
        const std::string rv =
            repeated ? "CKR_OK (0)" : std::string(p11::CKR2Str(c.rv)) + " (" + std::to_string(c.rv) + ")";
        const std::string line = std::string("PKCS11 function ") + c.logged + " failed: rv = " + rv;
        EXPECT_TRUE(log.contains(std::wstring(line.begin(), line.end()))) << line;
        EXPECT_EQ(tp_call_count(c.function), static_cast<int>(c.nth) + (repeated ? 1 : 0));
        EXPECT_EQ(tp_session_count(kSlot), c.leftOpen + (session_ ? 1 : 0));

        if (c.retryCode == 0) {
            EXPECT_NO_THROW(runStep());
        } else {
            EXPECT_P11_ERROR(runStep(), c.retryCode, "failed to find token's certificate");
            session_ = slot_->openSession(0);
            EXPECT_NO_THROW(runStep()) << "a new session searches again";
        }
        certs_.reset();
        session_.reset();
        slot_.reset();
        module_.reset();
        EXPECT_EQ(tp_call_count("C_Finalize"), 1);
        TearDown();
    }
}

}  // namespace
