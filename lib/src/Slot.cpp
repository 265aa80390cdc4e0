#include "Slot.h"

#include "Module.h"
#include "Session.h"
#include "log.h"

namespace p11 {

Slot::Slot(CK_SLOT_ID id, std::weak_ptr<Module> module) : id(id), info{}, module(std::move(module)) {
    P11_DEBUG("Initializing slot: " << id);
    call_or_throw("C_GetSlotInfo()", 105, "failed to get slot info session",
                  [&] { return (*this)->C_GetSlotInfo(this->id, &info); });
    highFlags = static_cast<uint32_t>(info.flags >> 30);
}

Slot::~Slot() { P11_DEBUG("Destructing slot: " << id); }

std::shared_ptr<Module> Slot::lockModule(const log_site& site) const {
    return lock_or_throw(module, 10, "failed to get module", site);
}

const CK_FUNCTION_LIST* Slot::operator->() const { return lockModule(P11_SITE)->functionList(); }

std::unique_ptr<CK_TOKEN_INFO> Slot::readTokenInfo() {
    auto owner = lockModule(P11_SITE);
    auto info = std::make_unique<CK_TOKEN_INFO>();
    call_or_throw("C_GetTokenInfo()", 103, "failed to get a number of list of slots",
                  [&] { return owner->functionList()->C_GetTokenInfo(id, info.get()); });
    return info;
}

std::unique_ptr<std::vector<unsigned long>> Slot::geMechanisms(CK_FLAGS flags) {
    auto owner = lockModule(P11_SITE);
    CK_FUNCTION_LIST_PTR f = owner->functionList();
    CK_ULONG count = 0;
    call_or_throw("C_GetMechanismList()", 104, "failed to get mechanizms",
                  [&] { return f->C_GetMechanismList(id, nullptr, &count); });
    check_bound("mechanism count", count, kMaxListEntries, 104, "failed to get mechanizms", P11_SITE);
    const CK_ULONG allocated = count;
    auto list = std::make_unique<CK_MECHANISM_TYPE[]>(allocated);
    call_or_throw("C_GetMechanismList()", 104, "failed to get mechanizms", [&] {
        count = allocated;  // as for the slot list: never more than the room there is
        return f->C_GetMechanismList(id, list.get(), &count);
    });

    auto result = std::make_unique<std::vector<unsigned long>>();
    if (flags == static_cast<CK_FLAGS>(~0ul)) return result;  // asks for nothing, by design
    for (CK_ULONG i = 0; i < count && i < allocated; ++i) {
        // Some providers OR bits into the structure instead of overwriting it.
        CK_MECHANISM_INFO mechanismInfo{};
        if (f->C_GetMechanismInfo(id, list[i], &mechanismInfo) == CKR_OK &&
            (mechanismInfo.flags & flags) == flags)
            result->push_back(list[i]);
    }
    return result;
}

std::shared_ptr<Session> Slot::openSession(int flags) {
    std::weak_ptr<Slot> self = shared_from_this();
    return std::make_shared<Session>(self, flags);
}

}  // namespace p11
