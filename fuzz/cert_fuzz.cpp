// Certificates from arbitrary DER, built the way Session::create_cert builds them from a
// token's certificate object, then read as a host reads them. The input's last bytes also
// fill the token's texts, which every certificate converts.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <openssl/err.h>
#include <openssl/x509.h>

#include "Certificate.h"
#include "p11.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

void readMap(const p11::name_map& map, size_t bound) {
    for (const auto& entry : map) {
        check(!entry.first.empty());
        check(entry.second.size() <= bound);
        // A value ends at its first zero character.
        check(entry.second.find(L'\0') == std::wstring::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto info = std::make_shared<CK_TOKEN_INFO>();
    std::memset(info.get(), ' ', sizeof *info);
    unsigned char* texts[] = {info->label, info->manufacturerID, info->model, info->serialNumber};
    const size_t widths[] = {sizeof info->label, sizeof info->manufacturerID, sizeof info->model,
                             sizeof info->serialNumber};
    size_t from = size > 96 ? size - 96 : 0;
    for (size_t i = 0; i < 4 && from < size; ++i) {
        const size_t n = std::min(widths[i], size - from);
        std::memcpy(texts[i], data + from, n);
        from += n;
    }

    const unsigned char* p = data;
    std::unique_ptr<X509, void (*)(X509*)> x509(d2i_X509(nullptr, &p, static_cast<long>(size)), X509_free);
    if (!x509) {
        ERR_clear_error();
        return 0;
    }
    std::string label = "fuzz";
    p11::Certificate::id_type id(std::make_unique<unsigned char[]>(2), 2);
    try {
        auto cert = std::make_shared<p11::Certificate>(std::weak_ptr<p11::Session>(), label, x509, id, info);
        check(!x509 && !id.first);  // taken over only on success
        readMap(cert->getSubject(), size);
        readMap(cert->getIssuer(), size);
        readMap(cert->getTokenInfo(), 32);
        check(cert->getTokenInfo().size() == 4);
        check(!cert->getNotBeforeStr().empty() && !cert->getNotAfterStr().empty());
        const std::string serial = cert->getSerialNumber();
        check(serial.find_first_not_of("-0123456789") == std::string::npos);
        (void)cert->getKeyUsage();
        (void)cert->get_public_key();
        // Its session never existed: signing must fail cleanly.
        try {
            cert->signOnIt(nullptr, "data", true);
            check(false);
        } catch (const p11::process_error& e) {
            check(e.code() == 12);
        }
    } catch (const p11::process_error& e) {
        check(e.code() == 210);   // a validity time that cannot be printed
        check(x509 && id.first);  // still the caller's
    }
    ERR_clear_error();
    return 0;
}
