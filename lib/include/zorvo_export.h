#pragma once
// Symbols marked ZORVO_API form the library's public ABI; everything else is hidden.
#define ZORVO_API __attribute__((visibility("default")))
