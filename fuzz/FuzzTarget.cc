// One libFuzzer target: PC_FUZZ_ENTRY names the entry of FuzzEntries.h it
// drives. A broken property is printed and aborts, which libFuzzer reports
// as a crash with the input that caused it.

#include <cstdio>
#include <cstdlib>

#include "FuzzEntries.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  pc::fuzz::silenceLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    pc::fuzz::PC_FUZZ_ENTRY(data, size);
  } catch (const pc::fuzz::FuzzFinding& finding) {
    std::fprintf(stderr, "fuzz finding: %s\n", finding.what());
    std::abort();
  }
  return 0;
}
