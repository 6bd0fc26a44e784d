#include "base/allocate_module.hpp"

#include "base/error_module.hpp"

#include <string>
#include <unistd.h>

namespace lyrt {

namespace {
std::int32_t allocated_bytes = 0;
long long test_limit = -1;
} // namespace

int get_allocated_memory() {
    return allocated_bytes;
}

void allocate_set_test_limit(long long bytes) {
    test_limit = bytes;
}

bool allocation_possible(long long bytes) {
    if (bytes < 0 || !detail::allocation_allowed(bytes)) return false;
    const long pages = ::sysconf(_SC_PHYS_PAGES), page = ::sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || page <= 0) return true; // unknown: let the allocation decide
    return static_cast<double>(bytes) <= static_cast<double>(pages) * static_cast<double>(page);
}

void allocation_failed(std::string_view name, long long bytes, std::string_view procedure,
                       std::string_view module) {
    detail::allocate_error(name, bytes, procedure, module);
    throw fatal_stop{}; // not reached: the stop above throws
}

namespace detail {

bool allocation_allowed(long long bytes) {
    return test_limit < 0 || bytes <= test_limit;
}

void count_bytes(long long bytes) {
    // A 32-bit count that wraps like the integer it models, without overflow in C++.
#pragma omp critical(lyrt_count_bytes)
    {
        std::uint32_t sum =
            static_cast<std::uint32_t>(allocated_bytes) + static_cast<std::uint32_t>(bytes);
        allocated_bytes = static_cast<std::int32_t>(sum);
    }
}

void allocate_error(std::string_view name, long long bytes, std::string_view procedure,
                    std::string_view module) {
    fatal_error("Attempt to allocate " + std::string(name) + "has failed.", bytes, procedure,
                module);
}

void deallocate_error(std::string_view name, std::string_view procedure, std::string_view module) {
    fatal_error("While attempting to deallocate " + std::string(name) + ".", -1, procedure, module);
}

} // namespace detail

} // namespace lyrt
