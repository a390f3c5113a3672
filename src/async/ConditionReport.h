#pragma once
// Reports a missing value under the name the log shows (`condition "<name>"
// failed`, level 1, domain "QVT") when the test is not a plain expression of
// that name. Answers `ok`, like QVT_CHECK.

#include "async/Log.h"

#define QVT_CHECK_NAMED(ok, name) \
  ::pc::detail::checkCondition(static_cast<bool>(ok), name, __PRETTY_FUNCTION__, __LINE__)
