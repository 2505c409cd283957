// SPDX-License-Identifier: MIT
// Of the address sanitizer: short stacks of allocations and a small quarantine, since targets allocate much and
// briefly.
extern "C" __attribute__((used)) const char* __asan_default_options() {
  return "malloc_context_size=4:quarantine_size_mb=4:thread_local_quarantine_size_kb=64";
}
