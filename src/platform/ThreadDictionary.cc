#include "platform/ThreadDictionary.h"

namespace pc {

Dictionary& currentThreadDictionary() {
  thread_local Dictionary dictionary;
  return dictionary;
}

}  // namespace pc
