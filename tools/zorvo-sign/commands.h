#pragma once
// zorvo-sign's commands; each returns the exit status or throws Failure.
#include "options.h"

namespace zs {

int run_list(const Options& o);
int run_sign(const Options& o);
int run_verify(const Options& o);

}  // namespace zs
