#pragma once
#include <memory>
#include <string>
#include <vector>

#include <p11-kit/pkcs11.h>

#include "zorvo_export.h"

namespace p11 {

class Slot;

/// One loaded and initialised PKCS#11 provider. Always own it through std::shared_ptr:
/// slots and everything below them refer to it weakly, so dropping the last owner
/// finalises and unloads the provider, and their later calls fail with code 10.
class ZORVO_API Module : public std::enable_shared_from_this<Module> {
public:
    /// Loads the provider at `path` and calls C_Initialize(initArgs).
    /// Throws process_error 100 (cannot load) or 101 (C_Initialize failed).
    Module(std::string path, CK_VOID_PTR initArgs);
    /// Calls C_Finalize(NULL) and unloads the provider; never throws.
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    /// The slots that hold a token, in the provider's order. Throws process_error 102
    /// (or the slot's own error), std::bad_weak_ptr when not owned by a shared pointer.
    std::unique_ptr<std::vector<std::shared_ptr<Slot>>> listTokenSlots();

    /// The provider's function list, valid while this module lives.
    CK_FUNCTION_LIST_PTR functionList() const noexcept { return functions_; }
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
    CK_FUNCTION_LIST_PTR functions_ = nullptr;
    void* handle_ = nullptr;
};

}  // namespace p11
