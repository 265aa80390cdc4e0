#pragma once
// A fresh test provider per test, and shorthands for the library's objects on it.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Module.h"
#include "Session.h"
#include "Slot.h"
#include "p11.h"
#include "test_expect.h"
#include "test_identities.h"
#include "testprov.h"

namespace p11 {
class Certificate;
}

class ProviderTest : public ::testing::Test {
protected:
    void SetUp() override { tp_reset(); }
    void TearDown() override { tp_reset(); }

    std::shared_ptr<p11::Module> load() { return std::make_shared<p11::Module>(ZORVO_TESTPROV_PATH, nullptr); }
    /// The module's first slot with a token.
    std::shared_ptr<p11::Slot> firstSlot(const std::shared_ptr<p11::Module>& module) {
        auto slots = module->listTokenSlots();
        if (slots->empty()) throw std::runtime_error("no slot with a token");
        return slots->front();
    }
};

/// A token holding one signing identity ("rsa", "gost2001", "gost2012_256", "gost2012_512"),
/// its certificate enumerated, the engine registered and free.
class SigningTest : public ProviderTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override;
    void TearDown() override;
    const testid::Identity& identity() const;

    std::unique_ptr<tp::Token> token_;
    std::shared_ptr<p11::Module> module_;
    std::shared_ptr<p11::Slot> slot_;
    std::shared_ptr<p11::Session> session_;
    std::shared_ptr<p11::Certificate> cert_;
};
