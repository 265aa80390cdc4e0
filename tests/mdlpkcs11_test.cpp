#include "mdlpkcs11.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <cstdlib>
#include <vector>

#include "libscdl.h"

namespace {

// The loader's record as it lays it out: magic, then the loader handle.
struct record_view {
    uint32_t magic;
    void* library;
};

std::string captured_load(const char* path, void** record, CK_FUNCTION_LIST_PTR* list) {
    ::testing::internal::CaptureStderr();
    *record = C_LoadModule(path, list);
    return ::testing::internal::GetCapturedStderr();
}

TEST(LoadModule, NullPathIsSilent) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    void* record = nullptr;
    EXPECT_EQ(captured_load(nullptr, &record, &list), "");
    EXPECT_EQ(record, nullptr);
}

TEST(LoadModule, MissingFileNamesTheLoaderError) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    void* record = nullptr;
    std::string err = captured_load("/nonexistent/libnothing.so", &record, &list);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(err, "sc_dlopen failed: /nonexistent/libnothing.so: cannot open shared object file: No such file or directory\n");
}

#ifdef ZORVO_TESTPROV_NOFL_PATH
TEST(LoadModule, NoEntryPointIsSilentAndClosesTheLibrary) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    void* record = nullptr;
    EXPECT_EQ(captured_load(ZORVO_TESTPROV_NOFL_PATH, &record, &list), "");
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(dlopen(ZORVO_TESTPROV_NOFL_PATH, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}
#endif

#ifdef ZORVO_TESTPROV_FLFAIL_PATH
TEST(LoadModule, FailingGetFunctionListIsReportedWithoutNewline) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    void* record = nullptr;
    EXPECT_EQ(captured_load(ZORVO_TESTPROV_FLFAIL_PATH, &record, &list), "C_GetFunctionList failed 5");
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(dlopen(ZORVO_TESTPROV_FLFAIL_PATH, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST(LoadModule, MessagesReachAWideStandardError) {
    // A wide console appender of the host turns stderr wide; narrow fprintf would be lost.
    EXPECT_EXIT(
        {
            fwide(stderr, 1);
            CK_FUNCTION_LIST_PTR list = nullptr;
            C_LoadModule("/nonexistent/libnothing.so", &list);
            C_LoadModule(ZORVO_TESTPROV_FLFAIL_PATH, &list);
            std::_Exit(0);
        },
        ::testing::ExitedWithCode(0), "sc_dlopen failed: /nonexistent.*\nC_GetFunctionList failed 5");
}
#endif

#ifdef ZORVO_TESTPROV_PATH
TEST(LoadModule, LoadsAndUnloads) {
    CK_FUNCTION_LIST_PTR list = nullptr;
    void* record = C_LoadModule(ZORVO_TESTPROV_PATH, &list);
    ASSERT_NE(record, nullptr);
    ASSERT_NE(list, nullptr);
    EXPECT_NE(list->C_Initialize, nullptr);
    EXPECT_EQ(static_cast<record_view*>(record)->magic, 0xD00BED00u);
    EXPECT_EQ(C_UnloadModule(record), CKR_OK);
}
#endif

TEST(UnloadModule, RejectsWhatIsNotARecord) {
    EXPECT_EQ(C_UnloadModule(nullptr), CKR_ARGUMENTS_BAD);
    record_view fake{0xDEADBEEF, nullptr};
    EXPECT_EQ(C_UnloadModule(&fake), CKR_ARGUMENTS_BAD);  // stack memory: a free would crash
}

TEST(UnloadModule, FailedCloseKeepsTheRecord) {
    // A handle the loader never opened: a zeroed map makes dlclose report "not open".
    std::vector<char> not_open(4096, 0);
    auto* record = static_cast<record_view*>(std::calloc(1, sizeof(record_view)));
    record->magic = 0xD00BED00;
    record->library = not_open.data();
    EXPECT_EQ(C_UnloadModule(record), CKR_FUNCTION_FAILED);
    EXPECT_EQ(record->magic, 0xD00BED00u);
    EXPECT_EQ(C_UnloadModule(record), CKR_FUNCTION_FAILED);  // tried again, still kept
    record->library = nullptr;
    EXPECT_EQ(C_UnloadModule(record), CKR_OK);  // now freed
}

TEST(Wrappers, ForwardToTheLoader) {
    void* self = sc_dlopen(nullptr);
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(sc_dlsym(self, "no_such_symbol_anywhere"), nullptr);
    EXPECT_NE(sc_dlerror(), nullptr);
    EXPECT_EQ(sc_dlclose(self), 0);
}

}  // namespace
