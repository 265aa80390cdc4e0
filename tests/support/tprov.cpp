// The test token: SoftHSM2's function list with entries swapped, so that a real token answers
// and a test decides where it fails or lies; plus GOST identities, which SoftHSM2 cannot hold.
// Read from the environment at C_GetFunctionList and C_Initialize:
//   ZORVO_TP_UNDER  the provider underneath (default: SoftHSM2)
//   ZORVO_TP        comma-separated rules:
//     F@N=RV      the N-th call of F ('*': of any function) answers RV without reaching the
//                 token, and so do calls of the same function right after it (a retry)
//     F@N+=RV     every call of F from the N-th on answers RV
//     init=RV     C_Initialize initialises, then answers RV
//     fl=RV       C_GetFunctionList answers RV;  null=F|G  F and G are missing from the list
//     count=N     slot list length queries answer N;  mechs=N  mechanism list ones do
//     tokenflags=F  the token information has the flags F set too
//     gone=N      from the N-th C_GetSlotList on, no slot holds a token (it was pulled out)
//     attrlen=N   attribute length queries answer N;  attrover=N  reads report N bytes more
//     endless     an object search never ends
//     gostlong    GOST keys carry another CKA_ID than their certificates
//   ZORVO_TP_GOST   a directory of NAME.cert.pem and NAME.key.hex (private scalar, big-endian):
//                   each becomes a certificate, a private key and a public key on every token
//   ZORVO_TP_LOG    a file that gets "NAME RV" for every call
#include <dirent.h>
#include <dlfcn.h>
#include <gcrypt.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
constexpr CK_OBJECT_HANDLE kBase = 0x7A000000;
constexpr CK_KEY_TYPE kGost512 = 0xD4321003;
constexpr CK_MECHANISM_TYPE kSign512 = 0xD4321006;

struct Rule {
    std::string fn;
    unsigned long n;
    bool from;
    CK_RV rv;
};
std::vector<Rule> rules;
std::map<std::string, std::string> options;
std::map<std::string, unsigned long> calls;
std::string retryFn;
CK_RV retryRv = 0;

void* underLib = nullptr;
CK_FUNCTION_LIST_PTR under = nullptr;
CK_FUNCTION_LIST list;

struct Object {
    std::map<CK_ATTRIBUTE_TYPE, Bytes> attrs;
    std::string curve;  // a private GOST key: libgcrypt's curve and the scalar
    Bytes d;
};
std::vector<Object> objects;
std::map<CK_SESSION_HANDLE, std::vector<CK_OBJECT_HANDLE>> pending;
std::map<CK_SESSION_HANDLE, CK_OBJECT_HANDLE> signing;
CK_OBJECT_HANDLE lastFound = 0;

unsigned long number(const std::string& s) { return std::strtoul(s.c_str(), nullptr, 0); }
bool has(const char* option) { return options.count(option) != 0; }

void configure() {
    rules.clear();
    options.clear();
    const char* text = std::getenv("ZORVO_TP");
    std::string all = text ? text : "";
    for (size_t at = 0; at < all.size();) {
        size_t end = std::min(all.find(',', at), all.size());
        std::string item = all.substr(at, end - at), value;
        at = end + 1;
        if (size_t eq = item.find('='); eq != std::string::npos) value = item.substr(eq + 1), item.resize(eq);
        if (size_t mark = item.find('@'); mark != std::string::npos) {
            const bool from = item.back() == '+';
            rules.push_back({item.substr(0, mark), number(item.substr(mark + 1)), from, number(value)});
        } else {
            options[item] = value;
        }
    }
}

std::optional<CK_RV> injected(const std::string& fn) {
    if (fn == retryFn) return retryRv;
    retryFn.clear();
    for (const Rule& r : rules) {
        if (r.fn != fn && r.fn != "*") continue;
        const unsigned long n = calls[r.fn];
        if (n == r.n || (r.from && n > r.n)) {
            retryFn = fn;
            retryRv = r.rv;
            return r.rv;
        }
    }
    return std::nullopt;
}

