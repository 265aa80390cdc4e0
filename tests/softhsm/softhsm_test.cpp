// The library against a real token: SoftHSM2 with the tokens of tests/support/softhsm_token.sh.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "Certificate.h"
#include "Module.h"
#include "Session.h"
#include "Signer.h"
#include "Slot.h"
#include "p11.h"
#include "p11_ossl.h"
#include "test_expect.h"
#include "test_openssl.h"


namespace {

using Certs = std::vector<std::shared_ptr<p11::Certificate>>;

// KEY=value lines written by the token script.
const std::map<std::string, std::string>& env() {
    static const std::map<std::string, std::string> values = [] {
        std::map<std::string, std::string> m;
        std::ifstream in(std::string(ZORVO_BUILD_DIR) + "/softhsm/env");
        for (std::string line; std::getline(in, line);) {
            auto eq = line.find('=');
            if (eq != std::string::npos) m[line.substr(0, eq)] = line.substr(eq + 1);
        }
        if (m.count("SOFTHSM2_CONF")) setenv("SOFTHSM2_CONF", m["SOFTHSM2_CONF"].c_str(), 1);
        return m;
    }();
    return values;
}
const std::string& var(const char* name) { return env().at(name); }

std::string padded(const std::string& s, size_t n) { return s + std::string(n - s.size(), ' '); }

class SoftHsmTest : public ::testing::Test {
protected:
    void SetUp() override {
        p11::engine_in_use = false;
        module_ = std::make_shared<p11::Module>(var("ZORVO_SOFTHSM_MODULE"), nullptr);
        slots_ = module_->listTokenSlots();
    }
    void TearDown() override {
        p11::engine_in_use = false;
        slots_.reset();
        module_.reset();  // before exit: the provider must not finalise from a static destructor
    }
    // Slot ids change at every initialisation: select by label.
    std::shared_ptr<p11::Slot> slot(const std::string& label) {
        for (auto& s : *slots_) {
            auto info = s->readTokenInfo();
            if (std::string(reinterpret_cast<char*>(info->label), 32) == padded(label, 32)) return s;
        }
        throw std::runtime_error("no token " + label);
    }
    std::shared_ptr<p11::Certificate> byLabel(const Certs& certs, const std::string& label) {
        for (auto& c : certs)
            if (c->getLabel() == label) return c;
        throw std::runtime_error("no certificate " + label);
    }
    std::unique_ptr<p11::Session::LoginToken> login(const std::shared_ptr<p11::Session>& s) {
        return s->login(var("ZORVO_SOFTHSM_PIN").c_str(), var("ZORVO_SOFTHSM_PIN").size());
    }

    std::shared_ptr<p11::Module> module_;
    std::unique_ptr<std::vector<std::shared_ptr<p11::Slot>>> slots_;
};

TEST_F(SoftHsmTest, TokensAndPaddedTexts) {
    ASSERT_EQ(slots_->size(), 3u);  // the two tokens and the spare slot's uninitialised one
    int initialised = 0;
    for (auto& s : *slots_) initialised += (s->readTokenInfo()->flags & CKF_TOKEN_INITIALIZED) ? 1 : 0;
    EXPECT_EQ(initialised, 2);
    auto info = slot(var("ZORVO_SOFTHSM_LABEL"))->readTokenInfo();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(info->manufacturerID), 32), padded("SoftHSM project", 32));
    EXPECT_STREQ(p11::p11_utf8_to_local(info->model, sizeof info->model), "SoftHSM v2");
}

TEST_F(SoftHsmTest, SigningMechanisms) {
    auto mechanisms = slot(var("ZORVO_SOFTHSM_LABEL"))->geMechanisms(CKF_SIGN);
    auto has = [&](CK_MECHANISM_TYPE m) { return std::count(mechanisms->begin(), mechanisms->end(), m) == 1; };
    EXPECT_TRUE(has(CKM_RSA_PKCS));
    EXPECT_TRUE(has(CKM_ECDSA));
    EXPECT_FALSE(has(CKM_SHA256));  // digest only
    EXPECT_TRUE(slot(var("ZORVO_SOFTHSM_LABEL"))->geMechanisms(~CK_FLAGS(0))->empty());
}

