// Provider, slots, sessions, login and certificates, on SoftHSM2 through the test provider.
#include <dlfcn.h>

#include "fixture.h"

namespace {

TEST(Provider, LoadsInitialisesAndReleasesEverythingOnce) {
    fx::provider("init=0x191");  // initialised by someone else: accepted
    {
        fx::Road road("zorvo-a", "rsa1");
        auto login = road.login();
        auto again = road.slot->openSession(0);
    }
    EXPECT_EQ(fx::count("C_Finalize "), 1u);
    EXPECT_EQ(fx::count("C_OpenSession 0x0"), 2u);
    EXPECT_EQ(fx::count("C_CloseSession "), 2u);
    EXPECT_EQ(fx::count("C_Logout "), 1u);

    const struct {
        const char* rules;
        int code;
        const char* message;
    } refused[] = {{"C_Initialize@1=0x5", 101, "failed to initialize p11 module"},
                   {"null=C_Sign", 100, "failed to load p11 module"}};
    for (const auto& r : refused) {
        fx::provider(r.rules);
        EXPECT_P11(p11::Module(ZORVO_TPROV, nullptr), r.code, r.message);
        EXPECT_EQ(dlopen(ZORVO_TPROV, RTLD_NOW | RTLD_NOLOAD), nullptr) << r.rules << ": left loaded";
    }
}

TEST(Provider, ParentsGoneAreReportedNotFollowed) {
    fx::provider();
    fx::Road road("zorvo-a", "rsa1");
    auto other = road.module->listTokenSlots()->front();
    auto log = fx::Log::capture();
    road.session.reset();
    road.certs.reset();
    EXPECT_P11(road.cert->startSigning(nullptr, true), 12, "failed to get session");
    EXPECT_TRUE(log->has(fx::kError, L"failed to get session"));

    auto orphan = road.slot->openSession(0);
    road.slot.reset();
    EXPECT_P11(orphan->login("1234", 4), 11, "failed to get slot");
    EXPECT_TRUE(log->has(fx::kError, L"failed to get slot"));

    road.module.reset();
    EXPECT_P11(other->readTokenInfo(), 10, "failed to get module");
    EXPECT_TRUE(log->has(fx::kError, L"failed to get module"));
    EXPECT_P11(other->openSession(0), 10, "failed to get module");
}

TEST(Provider, SlotsAndMechanisms) {
    fx::provider();
    fx::Road road("zorvo-a");
    EXPECT_EQ(road.module->listTokenSlots()->size(), 5u);  // four tokens and SoftHSM2's free slot
    const CK_FUNCTION_LIST* f = road.module->functionList();
    CK_ULONG n = 0;
    f->C_GetMechanismList(road.slot->id, nullptr, &n);
    std::vector<CK_MECHANISM_TYPE> all(n);
    f->C_GetMechanismList(road.slot->id, all.data(), &n);
    for (CK_FLAGS wanted : {CK_FLAGS(0), CKF_SIGN | CKF_VERIFY, CKF_SIGN | CKF_DIGEST, CKF_ENCRYPT}) {
        std::vector<unsigned long> expected;
        for (auto m : all) {
            CK_MECHANISM_INFO info{};
            if (f->C_GetMechanismInfo(road.slot->id, m, &info) == CKR_OK && (info.flags & wanted) == wanted)
                expected.push_back(m);
        }
        EXPECT_EQ(*road.slot->geMechanisms(wanted), expected) << wanted;
    }
    EXPECT_TRUE(road.slot->geMechanisms(~CK_FLAGS(0))->empty());
}

TEST(Provider, LoginAnswers) {
    const struct {
        CK_RV rv;
        int code;
        const char* message;
    } rows[] = {{CKR_ARGUMENTS_BAD, 201, "pin incorrect"},
                {CKR_PIN_INCORRECT, 201, "pin incorrect"},
                {CKR_PIN_LEN_RANGE, 201, "pin incorrect"},
                {CKR_PIN_INVALID, 202, "pin invalid"},
                {CKR_PIN_EXPIRED, 203, "pin expired"},
                {CKR_PIN_LOCKED, 204, "pin locked"},
                {CKR_CRYPTOKI_NOT_INITIALIZED, 290, "cryptoki usage conflict"},
                {CKR_DEVICE_ERROR, 200, "failed to login"},
                {CKR_USER_ALREADY_LOGGED_IN, 0, ""}};
    for (const auto& r : rows) {
        fx::provider("C_Login@1=" + std::to_string(r.rv));
        fx::Road road("zorvo-a");
        auto log = fx::Log::capture();
        if (r.code)
            EXPECT_P11(road.login(), r.code, r.message);
        else
            road.login();
        EXPECT_EQ(
            log->has(log4cplus::WARN_LOG_LEVEL,
                     L"Unexpected error: cryptoki not initialized. Likely it's conflict of using cryptoki. "
                     L"Check settings of window crypto providers."),
            r.code == 290);
        EXPECT_EQ(log->has(log4cplus::INFO_LOG_LEVEL, L"user already logged in"), r.code == 0);
    }
    fx::provider();
    fx::Road road("zorvo-a");
    EXPECT_P11(road.session->login("12345", 5), 201, "pin incorrect");
    EXPECT_P11(road.session->login("1234", 3), 201, "pin incorrect");
    auto token = road.login();
    EXPECT_EQ(fx::count("C_Logout "), 0u);
    token.reset();
    EXPECT_EQ(fx::count("C_Logout 0x0"), 1u);
}

TEST(Provider, LyingAnswersAreRefused) {
    const struct {
        const char* rules;
        int code;
        const char* message;
    } rows[] = {
        {"attrover=1", 107, "failed to get attribute value"},  // it wrote past the buffer, it says
        {"attrlen=1073741824", 107, "failed to get attribute value"},
        {"attrlen=18446744073709551615", 107, "failed to get attribute value"},
        {"count=0", 102, "failed to get a list of slotsWithToken with token"},  // a token came meanwhile
        {"count=100000000", 102, "failed to get a number of list of slots with token"},
        {"endless", 106, "failed to find token's certificate"},
    };
    for (const auto& r : rows) {
        fx::provider(r.rules);
        EXPECT_P11(fx::Road("zorvo-a", "rsa1"), r.code, r.message);
    }
    fx::provider("mechs=100000000");
    EXPECT_P11(fx::Road("zorvo-a").slot->geMechanisms(0), 104, "failed to get mechanizms");
}

TEST(Provider, CertificatesAsTheTokenHoldsThem) {
    fx::provider();
    fx::Road road("zorvo-a", "rsa1");
    std::map<std::string, std::shared_ptr<p11::Certificate>> certs;
    for (auto& c : *road.certs) certs[c->getLabel()] = c;
    EXPECT_EQ(certs.size(), 3u);
    auto& rsa1 = *road.cert;
    EXPECT_EQ(rsa1.getSubject(),
              (p11::name_map{{"C", L"RU"}, {"O", L"Zorvo Test"}, {"CN", L"Zorvo RSA One"}}));
    EXPECT_EQ(rsa1.getIssuer(), rsa1.getSubject());
    EXPECT_EQ(certs["rsa2"]->getSubject().at("OU"), L"Тестовый отдел");
    EXPECT_EQ(certs["rsa2"]->getIssuer().at("CN"), L"Zorvo Test CA");
    EXPECT_EQ(rsa1.getSerialNumber(), "4097");
    EXPECT_EQ(rsa1.getKeyUsage(), std::bitset<9>(0x3));
    EXPECT_EQ(rsa1.getNotAfterStr().size(), 24u);
    EXPECT_EQ(rsa1.get_id().second, 1u);
    EXPECT_EQ(rsa1.get_id().first[0], 1);
    EXPECT_EQ(rsa1.getTokenInfo().at("label"), L"zorvo-a" + std::wstring(25, L' '));

    // The public key object's modulus is the certificate's.
    BIGNUM* n = nullptr;
    CK_OBJECT_CLASS publicKey = CKO_PUBLIC_KEY;
    CK_ATTRIBUTE search[] = {{CKA_CLASS, &publicKey, sizeof publicKey},
                             {CKA_ID, rsa1.get_id().first.get(), 1}};
    const CK_FUNCTION_LIST* f = road.module->functionList();
    CK_OBJECT_HANDLE obj = 0;
    CK_ULONG found = 0;
    f->C_FindObjectsInit(road.session->getHandle(), search, 2);
    f->C_FindObjects(road.session->getHandle(), &obj, 1, &found);
    f->C_FindObjectsFinal(road.session->getHandle());
    road.session->getattr_bn(obj, CKA_MODULUS, &n);
    BIGNUM* certN = nullptr;
    EVP_PKEY_get_bn_param(X509_get0_pubkey(rsa1.getX509()), "n", &certN);
    EXPECT_EQ(BN_cmp(n, certN), 0);
    BN_free(n);
    BN_free(certN);
    char label[16];
    std::memset(label, 'x', sizeof label);
    road.session->getattr_s(obj, CKA_LABEL, label, sizeof label);
    EXPECT_EQ(std::string(label, sizeof label), std::string("rsa1") + std::string(12, '\0'));

    auto log = fx::Log::capture();
    EXPECT_P11(fx::Road("zorvo-b", "rsa1"), 122, "bad x509 id");
    EXPECT_TRUE(log->has(fx::kError, L"Got a bad certificate id with label: test-ca"));
}

}  // namespace
