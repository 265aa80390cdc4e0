#include "Certificate.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "enc_converter.h"
#include "log.h"
#include "ossl_ptr.h"
#include "p11.h"

namespace p11 {

namespace {

using wide_converter = utils::encoding::enc_converter<unsigned char, wchar_t>;
using byte_converter = utils::encoding::enc_converter<unsigned char, char>;
using bit_string_ptr = std::unique_ptr<ASN1_BIT_STRING, ossl::Deleter<ASN1_BIT_STRING, ASN1_BIT_STRING_free>>;

// Output area for the stack-buffer conversions: short texts stay on the stack, while an
// oversized value (nothing bounds a certificate's names) goes to the heap instead of
// growing the stack without limit.
class wide_area {
public:
    explicit wide_area(size_t chars) {
        if (chars > local_.size()) heap_ = std::make_unique<wchar_t[]>(chars);
    }
    wchar_t* data() { return heap_ ? heap_.get() : local_.data(); }

private:
    std::array<wchar_t, 256> local_;
    std::unique_ptr<wchar_t[]> heap_;
};

// One conversion into `capacity` characters. The value ends at what the converter produced
// (an invalid sequence cuts it there) and at its first zero character.
std::wstring convert(wide_converter& converter, const unsigned char* in, size_t length, wchar_t* out,
                     size_t capacity) {
    size_t inLeft = length;
    size_t outLeft = capacity * sizeof(wchar_t);
    // iconv takes a null input as a reset request, so empty values never reach it.
    if (length > 0 && in != nullptr) converter.conv(const_cast<unsigned char*>(in), &inLeft, out, &outLeft);
    const size_t produced = capacity - outLeft / sizeof(wchar_t);
    return std::wstring(out, std::find(out, out + produced, L'\0'));
}

std::wstring convert_on_heap(wide_converter& converter, const unsigned char* in, size_t length,
                             size_t capacity) {
    std::vector<wchar_t> out(capacity + 1);
    return convert(converter, in, length, out.data(), capacity);
}

std::string entry_key(const X509_NAME_ENTRY* entry) {
    const ASN1_OBJECT* object = X509_NAME_ENTRY_get_object(entry);
    const int nid = OBJ_obj2nid(object);
    if (nid != NID_undef) {
        if (const char* shortName = OBJ_nid2sn(nid)) return shortName;
    }
    char text[80] = {};
    i2t_ASN1_OBJECT(text, sizeof text, object);
    return text;
}

}  // namespace

Certificate::Certificate(std::weak_ptr<Session> owner, std::string& objectLabel,
                         std::unique_ptr<X509, void (*)(X509*)>& x509Owner, id_type& idOwner,
                         std::shared_ptr<CK_TOKEN_INFO> info)
    : label(objectLabel), session(std::move(owner)) {
    // Everything below may throw; until the last step the caller keeps the X509 and the id.
    X509* cert = x509Owner.get();

    // OpenSSL 4 hands these out const; nothing here writes to them.
    parseX509Name(const_cast<X509_NAME*>(X509_get_subject_name(cert)), subject);
    parseX509Name(const_cast<X509_NAME*>(X509_get_issuer_name(cert)), issuer);
    parseTokenInfo(info, tokenInfo);

    ossl::bn_ptr serial(ASN1_INTEGER_to_BN(X509_get_serialNumber(cert), nullptr));
    if (serial) {
        std::unique_ptr<char, void (*)(void*)> text(BN_bn2dec(serial.get()), OPENSSL_freeFunc);
        if (text) serialNumber = text.get();
    }

    notBefore = convert_ASN1TIME(X509_getm_notBefore(cert));
    notAfter = convert_ASN1TIME(X509_getm_notAfter(cert));
    parseKeyUsage(cert, &keyUsage);

    x509.reset(x509Owner.release());
    id.first = std::move(idOwner.first);
    id.second = idOwner.second;
}

Certificate::~Certificate() {
    // The certificate goes first, then its identifier, then the rest.
    x509.reset();
    id.first.reset();
}

X509_PUBKEY* Certificate::get_public_key() const {
    return const_cast<X509_PUBKEY*>(X509_get_X509_PUBKEY(x509.get()));
}

std::string convert_ASN1TIME(ASN1_TIME* time) {
    ossl::bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio || time == nullptr || ASN1_TIME_print(bio.get(), time) < 1)
        throw process_error(210, "ASN1_TIME_print failed or wrote no data.");
    char text[128] = {};
    if (BIO_gets(bio.get(), text, sizeof text) > 0) return text;
    throw process_error(210, "BIO_gets call failed to transfer contents to buf");
}

