// core/pages.h: storage of large arrays.

#pragma once

#include <cstddef>

namespace zp {

// Storage that begins at a cache line, or, if it is as much as one, at a page; large pages where the system
// gives them: they cost a tenth of the time to come by, and scattered reads miss the translation buffer less.
// Of no value until it is written. Throws std::bad_alloc; std::free gives it back.
void* AllocatePages(std::size_t bytes);

// Asks for large pages within [begin, begin + bytes), and has all threads clear them: the system does so for
// one thread at a time as it first writes them. A hint, like the above.
void FetchLargePages(void* begin, std::size_t bytes);

}  // namespace zp
