#include "Slot.h"

#include <gtest/gtest.h>

#include "Module.h"
#include "Session.h"
#include "test_fixture.h"
#include "test_log.h"

namespace {

class SlotTest : public ProviderTest {};

TEST_F(SlotTest, SlotInfoFailureIsCode105AfterTwoCalls) {
    tp::Token token(1);
    auto module = load();
    testlog::Capture log;
    tp_fail_from("C_GetSlotInfo", 1, CKR_SLOT_ID_INVALID);
    EXPECT_P11_ERROR(module->listTokenSlots(), 105, "failed to get slot info session");
    EXPECT_EQ(tp_call_count("C_GetSlotInfo"), 2);
    EXPECT_TRUE(log.contains(L"PKCS11 function C_GetSlotInfo() failed: rv = CKR_SLOT_ID_INVALID (3)"));
}

TEST_F(SlotTest, KeepsSlotInfoAndItsHighFlags) {
    tp::Token token(4);
    CK_SLOT_INFO info = tp::slot_info("reader", "maker", 0xC0000007ul);
    tp_set_slot_info(4, &info);
    auto slot = firstSlot(load());
    EXPECT_EQ(slot->info.flags, 0xC0000007ul);
    EXPECT_EQ(slot->highFlags, 3u);
    EXPECT_STREQ(p11::p11_utf8_to_local(slot->info.slotDescription, sizeof slot->info.slotDescription), "reader");
}

TEST_F(SlotTest, TokenInfoKeepsPaddedTexts) {
    tp::Token token(1, "My token");
    auto module = load();
    auto info = firstSlot(module)->readTokenInfo();
    EXPECT_EQ(std::string(reinterpret_cast<char*>(info->label), 32), "My token" + std::string(24, ' '));
}

TEST_F(SlotTest, TokenInfoFailureReusesTheSlotListMessage) {
    tp::Token token(1);
    auto module = load();
    auto slot = firstSlot(module);
    tp_fail_from("C_GetTokenInfo", 1, CKR_TOKEN_NOT_PRESENT);
    EXPECT_P11_ERROR(slot->readTokenInfo(), 103, "failed to get a number of list of slots");
    EXPECT_EQ(tp_call_count("C_GetTokenInfo"), 2);
}

TEST_F(SlotTest, MechanismsFilteredByAllRequestedFlags) {
    tp::Token token(1);
    token.mechanism(CKM_RSA_PKCS, CKF_SIGN | CKF_HW)
        .mechanism(CKM_SHA256, CKF_DIGEST)
        .mechanism(CKM_GOSTR3410, CKF_SIGN)
        .mechanism(CKM_RSA_PKCS, CKF_SIGN | CKF_HW);  // listed twice by the provider
    auto module = load();
    auto slot = firstSlot(module);
    using list = std::vector<unsigned long>;
    struct {
        CK_FLAGS flags;
        list expected;
        int info_calls;
    } cases[] = {
        {0, {CKM_RSA_PKCS, CKM_SHA256, CKM_GOSTR3410, CKM_RSA_PKCS}, 4},
        {CKF_SIGN, {CKM_RSA_PKCS, CKM_GOSTR3410, CKM_RSA_PKCS}, 4},
        {CKF_SIGN | CKF_HW, {CKM_RSA_PKCS, CKM_RSA_PKCS}, 4},
        {~CK_FLAGS(0), {}, 0},  // all bits: asks for nothing
    };
    for (const auto& c : cases) {
        tp_clear_log();
        EXPECT_EQ(*slot->geMechanisms(c.flags), c.expected) << std::hex << c.flags;
        EXPECT_EQ(tp_call_count("C_GetMechanismInfo"), c.info_calls);
    }
}

TEST_F(SlotTest, MechanismWithUnreadableInfoIsSkippedSilently) {
    tp::Token token(1);
    token.mechanism(CKM_RSA_PKCS).mechanism(CKM_GOSTR3410);
    auto module = load();
    auto slot = firstSlot(module);
    testlog::Capture log;
    tp_fail_nth("C_GetMechanismInfo", 1, CKR_MECHANISM_INVALID);
    EXPECT_EQ(*slot->geMechanisms(CKF_SIGN), std::vector<unsigned long>{CKM_GOSTR3410});
    EXPECT_TRUE(log.errors().empty());
}

TEST_F(SlotTest, MechanismListFailuresAreCode104) {
    for (unsigned failing : {1u, 2u}) {
        tp_reset();
        tp::Token token(1);
        token.mechanism(CKM_RSA_PKCS);
        auto module = load();
        auto slot = firstSlot(module);
        tp_fail_from("C_GetMechanismList", failing, CKR_DEVICE_ERROR);
        EXPECT_P11_ERROR(slot->geMechanisms(0), 104, "failed to get mechanizms");
        EXPECT_EQ(tp_call_count("C_GetMechanismList"), int(failing) + 1);
    }
}

TEST_F(SlotTest, NoMechanismsGivesEmptyList) {
    tp::Token token(1);
    auto module = load();
    EXPECT_TRUE(firstSlot(module)->geMechanisms(0)->empty());
}

TEST_F(SlotTest, EveryOperationFailsWithCode10OnceTheModuleIsGone) {
    tp::Token token(1);
    auto module = load();
    auto slot = firstSlot(module);
    module.reset();
    testlog::Capture log;
    EXPECT_P11_ERROR(slot->operator->(), 10, "failed to get module");
    EXPECT_P11_ERROR(slot->readTokenInfo(), 10, "failed to get module");
    EXPECT_P11_ERROR(slot->geMechanisms(0), 10, "failed to get module");
    EXPECT_P11_ERROR(slot->openSession(0), 10, "failed to get module");
    auto records = log.records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records[0].message, L"failed to get module");
    EXPECT_EQ(records[0].function, "const CK_FUNCTION_LIST* p11::Slot::operator->() const");
    EXPECT_EQ(records[1].function,
              "std::unique_ptr<_CK_TOKEN_INFO> p11::Slot::readTokenInfo()");
}

TEST_F(SlotTest, OpenSessionNeedsASharedOwner) {
    tp::Token token(1);
    auto module = load();
    p11::Slot slot(1, module);
    EXPECT_THROW(slot.openSession(0), std::bad_weak_ptr);
}

}  // namespace
