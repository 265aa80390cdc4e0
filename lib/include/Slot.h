#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include <p11-kit/pkcs11.h>

#include "zorvo_export.h"

namespace p11 {

class Module;
class Session;
struct log_site;

/// A provider slot that holds a token. Holds its Module weakly: once the module is gone,
/// every operation throws process_error 10 "failed to get module".
class ZORVO_API Slot : public std::enable_shared_from_this<Slot> {
public:
    /// Reads the slot information; throws process_error 105 when C_GetSlotInfo fails.
    Slot(CK_SLOT_ID id, std::weak_ptr<Module> module);
    ~Slot();
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    /// The module's function list (throws 10 when the module is gone).
    const CK_FUNCTION_LIST* operator->() const;

    /// The token's information; throws process_error 103.
    std::unique_ptr<CK_TOKEN_INFO> readTokenInfo();
    /// Mechanisms whose info has every bit of `flags` set (0: all). All bits set (~0) asks
    /// for nothing and returns an empty list. Throws process_error 104.
    std::unique_ptr<std::vector<unsigned long>> geMechanisms(CK_FLAGS flags);
    /// Opens a session; `mode` is shifted left by 30 bits into the open flags.
    /// Throws process_error 105, std::bad_weak_ptr when not owned by a shared pointer.
    std::shared_ptr<Session> openSession(int flags);

    /// The provider's slot id.
    CK_SLOT_ID id;
    /// The slot information read at construction.
    CK_SLOT_INFO info;
    /// The slot-info flags above bit 29 (flags >> 30), kept for the host.
    uint32_t highFlags = 0;

private:
    std::shared_ptr<Module> lockModule(const log_site& site) const;

    std::weak_ptr<Module> module;
};

}  // namespace p11
