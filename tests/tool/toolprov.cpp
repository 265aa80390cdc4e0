// A PKCS#11 provider for the zorvo-sign tests: the programmable test provider, filled at the
// first C_GetFunctionList with the tokens below, so that a separate process sees them.
//   ZORVO_TOOLPROV_DIR       holds rsa.key.pem and rsa.crt.der, made by the test script
//   ZORVO_TOOLPROV_SCENARIO  "" or one of: twins, pin-locked, cancel-on-sign, remove-on-sign
// Slot 1: token "Подпись", PIN kPin; certificates "signer" (RSA, id 0a0b), "gost"
// (GOST R 34.10-2012 256, id 21), "ec" (a P-256 key the library does not sign with, id 0c) and
// the label `odd "label"<TAB>x` (the RSA certificate again, id 0d, no key).
// twins: slot 2, token "second", with "signer" (id 0a0b) too.
#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "test_identities.h"
#include "test_openssl.h"
#include "testprov.h"

namespace {

const char kPin[] = "s3cret-PIN-7x!";
const CK_SLOT_ID kSlot = 1;

CK_FUNCTION_LIST g_list;

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

// Pulled out while it signs, as a user would pull a card.
CK_RV remove_on_sign(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR) {
    tp_remove_token(kSlot);
    return CKR_DEVICE_REMOVED;
}

void seed(const std::string& scenario) {
    const std::string dir = env("ZORVO_TOOLPROV_DIR");
    const std::string rsaKey = testssl::read_file(dir + "/rsa.key.pem");
    const std::string rsaDer = testssl::read_file(dir + "/rsa.crt.der");
    if (rsaKey.empty() || rsaDer.empty()) throw std::runtime_error("toolprov: no RSA identity in " + dir);
    const tp::Bytes der(rsaDer.begin(), rsaDer.end());

    tp_reset();
    tp::Token main(kSlot, "Подпись");
    main.pin(kPin);
    main.certificate(der, "signer", {0x0a, 0x0b});
    main.rsa_key({0x0a, 0x0b}, tp::bytes(rsaKey), "signer");
    testid::install(main, testid::gost("gost2012_256"), {0x21}, "gost");
    main.certificate(testid::gost("gost2012_256").certDer, "ec", {0x0c});
    main.private_key(CKK_EC, {0x0c}, "ec");
    main.certificate(der, "odd \"label\"\tx", {0x0d});
    if (scenario == "twins") {
        tp::Token second(2, "second");
        second.pin(kPin);
        second.certificate(der, "signer", {0x0a, 0x0b});
        second.rsa_key({0x0a, 0x0b}, tp::bytes(rsaKey), "signer");
    } else if (scenario == "pin-locked") {
        tp_fail_from("C_Login", 1, CKR_PIN_LOCKED);
    } else if (scenario == "cancel-on-sign") {
        tp_fail_from("C_Sign", 1, CKR_CANCEL);
    } else if (!scenario.empty() && scenario != "remove-on-sign") {
        throw std::runtime_error("toolprov: unknown scenario " + scenario);
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
    static const CK_RV ready = [] {
        // The test provider's own entry point: the one in this library would find itself.
        void* provider = dlopen(ZORVO_TESTPROV_PATH, RTLD_NOW | RTLD_NOLOAD);
        auto real =
            provider
                ? reinterpret_cast<CK_RV (*)(CK_FUNCTION_LIST_PTR_PTR)>(dlsym(provider, "C_GetFunctionList"))
                : nullptr;
        CK_FUNCTION_LIST_PTR inner = nullptr;
        if (real == nullptr || real(&inner) != CKR_OK) return CKR_GENERAL_ERROR;
        g_list = *inner;
        try {
            const std::string scenario = env("ZORVO_TOOLPROV_SCENARIO");
            seed(scenario);
            if (scenario == "remove-on-sign") g_list.C_Sign = remove_on_sign;
        } catch (const std::exception&) {
            return CKR_GENERAL_ERROR;
        }
        return CKR_OK;
    }();
    if (ready != CKR_OK) return ready;
    *list = &g_list;
    return CKR_OK;
}