template <typename Body>
CK_RV hook(const char* fn, Body&& body) {
    ++calls[fn];
    ++calls["*"];
    const std::optional<CK_RV> fault = injected(fn);
    const CK_RV rv = fault ? *fault : body();
    if (const char* path = std::getenv("ZORVO_TP_LOG")) {
        if (FILE* f = std::fopen(path, "a")) {
            std::fprintf(f, "%s 0x%lx\n", fn, rv);
            std::fclose(f);
        }
    }
    return rv;
}

Bytes ulong_bytes(CK_ULONG v) {
    return Bytes(reinterpret_cast<unsigned char*>(&v), reinterpret_cast<unsigned char*>(&v) + sizeof v);
}
Object* virtual_object(CK_OBJECT_HANDLE h) {
    return h >= kBase && h - kBase < objects.size() ? &objects[h - kBase] : nullptr;
}

// libgcrypt names the twisted Edwards curve only by name, not by its OID.
std::string gcry_curve(const std::string& oid) {
    return oid == "1.2.643.7.1.2.1.1.1" ? "GOST2012-256-A" : oid;
}

void add_identity(const std::string& dir, const std::string& name, unsigned char id) {
    ERR_set_mark();  // the library reads OpenSSL's error queue: leave nothing of ours there
    FILE* f = std::fopen((dir + "/" + name + ".cert.pem").c_str(), "r");
    X509* x = f ? PEM_read_X509(f, nullptr, nullptr, nullptr) : nullptr;
    if (f) std::fclose(f);
    if (!x) return (void)ERR_pop_to_mark();
    unsigned char* der = nullptr;
    const int derLen = i2d_X509(x, &der);
    ASN1_OBJECT* alg = nullptr;
    const unsigned char* bits = nullptr;
    int bitsLen = 0;
    X509_ALGOR* param = nullptr;
    X509_PUBKEY_get0_param(&alg, &bits, &bitsLen, &param, X509_get_X509_PUBKEY(x));
    ASN1_OCTET_STRING* octets = d2i_ASN1_OCTET_STRING(nullptr, &bits, bitsLen);
    const void* pval = nullptr;
    int ptype = 0;
    X509_ALGOR_get0(nullptr, &ptype, &pval, param);
    // The parameters are a SEQUENCE whose first element is the curve's OID.
    char oid[64] = "";
    if (ptype == V_ASN1_SEQUENCE) {
        const unsigned char* p = ASN1_STRING_get0_data(static_cast<const ASN1_STRING*>(pval)) + 2;
        if (ASN1_OBJECT* curve = d2i_ASN1_OBJECT(nullptr, &p, 32)) {
            OBJ_obj2txt(oid, sizeof oid, curve, 1);
            ASN1_OBJECT_free(curve);
        }
    }
    const CK_KEY_TYPE type = OBJ_obj2nid(alg) == NID_id_GostR3410_2012_512 ? kGost512 : CKK_GOSTR3410;
    std::ifstream hex(dir + "/" + name + ".key.hex");
    std::string digits;
    hex >> digits;
    if (digits.size() % 2) digits.insert(0, "0");
    Bytes d;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        d.push_back(static_cast<unsigned char>(number("0x" + digits.substr(i, 2))));
    const Bytes label(name.begin(), name.end()), certId{id},
        keyId{static_cast<unsigned char>(has("gostlong") ? id + 0x10 : id)};
    objects.push_back({{{CKA_CLASS, ulong_bytes(CKO_CERTIFICATE)},
                        {CKA_ID, certId},
                        {CKA_LABEL, label},
                        {CKA_VALUE, Bytes(der, der + derLen)}},
                       "",
                       {}});
    objects.push_back({{{CKA_CLASS, ulong_bytes(CKO_PRIVATE_KEY)},
                        {CKA_ID, keyId},
                        {CKA_LABEL, label},
                        {CKA_KEY_TYPE, ulong_bytes(type)}},
                       gcry_curve(oid),
                       d});
    objects.push_back({{{CKA_CLASS, ulong_bytes(CKO_PUBLIC_KEY)},
                        {CKA_ID, keyId},
                        {CKA_LABEL, label},
                        {CKA_KEY_TYPE, ulong_bytes(type)},
                        {CKA_VALUE, octets ? Bytes(ASN1_STRING_get0_data(octets),
                                                   ASN1_STRING_get0_data(octets) + ASN1_STRING_length(octets))
                                           : Bytes()}},
                       "",
                       {}});
    ASN1_OCTET_STRING_free(octets);
    OPENSSL_free(der);
    X509_free(x);
    ERR_pop_to_mark();
}

