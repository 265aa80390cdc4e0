#include "gost_verify.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "ossl_ptr.h"

namespace p11 {

namespace {

// The curves of RFC 4357 (CryptoPro) and RFC 7836 (TC26; its 256-A and 512-C are twisted Edwards
// curves, given here in the Weierstrass form that RFC 7836 gives as well).
const gost_curve kCryptoProA = {"FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFD97",
                                "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFD94",
                                "A6",
                                "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF6C611070995AD10045841B09B761B893",
                                "1",
                                "8D91E471E0989CDA27DF505A453F2B7635294F2DDF23E3B122ACC99C9E9F1E14",
                                32};
const gost_curve kCryptoProB = {"8000000000000000000000000000000000000000000000000000000000000C99",
                                "8000000000000000000000000000000000000000000000000000000000000C96",
                                "3E1AF419A269A5F866A7D3C25C3DF80AE979259373FF2B182F49D4CE7E1BBC8B",
                                "800000000000000000000000000000015F700CFFF1A624E5E497161BCC8A198F",
                                "1",
                                "3FA8124359F96680B83D1C3EB2C070E5C545C9858D03ECFB744BF8D717717EFC",
                                32};
const gost_curve kCryptoProC = {"9B9F605F5A858107AB1EC85E6B41C8AACF846E86789051D37998F7B9022D759B",
                                "9B9F605F5A858107AB1EC85E6B41C8AACF846E86789051D37998F7B9022D7598",
                                "805A",
                                "9B9F605F5A858107AB1EC85E6B41C8AA582CA3511EDDFB74F02F3A6598980BB9",
                                "0",
                                "41ECE55743711A8C3CBF3783CD08C0EE4D4DC440D4641A8F366E550DFDB3BB67",
                                32};
const gost_curve kTc26_256A = {"FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFD97",
                               "C2173F1513981673AF4892C23035A27CE25E2013BF95AA33B22C656F277E7335",
                               "295F9BAE7428ED9CCC20E7C359A9D41A22FCCD9108E17BF7BA9337A6F8AE9513",
                               "400000000000000000000000000000000FD8CDDFC87B6635C115AF556C360C67",
                               "91E38443A5E82C0D880923425712B2BB658B9196932E02C78B2582FE742DAA28",
                               "32879423AB1A0375895786C4BB46E9565FDE0B5344766740AF268ADB32322E5C",
                               32};
const gost_curve kTc26_512A = {
    "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF"
    "FFFFFFFFFFFFFFFFFFFFFDC7",
    "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF"
    "FFFFFFFFFFFFFFFFFFFFFDC4",
    "E8C2505DEDFC86DDC1BD0B2B6667F1DA34B82574761CB0E879BD081CFD0B6265EE3CB090F30D27614CB4574010DA90DD862EF9D4"
    "EBEE4761503190785A71C760",
    "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF27E69532F48D89116FF22B8D4E0560609B4B38AB"
    "FAD2B85DCACDB1411F10B275",
    "3",
    "7503CFE87A836AE3A61B8816E25450E6CE5E1C93ACF1ABC1778064FDCBEFA921DF1626BE4FD036E93D75E6A50E3A41E98028FE5F"
    "C235F5B889A589CB5215F2A4",
    64};
const gost_curve kTc26_512B = {
    "80000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
    "00000000000000000000006F",
    "80000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
    "00000000000000000000006C",
    "687D1B459DC841457E3E06CF6F5E2517B97C7D614AF138BCBF85DC806C4B289F3E965D2DB1416D217F8B276FAD1AB69C50F78BEE"
    "1FA3106EFB8CCBC7C5140116",
    "800000000000000000000000000000000000000000000000000000000000000149A1EC142565A545ACFDB77BD9D40CFA8B996712"
    "101BEA0EC6346C54374F25BD",
    "2",
    "1A8F7EDA389B094C2C071E3647A8940F3C123B697578C213BE6DD9E6C8EC7335DCB228FD1EDF4A39152CBCAAF8C0398828041055"
    "F94CEEEC7E21340780FE41BD",
    64};
const gost_curve kTc26_512C = {
    "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF"
    "FFFFFFFFFFFFFFFFFFFFFDC7",
    "DC9203E514A721875485A529D2C722FB187BC8980EB866644DE41C68E143064546E861C0E2C9EDD92ADE71F46FCF50FF2AD97F95"
    "1FDA9F2A2EB6546F39689BD3",
    "B4C4EE28CEBC6C2C8AC12952CF37F16AC7EFB6A9F69F4B57FFDA2E4F0DE5ADE038CBC2FFF719D2C18DE0284B8BFEF3B52B8CC7A5"
    "F5BF0A3C8D2319A5312557E1",
    "3FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFC98CDBA46506AB004C33A9FF5147502CC8EDA9E7"
    "A769A12694623CEF47F023ED",
    "E2E31EDFC23DE7BDEBE241CE593EF5DE2295B7A9CBAEF021D385F7074CEA043AA27272A7AE602BF2A7B9033DB9ED3610C6FB8548"
    "7EAE97AAC5BC7928C1950148",
    "F5CE40D95B5EB899ABBCCFF5911CB8577939804D6527378B8C108C3D2090FF9BE18E2D33E3021ED2EF32D85822423B6304F726AA"
    "854BAE07D0396E9A9ADDC40F",
    64};

struct named_curve {
    const char* oid;
    const gost_curve* curve;
};
// Several names lead to one curve: the key exchange sets and TC26 256-B..D are CryptoPro's.
const named_curve kCurves[] = {
    {"1.2.643.2.2.35.1", &kCryptoProA},    {"1.2.643.2.2.35.2", &kCryptoProB},
    {"1.2.643.2.2.35.3", &kCryptoProC},    {"1.2.643.2.2.36.0", &kCryptoProA},
    {"1.2.643.2.2.36.1", &kCryptoProC},    {"1.2.643.7.1.2.1.1.1", &kTc26_256A},
    {"1.2.643.7.1.2.1.1.2", &kCryptoProA}, {"1.2.643.7.1.2.1.1.3", &kCryptoProB},
    {"1.2.643.7.1.2.1.1.4", &kCryptoProC}, {"1.2.643.7.1.2.1.2.1", &kTc26_512A},
    {"1.2.643.7.1.2.1.2.2", &kTc26_512B},  {"1.2.643.7.1.2.1.2.3", &kTc26_512C},
};

using ctx_ptr = std::unique_ptr<BN_CTX, ossl::Deleter<BN_CTX, BN_CTX_free>>;
using group_ptr = std::unique_ptr<EC_GROUP, ossl::Deleter<EC_GROUP, EC_GROUP_free>>;
using point_ptr = std::unique_ptr<EC_POINT, ossl::Deleter<EC_POINT, EC_POINT_free>>;

ossl::bn_ptr hex(const char* text) {
    BIGNUM* n = nullptr;
    BN_hex2bn(&n, text);
    return ossl::bn_ptr(n);
}

// Bytes as a number: little-endian when `reversed`.
ossl::bn_ptr number(const unsigned char* bytes, size_t length, bool reversed) {
    std::vector<unsigned char> big(bytes, bytes + length);
    if (reversed) std::reverse(big.begin(), big.end());
    return ossl::bn_ptr(BN_bin2bn(big.data(), static_cast<int>(big.size()), nullptr));
}

}  // namespace

const gost_curve* gost_curve_by_oid(const std::string& oid) {
    for (const auto& c : kCurves)
        if (oid == c.oid) return c.curve;
    return nullptr;
}

namespace {

// The curve with its base point, the multiples of which are worked out once.
group_ptr build(const gost_curve& curve) {
    ctx_ptr ctx(BN_CTX_new());
    auto p = hex(curve.p), a = hex(curve.a), b = hex(curve.b), q = hex(curve.q), x = hex(curve.x),
         y = hex(curve.y);
    group_ptr group(ctx ? EC_GROUP_new_curve_GFp(p.get(), a.get(), b.get(), ctx.get()) : nullptr);
    point_ptr g(group ? EC_POINT_new(group.get()) : nullptr);
    if (!g || EC_POINT_set_affine_coordinates(group.get(), g.get(), x.get(), y.get(), ctx.get()) != 1 ||
        EC_GROUP_set_generator(group.get(), g.get(), q.get(), nullptr) != 1)
        return nullptr;
#ifndef OPENSSL_NO_DEPRECATED_3_0
    EC_GROUP_precompute_mult(group.get(), ctx.get());  // gone without the deprecated API: slower, same result
#endif
    return group;
}

// The curves of the table, built once and only read afterwards.
const EC_GROUP* known_group(const gost_curve& curve) {
    static const std::vector<std::pair<const gost_curve*, group_ptr>> groups = [] {
        std::vector<std::pair<const gost_curve*, group_ptr>> all;
        for (const auto& c : kCurves)
            if (std::none_of(all.begin(), all.end(), [&](const auto& g) { return g.first == c.curve; }))
                all.emplace_back(c.curve, build(*c.curve));
        return all;
    }();
    for (const auto& g : groups)
        if (g.first == &curve) return g.second.get();
    return nullptr;
}

}  // namespace

bool gost_verify(const gost_curve& curve, const unsigned char* point, size_t pointLength,
                 const unsigned char* digest, size_t digestLength, const unsigned char* signature,
                 size_t signatureLength) {
    const size_t n = curve.size;
    if (pointLength != 2 * n || digestLength != n || signatureLength != 2 * n) return false;
    group_ptr own;
    const EC_GROUP* group = known_group(curve);
    if (group == nullptr) group = (own = build(curve)).get();
    ctx_ptr ctx(BN_CTX_new());
    if (group == nullptr || !ctx) return false;
    const BIGNUM* q = EC_GROUP_get0_order(group);
    point_ptr key(EC_POINT_new(group)), c(EC_POINT_new(group));
    auto kx = number(point, n, true), ky = number(point + n, n, true);
    auto s = number(signature, n, false), r = number(signature + n, n, false);
    auto e = number(digest, n, true);
    ossl::bn_ptr v(BN_new()), z1(BN_new()), z2(BN_new()), x(BN_new());
    // 0 < r, s < q; e = digest mod q, 1 for 0; v = 1/e; C = (s v) G + (-r v) Q; valid when C.x mod q = r.
    const bool ok = key && c && s && r && e && v && z1 && z2 && x && !BN_is_zero(r.get()) &&
                    !BN_is_zero(s.get()) && BN_cmp(r.get(), q) < 0 && BN_cmp(s.get(), q) < 0 &&
                    EC_POINT_set_affine_coordinates(group, key.get(), kx.get(), ky.get(), ctx.get()) == 1 &&
                    BN_nnmod(e.get(), e.get(), q, ctx.get()) == 1 &&
                    (!BN_is_zero(e.get()) || BN_one(e.get()) == 1) &&
                    BN_mod_inverse(v.get(), e.get(), q, ctx.get()) != nullptr &&
                    BN_mod_mul(z1.get(), s.get(), v.get(), q, ctx.get()) == 1 &&
                    BN_mod_mul(z2.get(), r.get(), v.get(), q, ctx.get()) == 1 &&
                    BN_mod_sub(z2.get(), q, z2.get(), q, ctx.get()) == 1 &&
                    EC_POINT_mul(group, c.get(), z1.get(), key.get(), z2.get(), ctx.get()) == 1 &&
                    !EC_POINT_is_at_infinity(group, c.get()) &&
                    EC_POINT_get_affine_coordinates(group, c.get(), x.get(), nullptr, ctx.get()) == 1 &&
                    BN_nnmod(x.get(), x.get(), q, ctx.get()) == 1;
    return ok && BN_cmp(x.get(), r.get()) == 0;
}

bool gost_verify(const X509_PUBKEY* key, const unsigned char* digest, size_t digestLength,
                 const unsigned char* signature, size_t signatureLength) {
    const unsigned char* bits = nullptr;
    int bitsLength = 0;
    X509_ALGOR* algorithm = nullptr;
    if (X509_PUBKEY_get0_param(nullptr, &bits, &bitsLength, &algorithm, const_cast<X509_PUBKEY*>(key)) != 1)
        return false;
    // The parameters are a SEQUENCE whose first member names the curve; the key is an OCTET STRING.
    int type = 0;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    if (type != V_ASN1_SEQUENCE) return false;
    const auto* sequence = static_cast<const ASN1_STRING*>(value);
    const unsigned char* p = ASN1_STRING_get0_data(sequence);
    using sequence_ptr = std::unique_ptr<ASN1_SEQUENCE_ANY, void (*)(ASN1_SEQUENCE_ANY*)>;
    sequence_ptr members(d2i_ASN1_SEQUENCE_ANY(nullptr, &p, ASN1_STRING_length(sequence)),
                         [](ASN1_SEQUENCE_ANY* s) { sk_ASN1_TYPE_pop_free(s, ASN1_TYPE_free); });
    const ASN1_TYPE* first = members ? sk_ASN1_TYPE_value(members.get(), 0) : nullptr;
    char oid[64] = "";
    if (first == nullptr || first->type != V_ASN1_OBJECT ||
        OBJ_obj2txt(oid, sizeof oid, first->value.object, 1) <= 0)
        return false;
    const gost_curve* curve = gost_curve_by_oid(oid);
    using octets_ptr =
        std::unique_ptr<ASN1_OCTET_STRING, ossl::Deleter<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;
    octets_ptr point(d2i_ASN1_OCTET_STRING(nullptr, &bits, bitsLength));
    return curve != nullptr && point &&
           gost_verify(*curve, ASN1_STRING_get0_data(point.get()),
                       static_cast<size_t>(ASN1_STRING_length(point.get())), digest, digestLength, signature,
                       signatureLength);
}

}  // namespace p11
