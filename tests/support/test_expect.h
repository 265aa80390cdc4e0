#pragma once
#include <gtest/gtest.h>

#include <string>

#include "p11.h"

/// Expects `statement` to throw p11::process_error with this code and message.
#define EXPECT_P11_ERROR(statement, code_, message_)                   \
    do {                                                               \
        try {                                                          \
            statement;                                                 \
            ADD_FAILURE() << "no process_error from " #statement;      \
        } catch (const p11::process_error& e) {                        \
            EXPECT_EQ(e.code(), code_) << e.what();                    \
            EXPECT_EQ(e.message(), std::string(message_)) << e.what(); \
        }                                                              \
    } while (0)
