#include "base/farray.hpp"

#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace lyrt {

namespace {
constexpr std::size_t huge_page = std::size_t{2} << 20;
} // namespace

void* farray_large_alloc(std::size_t bytes) {
    // aligned_alloc wants a multiple of the alignment.
    const std::size_t rounded = (bytes + huge_page - 1) / huge_page * huge_page;
    void* p = std::aligned_alloc(huge_page, rounded);
#if defined(__linux__)
    // Advice only: without huge pages the storage is the same, just slower to touch.
    if (p != nullptr) madvise(p, rounded, MADV_HUGEPAGE);
#endif
    return p;
}

void farray_large_free(void* p) {
    std::free(p);
}

} // namespace lyrt
