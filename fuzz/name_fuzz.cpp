// X.509 names decoded into the host's maps, with values of every ASN.1 string type: names
// built entry by entry from the input (first byte even), or decoded from it as DER (odd).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "Certificate.h"
#include "p11.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

const int kTypes[16] = {
    V_ASN1_PRINTABLESTRING, V_ASN1_UTF8STRING,      V_ASN1_BMPSTRING,     V_ASN1_T61STRING,
    V_ASN1_NUMERICSTRING,   V_ASN1_UNIVERSALSTRING, V_ASN1_IA5STRING,     V_ASN1_VISIBLESTRING,
    V_ASN1_GENERALSTRING,   V_ASN1_VIDEOTEXSTRING,  V_ASN1_GRAPHICSTRING, V_ASN1_OCTET_STRING,
    V_ASN1_UTCTIME,         V_ASN1_BIT_STRING,      V_ASN1_INTEGER,       V_ASN1_GENERALIZEDTIME};

// Short names OpenSSL knows, Russian identity attributes, and numbers without a name.
class Fields {
public:
    Fields() {
        for (const char* f : {"CN", "O", "OU", "C", "L", "ST", "emailAddress", "serialNumber", "street",
                              "title", "1.2.643.3.131.1.1", "1.2.643.100.1", "1.2.643.100.3", "1.2.3.4.5",
                              "2.5.4.42", "1.2.840.113549.1.9.999"})
            all_.push_back(OBJ_txt2obj(f, 0));
    }
    ~Fields() {
        for (ASN1_OBJECT* o : all_) ASN1_OBJECT_free(o);
    }
    ASN1_OBJECT* pick(uint8_t selector) const { return all_[selector % all_.size()]; }

private:
    std::vector<ASN1_OBJECT*> all_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Fields fields;
    if (size == 0) return 0;
    X509_NAME* name = nullptr;
    if (data[0] & 1) {
        const unsigned char* p = data + 1;
        name = d2i_X509_NAME(nullptr, &p, static_cast<long>(size - 1));
    } else {
        name = X509_NAME_new();
        size_t at = 1;
        while (at + 3 <= size) {
            const int type = kTypes[data[at] % 16];
            ASN1_OBJECT* field = fields.pick(data[at + 1]);
            size_t length = data[at + 2];
            at += 3;
            if (length > size - at) length = size - at;
            // A plain type (not an MBSTRING_ flag) stores the bytes as given, unchecked.
            X509_NAME_add_entry_by_OBJ(name, field, type, data + at, static_cast<int>(length), -1, 0);
            at += length;
        }
    }
    if (name != nullptr) {
        p11::name_map map;
        p11::parseX509Name(name, map);
        check(map.size() <= static_cast<size_t>(X509_NAME_entry_count(name)));
        for (const auto& entry : map) {
            check(!entry.first.empty());
            check(entry.second.size() <= size);
            check(entry.second.find(L'\0') == std::wstring::npos);
        }
        X509_NAME_free(name);
    }
    ERR_clear_error();
    return 0;
}
