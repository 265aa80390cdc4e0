// Signatures end to end: RSA on SoftHSM2 and every GOST kind on the test token, one-shot and
// streamed, attached and detached, each checked by openssl in a process of its own.
#include <dirent.h>

#include "fixture.h"
#include "gost_digests.h"
#include "gost_verify.h"

namespace {

struct Identity {
    const char* label;
    const char* token;
    const EVP_MD* (*certHash)();  // the digest of the signing-certificate attribute
};
const Identity kIdentities[] = {{"rsa1", "zorvo-a", EVP_sha256},
                                {"gost2001", "zorvo-g", digest_gost2001},
                                {"gost2012_256", "zorvo-g", digest_gost2012_256},
                                {"gost2012_tc26a", "zorvo-g", digest_gost2012_256},
                                {"gost2012_512", "zorvo-g", digest_gost2012_512}};

enum Mode { kOneShot, kStreamed, kSink };  // kSink: the signature streams out as it is made

std::string sign(fx::Road& road, Mode mode, bool attached, const std::string& data) {
    fx::free_engine();
    if (mode == kOneShot) return road.cert->signOnIt(road.login(), data.c_str(), attached);
    std::string out;
    auto collect = [&out](const char* p, size_t n) { return out.append(p, n), true; };
    auto signer = mode == kSink ? road.cert->startSigning(road.login(), attached, collect)
                                : road.cert->startSigning(road.login(), attached);
    for (size_t at = 0; at < data.size(); at += 65536)
        signer->addBytes(data.data() + at, std::min<size_t>(65536, data.size() - at));
    return signer->finish() + out;
}

// Whether the signature is detached, and the DER of its signing-certificate-v2 attribute ("" without one).
std::pair<bool, std::string> inspect(const std::string& pem) {
    p11::ossl::bio_ptr in(BIO_new_mem_buf(pem.data(), int(pem.size())));
    p11::ossl::cms_ptr cms = p11::read_cms(in.get());
    auto* si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    ASN1_OBJECT* oid = OBJ_txt2obj("1.2.840.113549.1.9.16.2.47", 1);
    X509_ATTRIBUTE* a = CMS_signed_get_attr(si, CMS_signed_get_attr_by_OBJ(si, oid, -1));
    ASN1_OBJECT_free(oid);
    const ASN1_TYPE* value = a ? X509_ATTRIBUTE_get0_type(a, 0) : nullptr;
    return {CMS_is_detached(cms.get()) == 1,
            value ? std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value->value.sequence)),
                                size_t(ASN1_STRING_length(value->value.sequence)))
                  : ""};
}

class Signing : public testing::TestWithParam<Identity> {};
INSTANTIATE_TEST_SUITE_P(Keys, Signing, testing::ValuesIn(kIdentities),
                         [](const auto& info) { return std::string(info.param.label); });

