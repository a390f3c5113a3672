#pragma once
// The per-thread dictionary: values a thread keeps for itself (helper objects,
// the current operation, the logging call stack). Created on first use in each
// thread and released when the thread ends.

#include "platform/Value.h"

namespace pc {

Dictionary& currentThreadDictionary();

}  // namespace pc