TEST_F(SoftHsmTest, LoginRoundTrip) {
    auto s = slot(var("ZORVO_SOFTHSM_LABEL"));
    auto session = s->openSession(0);
    EXPECT_P11_ERROR(session->login("0000", 4), 201, "pin incorrect");
    EXPECT_P11_ERROR(session->login(nullptr, 4), 201, "pin incorrect");  // CKR_ARGUMENTS_BAD
    auto first = login(session);
    auto second = login(session);  // already logged in: also a token
    second.reset();                // logs out for both
    auto third = login(session);   // a fresh login works again
    EXPECT_NE(third, nullptr);
}

TEST_F(SoftHsmTest, DroppedModuleFailsCleanly) {
    auto s = slot(var("ZORVO_SOFTHSM_LABEL"));
    auto session = s->openSession(0);
    auto token = login(session);
    slots_.reset();
    module_.reset();
    EXPECT_P11_ERROR(s->readTokenInfo(), 10, "failed to get module");
    EXPECT_P11_ERROR(session->enumerateCerts(), 10, "failed to get module");
    token.reset();
    session.reset();
}

TEST_F(SoftHsmTest, CaCertificateWithoutIdFailsTheWholeListing) {
    auto session = slot(var("ZORVO_SOFTHSM_LABEL"))->openSession(0);
    EXPECT_P11_ERROR(session->enumerateCerts(), 122, "bad x509 id");
}

// What `openssl x509` prints for the same certificate.
struct Printed {
    std::string serial, notBefore, notAfter;
};
Printed openssl_prints(const std::string& pem) {
    std::string out;
    testssl::run("openssl x509 -in " + pem + " -noout -serial -startdate -enddate", &out);
    Printed p;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        auto eq = line.find('=');
        std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "serial") p.serial = std::to_string(std::stoull(value, nullptr, 16));
        if (key == "notBefore") p.notBefore = value;
        if (key == "notAfter") p.notAfter = value;
    }
    return p;
}

TEST_F(SoftHsmTest, EnumerationMatchesOpenssl) {
    auto session = slot(var("ZORVO_SOFTHSM_LABEL2"))->openSession(0);
    auto certs = session->enumerateCerts();
    ASSERT_EQ(certs->size(), 2u);
    struct {
        const char* label;
        const char* pem;
        unsigned char id;
    } cases[] = {{"rsa1", "ZORVO_SOFTHSM_RSA1_CERT", 0x01}, {"ec1", "ZORVO_SOFTHSM_EC1_CERT", 0x03}};
    for (const auto& c : cases) {
        auto cert = byLabel(*certs, c.label);
        Printed p = openssl_prints(var(c.pem));
        EXPECT_EQ(cert->getSerialNumber(), p.serial) << c.label;
        EXPECT_EQ(cert->getNotBeforeStr(), p.notBefore) << c.label;
        EXPECT_EQ(cert->getNotAfterStr(), p.notAfter) << c.label;
        EXPECT_EQ(cert->getKeyUsage().to_ulong(), 0x3u) << c.label;  // digitalSignature, nonRepudiation
        ASSERT_EQ(cert->get_id().second, 1u);
        EXPECT_EQ(cert->get_id().first[0], c.id);
        EXPECT_FALSE(cert->getSubject().at("CN").empty());
        EXPECT_EQ(cert->getTokenInfo().at("label"), std::wstring(L"zorvo-test2") + std::wstring(21, L' '));
        for (auto [option, names] : {std::pair{"-subject", &cert->getSubject()}, std::pair{"-issuer", &cert->getIssuer()}}) {
            std::string printed;
            testssl::run("openssl x509 -in " + var(c.pem) + " -noout " + option + " -nameopt multiline,-esc_msb,utf8",
                         &printed);
            for (auto [key, field] : {std::pair{"CN", "commonName"}, std::pair{"O", "organizationName"}}) {
                if (!names->count(key)) continue;
                const std::wstring& value = names->at(key);  // ASCII in these certificates
                std::string line = std::string(field) + std::string(26 - std::strlen(field), ' ') + "= " +
                                   std::string(value.begin(), value.end());
                EXPECT_NE(printed.find(line), std::string::npos) << printed << " lacks " << line;
            }
        }
    }
}

