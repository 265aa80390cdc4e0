#pragma once
// A fresh test provider per test, and shorthands for the library's objects on it.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Module.h"
#include "Session.h"
#include "Slot.h"
#include "p11.h"
#include "testprov.h"

/// Expects `statement` to throw p11::process_error with this code and message.
#define EXPECT_P11_ERROR(statement, code_, message_)                              \
    do {                                                                          \
        try {                                                                     \
            statement;                                                            \
            ADD_FAILURE() << "no process_error from " #statement;                 \
        } catch (const p11::process_error& e) {                                   \
            EXPECT_EQ(e.code(), code_) << e.what();                               \
            EXPECT_EQ(e.message(), std::string(message_)) << e.what();            \
        }                                                                         \
    } while (0)

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
