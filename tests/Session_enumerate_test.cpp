// Certificate enumeration on the test provider: the all-or-nothing listing and the checks
// on each certificate object, in their order.
#include <gtest/gtest.h>

#include "Certificate.h"
#include "Session.h"
#include "test_certs.h"
#include "test_fixture.h"
#include "test_log.h"

namespace {

class EnumerateTest : public ProviderTest {
protected:
    void SetUp() override {
        ProviderTest::SetUp();
        token_ = std::make_unique<tp::Token>(2, "Enum token");
        module_ = load();
        slot_ = firstSlot(module_);
        session_ = slot_->openSession(0);
    }
    tp::Bytes certDer(const std::string& cn, int64_t serial = 1) {
        testcert::Options o;
        o.subject = {{"CN", V_ASN1_UTF8STRING, cn}};
        o.serial = serial;
        return testcert::makeDer(o);
    }

    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
    std::shared_ptr<p11::Session> session_;
};

TEST_F(EnumerateTest, EmptyTokenGivesEmptyList) {
    tp_clear_log();
    auto certs = session_->enumerateCerts();
    ASSERT_NE(certs, nullptr);
    EXPECT_TRUE(certs->empty());
    EXPECT_EQ(tp::sequence(), "C_GetTokenInfo,C_FindObjectsInit,C_FindObjects,C_FindObjectsFinal");
    auto search = tp::call_template("C_FindObjectsInit");
    ASSERT_EQ(search.size(), 1u);
    EXPECT_EQ(search[0].type, CKA_CLASS);
    EXPECT_EQ(search[0].value, tp::ulong_attr(CKA_CLASS, CKO_CERTIFICATE).value);
}

TEST_F(EnumerateTest, CertificatesInProviderOrderSharingOneTokenInfo) {
    token_->certificate(certDer("first", 256), "one", {0x01});
    token_->data("not a certificate", {0x00});
    token_->certificate(certDer("second"), "two", {0x02, 0x03});
    tp_clear_log();
    auto certs = session_->enumerateCerts();
    ASSERT_EQ(certs->size(), 2u);
    EXPECT_EQ(certs->at(0)->getLabel(), "one");
    EXPECT_EQ(certs->at(0)->getSubject().at("CN"), L"first");
    EXPECT_EQ(certs->at(0)->getSerialNumber(), "256");
    EXPECT_EQ(certs->at(1)->getLabel(), "two");
    EXPECT_EQ(certs->at(1)->get_id().second, 2u);
    EXPECT_EQ(certs->at(1)->get_id().first[1], 0x03);
    EXPECT_EQ(certs->at(1)->getTokenInfo().at("label"), L"Enum token" + std::wstring(22, L' '));
    EXPECT_EQ(tp_call_count("C_GetTokenInfo"), 1);
    EXPECT_EQ(tp_call_count("C_FindObjects"), 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(tp::call("C_FindObjects", i).in_len, 1u);
    EXPECT_EQ(tp_call_count("C_GetAttributeValue"), 10);  // label, value x2, id x2 per certificate
}

TEST_F(EnumerateTest, BadCertificateObjectsFailTheWholeListing) {
    tp::Bytes good = certDer("ok");
    tp::Bytes truncated(good.begin(), good.begin() + good.size() / 2);
    tp::Bytes malformed = good;
    malformed[0] = 0x31;  // SET instead of SEQUENCE
    struct {
        tp::Bytes value;
        tp::Bytes id;
        int code;
        const char* message;
        const wchar_t* logged;
    } cases[] = {
        {tp::bytes("garbage"), {1}, 120, "failed to parse x509", L"Got a bad certificate with label: bad"},
        {truncated, {1}, 120, "failed to parse x509", L"Got a bad certificate with label: bad"},
        {malformed, {1}, 120, "failed to parse x509", L"Got a bad certificate with label: bad"},
        {{}, {1}, 121, "bad x509", L"Got a bad certificate with label: bad"},
        {{}, {}, 121, "bad x509", L"Got a bad certificate with label: bad"},  // value checked first
        {good, {}, 122, "bad x509 id", L"Got a bad certificate id with label: bad"},
    };
    for (const auto& c : cases) {
        tp_reset();
        tp::Token token(2);
        token.certificate(certDer("fine"), "fine", {9});
        token.certificate(c.value, "bad", c.id);
        auto module = load();
        auto slot = firstSlot(module);
        auto session = slot->openSession(0);
        testlog::Capture log;
        EXPECT_P11_ERROR(session->enumerateCerts(), c.code, c.message);
        EXPECT_EQ(log.errors(), std::vector<std::wstring>{c.logged});
        EXPECT_EQ(tp_call_count("C_FindObjectsFinal"), 0);
    }
}

TEST_F(EnumerateTest, LabelOfExactly256BytesIsReadWholeAndLongerFails) {
    token_->certificate(certDer("a"), std::string(256, 'L'), {1});
    auto certs = session_->enumerateCerts();
    ASSERT_EQ(certs->size(), 1u);
    EXPECT_EQ(certs->at(0)->getLabel(), std::string(256, 'L'));

    tp_reset();
    tp::Token token(2);
    token.certificate(certDer("a"), std::string(257, 'L'), {1});
    auto module = load();
    auto slot = firstSlot(module);
    auto session = slot->openSession(0);
    EXPECT_P11_ERROR(session->enumerateCerts(), 107, "failed to get attribute value");
}

TEST_F(EnumerateTest, ProviderCallFailures) {
    token_->certificate(certDer("a"), "a", {1});
    struct {
        const char* function;
        int code;
        const char* message;
        const wchar_t* logged;
    } cases[] = {
        {"C_GetTokenInfo", 103, "failed to get token info",
         L"PKCS11 function C_GetTokenInfo() failed: rv = CKR_DEVICE_REMOVED (50)"},
        {"C_FindObjectsInit", 106, "failed to find token's certificate",
         L"PKCS11 function C_FindObjectsInit() failed: rv = CKR_DEVICE_REMOVED (50)"},
        {"C_FindObjects", 106, "failed to find token's certificate",
         L"PKCS11 function C_FindObjectsInit() failed: rv = CKR_DEVICE_REMOVED (50)"},
        {"C_FindObjectsFinal", 106, "failed to find token's certificate",
         L"PKCS11 function C_FindObjectsFinal() failed: rv = CKR_DEVICE_REMOVED (50)"},
    };
    for (const auto& c : cases) {
        tp_clear_failures();
        auto session = slot_->openSession(0);  // a failed search stays active in its session
        tp_clear_log();
        testlog::Capture log;
        tp_fail_from(c.function, 1, CKR_DEVICE_REMOVED);
        EXPECT_P11_ERROR(session->enumerateCerts(), c.code, c.message);
        EXPECT_EQ(tp_call_count(c.function), 2) << c.function;
        EXPECT_EQ(log.errors(), std::vector<std::wstring>{c.logged});
    }
}

TEST_F(EnumerateTest, ProviderReportingMoreObjectsThanAskedStillGivesOneEach) {
    token_->certificate(certDer("a"), "a", {1});
    tp_misbehave_find_count(5);
    auto certs = session_->enumerateCerts();
    EXPECT_EQ(certs->size(), 1u);
}

}  // namespace
