#include "Module.h"

#include <gtest/gtest.h>

#include "Slot.h"
#include "test_fixture.h"
#include "test_log.h"

namespace {

class ModuleTest : public ProviderTest {};

TEST_F(ModuleTest, MissingLibraryIsCode100AndLogged) {
    testlog::Capture log;
    ::testing::internal::CaptureStderr();
    EXPECT_P11_ERROR(p11::Module("/nonexistent/libp11.so", nullptr), 100, "failed to load p11 module");
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("sc_dlopen failed: "), std::string::npos);
    EXPECT_EQ(log.errors(), std::vector<std::wstring>{L"failed to load p11 module: /nonexistent/libp11.so"});
}

TEST_F(ModuleTest, FailedInitializeUnloadsAndIsCode101) {
    testlog::Capture log;
    tp_fail_nth("C_Initialize", 1, CKR_HOST_MEMORY);
    EXPECT_P11_ERROR(p11::Module(ZORVO_TESTPROV_PATH, nullptr), 101, "failed to initialize p11 module");
    EXPECT_EQ(tp::sequence(), "C_GetFunctionList,C_Initialize");
    EXPECT_EQ(log.errors(),
              std::vector<std::wstring>{L"PKCS11 function C_Initialize failed: rv = CKR_HOST_MEMORY (2)"});
}

TEST_F(ModuleTest, AlreadyInitializedProviderIsAccepted) {
    tp::Token token(5);
    CK_FUNCTION_LIST_PTR provider = nullptr;
    ASSERT_EQ(C_GetFunctionList(&provider), CKR_OK);
    ASSERT_EQ(provider->C_Initialize(nullptr), CKR_OK);  // another component got there first
    auto module = load();
    EXPECT_EQ(tp::call("C_Initialize", 1).rv, CKR_CRYPTOKI_ALREADY_INITIALIZED);
    EXPECT_EQ(module->listTokenSlots()->size(), 1u);
}

TEST_F(ModuleTest, InitArgsPassedThroughAndFinalizeOnceWithNull) {
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    {
        p11::Module module(ZORVO_TESTPROV_PATH, &args);
        EXPECT_EQ(tp_last_init_args(), &args);
    }
    EXPECT_EQ(tp_call_count("C_Finalize"), 1);
    EXPECT_EQ(tp::call("C_Finalize").null_ptr, 1);
}

TEST_F(ModuleTest, ListsOnlySlotsWithATokenInProviderOrder) {
    tp::Token b(7);
    tp_add_slot(3, nullptr);  // empty reader
    tp::Token a(1);
    auto slots = load()->listTokenSlots();
    ASSERT_EQ(slots->size(), 2u);
    EXPECT_EQ(slots->at(0)->id, 7u);
    EXPECT_EQ(slots->at(1)->id, 1u);
    EXPECT_EQ(tp::call("C_GetSlotList").flags, CK_TRUE);
}

TEST_F(ModuleTest, NoTokenGivesAnEmptyList) {
    tp_add_slot(1, nullptr);
    auto slots = load()->listTokenSlots();
    ASSERT_NE(slots, nullptr);
    EXPECT_TRUE(slots->empty());
}

TEST_F(ModuleTest, SlotListFailuresCallAgainToLog) {
    struct {
        unsigned failing_call;
        int calls;
        const char* message;
        const wchar_t* logged;
    } cases[] = {
        {1, 2, "failed to get a number of list of slots with token",
         L"PKCS11 function C_GetSlotList(NULL) failed: rv = CKR_DEVICE_ERROR (48)"},
        {2, 3, "failed to get a list of slotsWithToken with token",
         L"PKCS11 function C_GetSlotList() failed: rv = CKR_DEVICE_ERROR (48)"},
    };
    for (const auto& c : cases) {
        tp_reset();
        tp::Token token(1);
        auto module = load();
        testlog::Capture log;
        tp_fail_from("C_GetSlotList", c.failing_call, CKR_DEVICE_ERROR);
        EXPECT_P11_ERROR(module->listTokenSlots(), 102, c.message);
        EXPECT_EQ(tp_call_count("C_GetSlotList"), c.calls);
        EXPECT_EQ(log.errors(), std::vector<std::wstring>{c.logged});
        if (c.calls == 3) {  // the repeat goes out with the same array
            EXPECT_EQ(tp::call("C_GetSlotList", 1).null_ptr, 0);
            EXPECT_EQ(tp::call("C_GetSlotList", 2).null_ptr, 0);
        }
    }
}

TEST_F(ModuleTest, ModuleWithoutSharedOwnerThrowsBadWeakPtrAfterListing) {
    tp::Token token(1);
    p11::Module module(ZORVO_TESTPROV_PATH, nullptr);
    EXPECT_THROW(module.listTokenSlots(), std::bad_weak_ptr);
    EXPECT_EQ(tp_call_count("C_GetSlotList"), 2);
}

TEST_F(ModuleTest, DroppedModuleLeavesSlotsFailingWithCode10) {
    tp::Token token(1);
    auto module = load();
    auto slot = firstSlot(module);
    auto session = slot->openSession(0);
    module.reset();
    EXPECT_EQ(tp_finalize_count(), 1);
    EXPECT_P11_ERROR(slot->readTokenInfo(), 10, "failed to get module");
    EXPECT_P11_ERROR(session->login("1234", 4), 10, "failed to get module");
    session.reset();  // closing is impossible now and must stay quiet
}

}  // namespace
