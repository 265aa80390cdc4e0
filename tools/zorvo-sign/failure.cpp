#include "failure.h"

namespace zs {

const char kExitTable[] =
    "  0  success\n"
    "  1  internal error: a defect of zorvo-sign, or no memory left\n"
    "  2  usage error; no PIN, or an empty one\n"
    "  3  input or output file error (also: NUL byte or too much input for one-shot signing)\n"
    "  4  the PKCS#11 provider cannot be loaded or initialised (100, 101)\n"
    "  5  no token, or the token cannot be read (10-13, 102-107)\n"
    "  6  no such certificate, ambiguous selector, or a bad certificate (120-122, 210)\n"
    "  7  wrong PIN (201, 202)\n"
    "  8  login refused: PIN expired or locked, other login failure (200, 203, 204, 290)\n"
    "  9  no usable private key (108-110, 301, 302)\n"
    " 11  signing failed (300)\n"
    " 12  signature cancelled on the token (501; 300 with CKR_CANCEL from the token)\n"
    " 13  token removed\n"
    " 14  the signature does not verify (verify)\n";

Failure describe(int code, const std::string& message, bool tokenGone) {
    const std::string detail = " (" + std::to_string(code) + ": " + message + ")";
    if (tokenGone) return {kTokenRemoved, "token removed" + detail};
    struct Row {
        int code;
        Exit status;
        const char* text;
    };
    static const Row rows[] = {
        {10, kToken, "lost the provider"},
        {11, kToken, "lost the slot"},
        {12, kToken, "lost the session"},
        {13, kToken, "lost the certificate"},
        {100, kProvider, "cannot load the PKCS#11 provider"},
        {101, kProvider, "cannot initialise the PKCS#11 provider"},
        {102, kToken, "cannot list the slots"},
        {103, kToken, "cannot read the token information"},
        {104, kToken, "cannot read the token's mechanisms"},
        {105, kToken, "cannot open a session on the token"},
        {106, kToken, "cannot search the token"},
        {107, kToken, "cannot read an object on the token"},
        {108, kKey, "no private key for the certificate"},
        {109, kKey, "cannot use the private key"},
        {110, kKey, "unsupported key type"},
        {120, kCertificate, "bad certificate on the token"},
        {121, kCertificate, "bad certificate on the token"},
        {122, kCertificate, "certificate without an identifier on the token"},
        {200, kLoginRefused, "login failed"},
        {201, kWrongPin, "wrong PIN"},
        {202, kWrongPin, "invalid PIN"},
        {203, kLoginRefused, "PIN expired"},
        {204, kLoginRefused, "PIN locked"},
        {210, kCertificate, "bad validity date in a certificate"},
        {290, kLoginRefused, "the token is in use by another program (login conflict)"},
        {301, kKey, "cannot read the certificate's public key on the token"},
        {302, kKey, "cannot find the certificate's public key on the token"},
        {501, kCancelled, "signature cancelled on the token"},
    };
    if (code == 300) return {kSigning, "signing failed" + detail};
    for (const Row& r : rows)
        if (r.code == code) return {r.status, r.text + detail};
    return {kInternal, "library error" + detail};
}

}  // namespace zs