void parseKeyUsage(X509* x509, std::bitset<9>* bits) {
    const int index = X509_get_ext_by_NID(x509, NID_key_usage, -1);
    // Const in OpenSSL 4, not before; only read.
    X509_EXTENSION* extension = index < 0 ? nullptr : const_cast<X509_EXTENSION*>(X509_get_ext(x509, index));
    if (extension == nullptr) return;

    const ASN1_OCTET_STRING* contents = X509_EXTENSION_get_data(extension);
    const unsigned char* p = ASN1_STRING_get0_data(contents);
    bit_string_ptr bitString(p ? d2i_ASN1_BIT_STRING(nullptr, &p, ASN1_STRING_length(contents)) : nullptr);
    for (size_t n = 0; n < bits->size(); ++n)
        bits->set(n, bitString && ASN1_BIT_STRING_get_bit(bitString.get(), static_cast<int>(n)) != 0);
}

void parseX509Name(X509_NAME* name, name_map& map) {
    // All five exist before any entry is read, so a missing character set fails the whole name.
    // No value is converted to UTF-8, but that converter is still required to exist.
    const auto utf16ToUtf8 = byte_converter::create("UTF-16BE", "UTF-8");
    const auto utf16 = wide_converter::create("UTF-16BE", "WCHAR_T");
    const auto utf8 = wide_converter::create("UTF-8", "WCHAR_T");
    const auto ascii = wide_converter::create("US-ASCII", "WCHAR_T");
    const auto cyrillic = wide_converter::create("WINDOWS-1251", "WCHAR_T");

    const int count = X509_NAME_entry_count(name);
    for (int i = 0; i < count; ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        if (entry == nullptr) continue;
        const std::string key = entry_key(entry);

        const ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
        const int type = ASN1_STRING_type(data);
        const int signedLength = ASN1_STRING_length(data);
        const size_t length = signedLength > 0 ? static_cast<size_t>(signedLength) : 0;
        const unsigned char* value = ASN1_STRING_get0_data(data);

        switch (type) {
            case V_ASN1_NUMERICSTRING:
            case V_ASN1_PRINTABLESTRING:
            case V_ASN1_IA5STRING:
            case V_ASN1_VISIBLESTRING:
            case V_ASN1_GENERALSTRING:
                map[key] = convert_on_heap(*ascii, value, length, length);
                break;
            case V_ASN1_T61STRING:
                map[key] = convert_on_heap(*cyrillic, value, length, length);
                break;
            case V_ASN1_BMPSTRING:
                map[key] = convert_on_heap(*utf16, value, length, length / 2);
                break;
            case V_ASN1_UTF8STRING: {
                wide_area out(length + 1);
                map[key] = convert(*utf8, value, length, out.data(), length);
                break;
            }
            default:
                P11_ERROR(L"Can't parse [name=" << p11::bytes(key) << L", type=" << type << L"] loaded.");
                break;
        }
    }
}

void parseTokenInfo(std::shared_ptr<CK_TOKEN_INFO> info, name_map& map) {
    if (!info) return;
    // Whole fixed-width fields: the blank padding stays in the values.
    map["label"] = utf8ToWString(reinterpret_cast<char*>(info->label), sizeof info->label);
    map["manufacturerID"] =
        utf8ToWString(reinterpret_cast<char*>(info->manufacturerID), sizeof info->manufacturerID);
    map["model"] = utf8ToWString(reinterpret_cast<char*>(info->model), sizeof info->model);
    map["serialNumber"] =
        utf8ToWString(reinterpret_cast<char*>(info->serialNumber), sizeof info->serialNumber);
}

std::wstring utf8ToWString(char* text, size_t length) {
    const auto converter = wide_converter::create("UTF-8", "WCHAR_T");
    wide_area out(length + 1);
    return convert(*converter, reinterpret_cast<unsigned char*>(text), length, out.data(), length);
}

}  // namespace p11