TEST_F(SoftHsmTest, OneShotRsaSignaturesVerify) {
    auto session = slot(var("ZORVO_SOFTHSM_LABEL2"))->openSession(0);
    auto cert = byLabel(*session->enumerateCerts(), "rsa1");
    const std::string trusted = testssl::read_file(var("ZORVO_SOFTHSM_RSA1_CERT"));
    for (bool attached : {true, false}) {
        p11::engine_in_use = false;
        const std::string data = attached ? "attached on a real token" : "detached on a real token";
        const std::string pem = cert->signOnIt(login(session), data.c_str(), attached);
        auto verified = testssl::cms_verify(pem, trusted, attached ? nullptr : &data);
        EXPECT_TRUE(verified.ok) << verified.log;
        EXPECT_EQ(verified.content, data);
    }
}

TEST_F(SoftHsmTest, StreamedRsaSignaturesVerify) {
    auto session = slot(var("ZORVO_SOFTHSM_LABEL2"))->openSession(0);
    auto cert = byLabel(*session->enumerateCerts(), "rsa1");
    const std::string trusted = testssl::read_file(var("ZORVO_SOFTHSM_RSA1_CERT"));
    for (bool attached : {true, false}) {
        auto signer = cert->startSigning(login(session), attached);
        for (std::string data : {std::string("streamed one"), std::string(200000, 'x')}) {
            for (size_t at = 0; at < data.size(); at += 65536)
                signer->addData(data.data() + at, static_cast<int>(std::min<size_t>(65536, data.size() - at)));
            auto verified = testssl::cms_verify(signer->finish(), trusted, attached ? nullptr : &data);
            EXPECT_TRUE(verified.ok) << verified.log;
            EXPECT_EQ(verified.content, data);
        }
    }
}

// The second RSA key's certificate is labelled differently from its key: found by CKA_ID.
TEST_F(SoftHsmTest, KeyFoundByIdDespiteDifferentLabels) {
    auto s = slot(var("ZORVO_SOFTHSM_LABEL"));
    auto session = s->openSession(0);
    const std::string label = "rsa2-cert";
    CK_OBJECT_CLASS certClass = CKO_CERTIFICATE;
    CK_ATTRIBUTE search[] = {{CKA_CLASS, &certClass, sizeof certClass},
                             {CKA_LABEL, const_cast<char*>(label.data()), label.size()}};
    const CK_FUNCTION_LIST* f = s->operator->();
    CK_OBJECT_HANDLE obj = 0;
    CK_ULONG count = 0;
    ASSERT_EQ(f->C_FindObjectsInit(session->getHandle(), search, 2), CKR_OK);
    ASSERT_EQ(f->C_FindObjects(session->getHandle(), &obj, 1, &count), CKR_OK);
    ASSERT_EQ(f->C_FindObjectsFinal(session->getHandle()), CKR_OK);
    ASSERT_EQ(count, 1u);
    auto cert = session->create_cert(obj, s->readTokenInfo());
    EXPECT_EQ(cert->getSubject().count("OU"), 1u);
    const std::string pem = cert->signOnIt(login(session), "by id", true);
    auto verified = testssl::cms_verify(pem, testssl::read_file(var("ZORVO_SOFTHSM_CA_CERT")), nullptr);
    EXPECT_TRUE(verified.ok) << verified.log;
}

TEST_F(SoftHsmTest, EcKeyIsRefused) {
    auto session = slot(var("ZORVO_SOFTHSM_LABEL2"))->openSession(0);
    auto cert = byLabel(*session->enumerateCerts(), "ec1");
    EXPECT_P11_ERROR(cert->signOnIt(login(session), "ec", true), 110, "CKK_EC private key type is unsupported");
}

}  // namespace