void load_identities() {
    objects.clear();
    const char* dir = std::getenv("ZORVO_TP_GOST");
    DIR* d = dir ? opendir(dir) : nullptr;
    if (!d) return;
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        std::string file = e->d_name;
        if (file.size() > 9 && file.compare(file.size() - 9, 9, ".cert.pem") == 0)
            names.push_back(file.substr(0, file.size() - 9));
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (size_t i = 0; i < names.size(); ++i)
        add_identity(dir, names[i], static_cast<unsigned char>(0x21 + i));
}

bool matches(const Object& o, const CK_ATTRIBUTE* tmpl, CK_ULONG n) {
    for (CK_ULONG i = 0; i < n; ++i) {
        auto it = o.attrs.find(tmpl[i].type);
        const auto* v = static_cast<const unsigned char*>(tmpl[i].pValue);
        if (it == o.attrs.end() || it->second != Bytes(v, v + tmpl[i].ulValueLen)) return false;
    }
    return true;
}

// Big-endian value of element `name` of `s`, right-aligned in `size` bytes.
bool mpi_bytes(gcry_sexp_t s, const char* name, unsigned char* out, size_t size) {
    gcry_sexp_t token = gcry_sexp_find_token(s, name, 0);
    gcry_mpi_t m = token ? gcry_sexp_nth_mpi(token, 1, GCRYMPI_FMT_USG) : nullptr;
    size_t n = 0;
    const bool ok = m && gcry_mpi_print(GCRYMPI_FMT_USG, out, size, &n, m) == 0;
    if (ok) std::copy_backward(out, out + n, out + size), std::fill(out, out + size - n, 0);
    gcry_mpi_release(m);
    gcry_sexp_release(token);
    return ok;
}

// A GOST R 34.10 signature as tokens give it: s || r, of the digest read as a little-endian number.
CK_RV gost_sign(const Object& key, const unsigned char* digest, CK_ULONG len, unsigned char* out) {
    const size_t size = key.d.size() > 32 ? 64 : 32;
    if (len != size) return CKR_DATA_LEN_RANGE;
    Bytes e(digest, digest + len);
    std::reverse(e.begin(), e.end());
    gcry_sexp_t k = nullptr, data = nullptr, sig = nullptr;
    const bool ok =
        gcry_sexp_build(&k, nullptr, "(private-key (ecc (curve %s) (d %b)))", key.curve.c_str(),
                        int(key.d.size()), key.d.data()) == 0 &&
        gcry_sexp_build(&data, nullptr, "(data (flags gost) (value %b))", int(e.size()), e.data()) == 0 &&
        gcry_pk_sign(&sig, data, k) == 0 && mpi_bytes(sig, "s", out, size) &&
        mpi_bytes(sig, "r", out + size, size);
    gcry_sexp_release(k), gcry_sexp_release(data), gcry_sexp_release(sig);
    return ok ? CKR_OK : CKR_FUNCTION_FAILED;
}

CK_RV w_Initialize(void* args) {
    configure();
    calls.clear();
    retryFn.clear();
    pending.clear();
    signing.clear();
    load_identities();
    return hook("C_Initialize", [&] {
        CK_RV rv = under->C_Initialize(args);
        return rv == CKR_OK && has("init") ? number(options["init"]) : rv;
    });
}

