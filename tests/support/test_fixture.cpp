#include "test_fixture.h"

#include "Certificate.h"
#include "p11_ossl.h"
#include "p11_ossl_eng.h"

void SigningTest::SetUp() {
    ProviderTest::SetUp();
    p11::reg_pkcs11_engine();
    p11::engine_in_use = false;  // the one-shot path keeps the claim for good
    token_ = std::make_unique<tp::Token>(3);
    testid::install(*token_, identity(), {0x11});
    module_ = load();
    slot_ = firstSlot(module_);
    session_ = slot_->openSession(0);
    cert_ = session_->enumerateCerts()->at(0);
}

void SigningTest::TearDown() {
    p11::engine_in_use = false;
    ProviderTest::TearDown();
}

const testid::Identity& SigningTest::identity() const {
    return GetParam() == "rsa" ? testid::rsa() : testid::gost(GetParam());
}
