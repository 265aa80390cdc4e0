#include "Module.h"

#include "Slot.h"
#include "log.h"
#include "mdlpkcs11.h"

namespace p11 {

namespace {

// The entries the library calls through without further checks: a provider that leaves one
// out is refused at load instead of crashing at its first use.
bool callable(const CK_FUNCTION_LIST* f) {
    return f != nullptr && f->C_Initialize && f->C_Finalize && f->C_GetSlotList && f->C_GetSlotInfo &&
           f->C_GetTokenInfo && f->C_GetMechanismList && f->C_GetMechanismInfo && f->C_OpenSession &&
           f->C_CloseSession && f->C_GetSessionInfo && f->C_Login && f->C_Logout && f->C_GetAttributeValue &&
           f->C_FindObjectsInit && f->C_FindObjects && f->C_FindObjectsFinal && f->C_SignInit && f->C_Sign;
}

}  // namespace

Module::Module(std::string path, CK_VOID_PTR initArgs) : path_(std::move(path)) {
    handle_ = C_LoadModule(path_.c_str(), &functions_);
    if (handle_ != nullptr && !callable(functions_)) {
        P11_ERROR("function list of p11 module lacks entries: " << bytes(path_));
        C_UnloadModule(handle_);
        handle_ = nullptr;
    }
    if (handle_ == nullptr) {
        P11_ERROR("failed to load p11 module: " << bytes(path_));
        throw process_error(100, "failed to load p11 module");
    }
    CK_RV rv = functions_->C_Initialize(initArgs);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        log_p11_error("C_Initialize", rv);
        C_UnloadModule(handle_);
        throw process_error(101, "failed to initialize p11 module");
    }
}

Module::~Module() {
    P11_DEBUG("destructing module: " << bytes(path_));
    functions_->C_Finalize(nullptr);
    C_UnloadModule(handle_);
}

std::unique_ptr<std::vector<std::shared_ptr<Slot>>> Module::listTokenSlots() {
    CK_ULONG count = 0;
    call_or_throw("C_GetSlotList(NULL)", 102, "failed to get a number of list of slots with token",
                  [&] { return functions_->C_GetSlotList(CK_TRUE, nullptr, &count); });
    check_bound("slot count", count, kMaxListEntries, 102,
                "failed to get a number of list of slots with token", P11_SITE);
    const CK_ULONG allocated = count;
    auto ids = std::make_unique<CK_SLOT_ID[]>(allocated);
    // Both calls go out with the room there is: a provider may have written a larger count
    // back (a token arrived meanwhile), and the repeat must not believe it.
    call_or_throw("C_GetSlotList()", 102, "failed to get a list of slotsWithToken with token", [&] {
        count = allocated;
        return functions_->C_GetSlotList(CK_TRUE, ids.get(), &count);
    });

    auto result = std::make_unique<std::vector<std::shared_ptr<Slot>>>();
    result->reserve(count);
    std::weak_ptr<Module> self = shared_from_this();
    // A provider that reports more ids than it was given room for is not trusted past the array.
    for (CK_ULONG i = 0; i < count && i < allocated; ++i)
        result->push_back(std::make_shared<Slot>(ids[i], self));
    return result;
}

}  // namespace p11