CK_RV counted(CK_RV rv, const void* list, CK_ULONG* count, const char* option) {
    if (rv == CKR_OK && !list && has(option)) *count = number(options[option]);
    return rv;
}
CK_RV w_GetSlotList(CK_BBOOL present, CK_SLOT_ID* ids, CK_ULONG* count) {
    return hook("C_GetSlotList", [&] {
        if (has("gone") && calls["C_GetSlotList"] >= number(options["gone"])) return *count = 0, CKR_OK;
        return counted(under->C_GetSlotList(present, ids, count), ids, count, "count");
    });
}
CK_RV w_GetMechanismList(CK_SLOT_ID slot, CK_MECHANISM_TYPE* types, CK_ULONG* count) {
    return hook("C_GetMechanismList", [&] {
        return counted(under->C_GetMechanismList(slot, types, count), types, count, "mechs");
    });
}
CK_RV w_GetTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO* info) {
    return hook("C_GetTokenInfo", [&] {
        const CK_RV rv = under->C_GetTokenInfo(id, info);
        if (rv == CKR_OK) info->flags |= number(options["tokenflags"]);
        return rv;
    });
}

CK_RV w_GetAttributeValue(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE h, CK_ATTRIBUTE* tmpl, CK_ULONG n) {
    return hook("C_GetAttributeValue", [&] {
        CK_RV rv = CKR_OK;
        if (const Object* o = virtual_object(h)) {
            for (CK_ULONG i = 0; i < n; ++i) {
                auto it = o->attrs.find(tmpl[i].type);
                if (it == o->attrs.end()) {
                    tmpl[i].ulValueLen = CK_UNAVAILABLE_INFORMATION;
                    rv = CKR_ATTRIBUTE_TYPE_INVALID;
                } else if (tmpl[i].pValue && tmpl[i].ulValueLen < it->second.size()) {
                    tmpl[i].ulValueLen = CK_UNAVAILABLE_INFORMATION;
                    rv = CKR_BUFFER_TOO_SMALL;
                } else {
                    if (tmpl[i].pValue) std::memcpy(tmpl[i].pValue, it->second.data(), it->second.size());
                    tmpl[i].ulValueLen = it->second.size();
                }
            }
        } else {
            rv = under->C_GetAttributeValue(s, h, tmpl, n);
        }
        for (CK_ULONG i = 0; rv == CKR_OK && i < n; ++i) {
            if (!tmpl[i].pValue && has("attrlen")) tmpl[i].ulValueLen = number(options["attrlen"]);
            if (tmpl[i].pValue && has("attrover")) tmpl[i].ulValueLen += number(options["attrover"]);
        }
        return rv;
    });
}

CK_RV w_FindObjectsInit(CK_SESSION_HANDLE s, CK_ATTRIBUTE* tmpl, CK_ULONG n) {
    return hook("C_FindObjectsInit", [&] {
        CK_RV rv = under->C_FindObjectsInit(s, tmpl, n);
        if (rv == CKR_OK) {
            pending[s].clear();
            for (size_t i = 0; i < objects.size(); ++i)
                if (matches(objects[i], tmpl, n)) pending[s].push_back(kBase + i);
        }
        return rv;
    });
}
CK_RV w_FindObjects(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE* out, CK_ULONG max, CK_ULONG* count) {
    return hook("C_FindObjects", [&] {
        CK_RV rv = under->C_FindObjects(s, out, max, count);
        auto& more = pending[s];
        for (; rv == CKR_OK && *count < max && !more.empty(); more.erase(more.begin()))
            out[(*count)++] = more.front();
        if (rv == CKR_OK && *count == 0 && max > 0 && has("endless")) out[(*count)++] = lastFound;
        if (rv == CKR_OK && *count > 0) lastFound = out[0];
        return rv;
    });
}
CK_RV w_FindObjectsFinal(CK_SESSION_HANDLE s) {
    return hook("C_FindObjectsFinal", [&] {
        pending.erase(s);
        return under->C_FindObjectsFinal(s);
    });
}

