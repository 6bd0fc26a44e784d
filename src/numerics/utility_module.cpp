#include "numerics/utility_module.hpp"

#include <cstdlib>

namespace lyrt {

namespace {

long cfree_mem() {
    const long step = 1024000;
    long size = 1024000000;
    void* block = nullptr;
    for (;;) {
        block = std::malloc(static_cast<std::size_t>(size > 0 ? size : 0));
        size -= step;
        if (block != nullptr) {
            size += step;
            break;
        }
    }
    std::free(block);
    return size >> 10;
}

} // namespace

int free_mem() {
    return static_cast<int>(cfree_mem());
}

} // namespace lyrt