TEST_P(Signing, VerifiesElsewhereAndCoversExactlyTheData) {
    const Identity& id = GetParam();
    const bool gost = id.token == std::string("zorvo-g");
    fx::provider("", gost);
    fx::Road road(id.token, id.label);
    std::string big(3 * 65536 + 48, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = char(i * 7);
    const struct {
        Mode mode;
        std::string data, covered;
    } rows[] = {{kOneShot, "Документ\n", "Документ\n"},
                {kOneShot, std::string("abc\0def", 7), "abc"},
                {kOneShot, "", ""},
                {kStreamed, big, big},
                {kStreamed, "", ""},
                {kSink, "Документ\n", "Документ\n"},
                {kSink, big, big},
                {kSink, big.substr(0, 65536), big.substr(0, 65536)},
                {kSink, "", ""}};
    unsigned char *der = nullptr, hash[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    const int derLen = i2d_X509(road.cert->getX509(), &der);
    EVP_Digest(der, size_t(derLen), hash, &len, id.certHash(), nullptr);
    OPENSSL_free(der);
    for (const auto& r : rows)
        for (bool attached : {true, false}) {
            SCOPED_TRACE("mode " + std::to_string(r.mode) + (attached ? " attached " : " detached ") +
                         std::to_string(r.data.size()));
            const std::string pem = sign(road, r.mode, attached, r.data);
            // The gost engine's GOST R 34.11-94 of the empty message is not the published one.
            if (r.covered.size() || id.certHash != digest_gost2001) {
                EXPECT_EQ(fx::verify(pem, road.cert->getX509(), attached ? nullptr : &r.covered, gost),
                          r.covered);
            }
            EXPECT_EQ(fx::verify_here(pem, road.cert->getX509(), attached ? nullptr : &r.covered), r.covered);
            const auto [detached, attribute] = inspect(pem);
            EXPECT_EQ(detached, !attached);
            EXPECT_EQ(attribute.find(std::string(reinterpret_cast<char*>(hash), len)) != std::string::npos,
                      r.mode != kOneShot);
        }
}

// The token's key as a host may use it beside the library, while it holds the signing claim: its
// public half is the certificate's, what it signs verifies with the certificate's key and with no
// other key or data, and so does a certificate it issues for another key.
TEST_P(Signing, TheKeyInAHostsHands) {
    const Identity& id = GetParam();
    fx::provider("", id.token == std::string("zorvo-g"));
    fx::Road road(id.token, id.label);
    fx::free_engine();
    auto claim = road.cert->startSigning(road.login(), true);
    auto key = road.session->get_private_key_by_x509(road.cert);
    X509* cert = road.cert->getX509();
    EVP_PKEY* pub = X509_get0_pubkey(cert);
    EXPECT_EQ(EVP_PKEY_eq(key.get(), pub), 1);
    EXPECT_EQ(EVP_PKEY_get_bits(key.get()), EVP_PKEY_get_bits(pub));
    const std::string data = "signed by the host";
    auto bytes = [](const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); };
    std::vector<unsigned char> sig(512);
    size_t len = sig.size();
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    ASSERT_EQ(EVP_DigestSignInit(ctx.get(), nullptr, id.certHash(), nullptr, key.get()), 1);
    ASSERT_EQ(EVP_DigestSign(ctx.get(), sig.data(), &len, bytes(data), data.size()), 1);
    for (const std::string& message : {data, data + "!"}) {
        EVP_MD_CTX_reset(ctx.get());
        EXPECT_EQ(EVP_DigestVerifyInit_ex(ctx.get(), nullptr, EVP_MD_get0_name(id.certHash()),
                                          p11::openssl_libctx(), nullptr, pub, nullptr) == 1 &&
                      EVP_DigestVerify(ctx.get(), sig.data(), len, bytes(message), message.size()) == 1,
                  message == data);
    }
    p11::ossl::x509_ptr issued(X509_new_ex(p11::openssl_libctx(), nullptr));
    X509_set_version(issued.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(issued.get()), 7);
    X509_set_issuer_name(issued.get(), X509_get_subject_name(cert));
    X509_set_subject_name(issued.get(), X509_get_subject_name(cert));
    X509_gmtime_adj(X509_getm_notBefore(issued.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(issued.get()), 3600);
    p11::ossl::evp_pkey_ptr subjectKey(EVP_EC_gen("P-256"));
    X509_set_pubkey(issued.get(), subjectKey.get());
    ASSERT_GT(X509_sign(issued.get(), key.get(), id.certHash()), 0);
    for (auto& c : *road.certs)
        EXPECT_EQ(p11::x509_verify(issued.get(), X509_get0_pubkey(c->getX509())) == 1,
                  c->getLabel() == id.label)
            << c->getLabel();
}

TEST(Signing, TheEngineHasOneSignatureAtATime) {
    fx::provider();
    fx::Road road("zorvo-a", "rsa1");
    sign(road, kOneShot, true, "x");
    EXPECT_P11(road.cert->startSigning(road.login(), true), 300, "error while locking OPENSSL P11 engine");
    fx::free_engine();
    auto first = road.cert->startSigning(road.login(), true);
    EXPECT_P11(road.cert->startSigning(road.login(), true), 300, "error while locking OPENSSL P11 engine");
    EXPECT_P11(road.cert->signOnIt(road.login(), "x", true), 300, "error while locking OPENSSL P11 engine");
    first.reset();
    EXPECT_NO_THROW(road.cert->startSigning(road.login(), true)->finish());
}

// Whatever fails in a message, the signer is ready for the next one; a signature that could not be
// written whole fails; a cancel in one call is told by the token's answer.
TEST(Signing, FailedMessagesAndTheNextOne) {
    fx::provider("C_Sign@1=0x1,C_Sign@3=0x1,C_Sign@5=0x6,C_Sign@7=0x1", true);
    fx::Road road("zorvo-g", "gost2012_256");
    const std::string big(100000, 'x');
    for (bool toSink : {false, true}) {
        fx::free_engine();
        std::string out;
        size_t room = 0;  // what the sink takes before it refuses
        auto sink = [&](const char* p, size_t n) { return n <= room && (out.append(p, n), room -= n, true); };
        auto signer = toSink ? road.cert->startSigning(road.login(), true, sink)
                             : road.cert->startSigning(road.login(), true);
        auto next = [&](const std::string& data, size_t space = size_t(1) << 30) {
            out.clear();
            room = space;
            signer->addBytes(data.data(), data.size());
            return signer->finish() + out;
        };
        EXPECT_P11(next("cancelled"), 501, "user cancel operation");
        EXPECT_EQ(fx::verify(next("kept"), road.cert->getX509(), nullptr, true), "kept");
        if (!toSink) continue;
        EXPECT_P11(signer->addBytes(nullptr, 1), 300, "error while adding data");
        EXPECT_P11(next(big, 1000), 300, "error while writing PEM");
        EXPECT_P11(next("refused by the token"), 300, "error while signing finalization");
        EXPECT_EQ(fx::verify(next("next"), road.cert->getX509(), nullptr, true), "next");
    }
    EXPECT_P11(sign(road, kOneShot, true, "x"), 300, "error while signing finalization");
    EXPECT_EQ(p11::last_sign_rv(), CKR_CANCEL);
}

TEST(Signing, KeysTheLibraryCannotUseOrFind) {
    fx::provider("gostlong", true);  // each GOST key under another id than its certificate
    fx::Road road("zorvo-g", "gost2001");
    EXPECT_EQ(fx::verify(sign(road, kStreamed, true, "long way"), road.cert->getX509(), nullptr, true),
              "long way");
    for (auto& c : *road.certs)
        if (c->getLabel() == "gost2012_512") road.cert = c;
    EXPECT_P11(sign(road, kOneShot, true, "x"), 108, "failed to find a private key");

    fx::provider();
    fx::Road ec("zorvo-a", "ec1");
    EXPECT_P11(sign(ec, kOneShot, true, "x"), 110, "CKK_EC private key type is unsupported");
}

}  // namespace

// Signatures the gost engine made in its own process, one for every parameter set it knows, and the
// published examples: good ones verify here, certificates included, and tampered ones do not.
TEST(Verifying, GostSignaturesMadeElsewhere) {
    p11::reg_pkcs11_engine();
    const std::string dir = ZORVO_SOURCE_DIR "/tests/data/gost-verify/";
    const std::string message = fx::read(dir + "message.txt"), tampered = message + " ";
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    for (dirent* e; d && (e = readdir(d));)
        if (std::string(e->d_name).find(".sig.der") != std::string::npos) names.push_back(e->d_name);
    closedir(d);
    EXPECT_EQ(names.size(), 17u);
    for (std::string name : names) {
        name.resize(name.size() - 8);
        p11::ossl::x509_ptr cert = fx::certificate(fx::read(dir + name + ".cert.pem"));
        ASSERT_TRUE(cert) << name;
        EXPECT_EQ(p11::x509_verify(cert.get(), X509_get0_pubkey(cert.get())), 1) << name;
        std::string signature = fx::read(dir + name + ".sig.der");
        EXPECT_EQ(fx::verify_here(signature, cert.get(), &message), message) << name;
        EXPECT_EQ(fx::verify_here(signature, cert.get(), &tampered), "FAILED") << name;
        signature.back() ^= 1;  // the last byte of the signature value
        EXPECT_EQ(fx::verify_here(signature, cert.get(), &message), "FAILED") << name;
    }
    std::istringstream vectors(fx::read(dir + "rfc7091.txt"));
    int examples = 0;
    for (std::string line; std::getline(vectors, line);) {
        std::istringstream in(line);
        std::string f[11];
        for (auto& field : f) in >> field;
        if (line[0] == '#' || !in) continue;
        const size_t size = f[0].size() / 2;
        auto bytes = [size](const std::string& hex, bool little) {
            std::string out(size, '\0');
            for (size_t i = 0; i < size && 2 * i < hex.size(); ++i)
                out[size - 1 - i] = char(std::stoul(hex.substr(hex.size() - 2 * i - 2, 2), nullptr, 16));
            if (little) std::reverse(out.begin(), out.end());
            return out;
        };
        const p11::gost_curve curve{f[0].c_str(), f[1].c_str(), f[2].c_str(), f[3].c_str(),
                                    f[4].c_str(), f[5].c_str(), size};
        const std::string point = bytes(f[6], true) + bytes(f[7], true),
                          signature = bytes(f[10], false) + bytes(f[9], false);
        for (int flip = 0; flip < 2; ++flip) {
            std::string digest = bytes(f[8], true);
            digest[0] ^= char(flip);
            EXPECT_EQ(
                p11::gost_verify(curve, reinterpret_cast<const unsigned char*>(point.data()), point.size(),
                                 reinterpret_cast<const unsigned char*>(digest.data()), digest.size(),
                                 reinterpret_cast<const unsigned char*>(signature.data()), signature.size()),
                flip == 0)
                << line;
        }
        ++examples;
    }
    EXPECT_EQ(examples, 2);
}
