// SPDX-License-Identifier: MIT
// Counts the blocks that the objects of this link take from the C library, and makes chosen requests fail.
//
// Link with -Wl,--wrap=malloc,--wrap=calloc,--wrap=free. Calls from shared libraries do not pass through
// here, those of the test objects themselves do: count only between a reset() and the next assertion.
#ifndef OX_TESTS_ALLOC_HOOK_H
#define OX_TESTS_ALLOC_HOOK_H

#include <cstddef>

namespace alloc_hook {

// Of the requests to come, the nth (1 is the next one) and those behind it return null, how_many in all.
void fail_from(long nth, long how_many);

// Forgets all counts and all failures ordered.
void reset();

// Blocks handed out since the last reset, less those freed.
long live();

// Bytes asked for by the latest request, also if it failed.
std::size_t last_size();

// Requests since the last reset, failed ones included.
long calls();

// Requests since the last reset that were made to fail.
long refused();

}  // namespace alloc_hook

#endif