CK_RV w_SignInit(CK_SESSION_HANDLE s, CK_MECHANISM* m, CK_OBJECT_HANDLE key) {
    return hook("C_SignInit", [&] {
        const Object* o = virtual_object(key);
        if (!o) return under->C_SignInit(s, m, key);
        if (o->curve.empty()) return CKR_KEY_FUNCTION_NOT_PERMITTED;
        if (m->mechanism != (o->d.size() > 32 ? kSign512 : CKM_GOSTR3410)) return CKR_MECHANISM_INVALID;
        signing[s] = key;
        return CKR_OK;
    });
}
CK_RV w_Sign(CK_SESSION_HANDLE s, CK_BYTE* data, CK_ULONG len, CK_BYTE* sig, CK_ULONG* siglen) {
    return hook("C_Sign", [&] {
        auto it = signing.find(s);
        if (it == signing.end()) return under->C_Sign(s, data, len, sig, siglen);
        const Object& key = *virtual_object(it->second);
        const CK_ULONG need = key.d.size() > 32 ? 128 : 64;
        if (!sig || *siglen < need) {
            const bool query = !sig;
            *siglen = need;
            return query ? CKR_OK : CKR_BUFFER_TOO_SMALL;
        }
        signing.erase(it);
        *siglen = need;
        return gost_sign(key, data, len, sig);
    });
}

#define PASS(NAME, PARAMS, ARGS)                                       \
    CK_RV w_##NAME PARAMS {                                            \
        return hook("C_" #NAME, [&] { return under->C_##NAME ARGS; }); \
    }
PASS(Finalize, (void* p), (p))
PASS(GetSlotInfo, (CK_SLOT_ID id, CK_SLOT_INFO* info), (id, info))
PASS(GetMechanismInfo, (CK_SLOT_ID id, CK_MECHANISM_TYPE t, CK_MECHANISM_INFO* info), (id, t, info))
PASS(OpenSession, (CK_SLOT_ID id, CK_FLAGS f, void* app, CK_NOTIFY cb, CK_SESSION_HANDLE* s),
     (id, f, app, cb, s))
PASS(CloseSession, (CK_SESSION_HANDLE s), (s))
PASS(GetSessionInfo, (CK_SESSION_HANDLE s, CK_SESSION_INFO* info), (s, info))
PASS(Login, (CK_SESSION_HANDLE s, CK_USER_TYPE u, CK_UTF8CHAR* pin, CK_ULONG len), (s, u, pin, len))
PASS(Logout, (CK_SESSION_HANDLE s), (s))

struct Entry {
    const char* name;
    size_t offset;
    void* wrapper;
};
#define ENTRY(NAME) \
    { "C_" #NAME, offsetof(CK_FUNCTION_LIST, C_##NAME), reinterpret_cast<void*>(&w_##NAME) }
const Entry entries[] = {ENTRY(Initialize),        ENTRY(Finalize),        ENTRY(GetSlotList),
                         ENTRY(GetSlotInfo),       ENTRY(GetTokenInfo),    ENTRY(GetMechanismList),
                         ENTRY(GetMechanismInfo),  ENTRY(OpenSession),     ENTRY(CloseSession),
                         ENTRY(GetSessionInfo),    ENTRY(Login),           ENTRY(Logout),
                         ENTRY(GetAttributeValue), ENTRY(FindObjectsInit), ENTRY(FindObjects),
                         ENTRY(FindObjectsFinal),  ENTRY(SignInit),        ENTRY(Sign)};

__attribute__((destructor)) void unload() {
    if (underLib) dlclose(underLib);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR out) {
    configure();
    if (has("fl")) return number(options["fl"]);
    if (!underLib) {
        const char* path = std::getenv("ZORVO_TP_UNDER");
        underLib = dlopen(path ? path : "/usr/lib/softhsm/libsofthsm2.so", RTLD_NOW | RTLD_LOCAL);
        auto get =
            underLib ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(underLib, "C_GetFunctionList")) : nullptr;
        if (!get || get(&under) != CKR_OK) return CKR_GENERAL_ERROR;
        // libgcrypt keeps what it allocated at start in its globals: it stays loaded after us,
        // or LeakSanitizer would see that memory lost.
        dlopen("libgcrypt.so.20", RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
        gcry_check_version(nullptr);
    }
    list = *under;
    const std::string missing = "|" + (has("null") ? options["null"] : "") + "|";
    for (const Entry& e : entries) {
        void* entry =
            missing.find(std::string("|") + e.name + "|") == std::string::npos ? e.wrapper : nullptr;
        std::memcpy(reinterpret_cast<char*>(&list) + e.offset, &entry, sizeof entry);
    }
    *out = &list;
    return CKR_OK;
}
