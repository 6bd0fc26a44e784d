// Accounted allocation of arrays.
//
// Every long-lived array of the run comes from ca_<type>_<rank>d with a display
// name, the caller's routine and its unit; the running byte count is kept in a
// 32-bit integer (it may wrap in a very large run). A failed allocation stops the
// run with "Attempt to allocate <name>has failed." and the request in bytes.
// Element sizes count as 4 (integer, logical), 8 (real) and 16 (complex) bytes.
#pragma once

#include "base/farray.hpp"

#include <complex>
#include <cstdint>
#include <string_view>

namespace lyrt {

using dcomplex = std::complex<double>;

int get_allocated_memory();

// Requests above this many bytes fail as if memory were exhausted; negative
// means no limit. Lets a test provoke the failure path.
void allocate_set_test_limit(long long bytes);

// Whether a request of this many bytes can be met at all: not beyond the machine's
// physical memory (nor the test limit). Lets a routine refuse a size before it
// allocates the first of its arrays.
bool allocation_possible(long long bytes);
// The allocation-failure stop, for a request refused before it is made.
[[noreturn]] void allocation_failed(std::string_view name, long long bytes,
                                    std::string_view procedure, std::string_view module);

namespace detail {
void allocate_error(std::string_view name, long long bytes, std::string_view procedure,
                    std::string_view module);
void deallocate_error(std::string_view name, std::string_view procedure, std::string_view module);
bool allocation_allowed(long long bytes);
void count_bytes(long long bytes);
} // namespace detail

template <class T, int R>
void ca_array(farray<T, R>& a, const typename farray<T, R>::bounds& lb,
              const typename farray<T, R>::bounds& ub, int element_bytes, std::string_view name,
              std::string_view procedure, std::string_view module) {
    long long bytes = element_bytes;
    for (int r = 0; r < R; ++r) bytes *= (ub[r] - lb[r] + 1 > 0 ? ub[r] - lb[r] + 1 : 0);
    if (!detail::allocation_allowed(bytes) || !a.allocate(lb, ub))
        detail::allocate_error(name, bytes, procedure, module);
    detail::count_bytes(bytes);
}

template <class T, int R>
void cd_array(farray<T, R>& a, int element_bytes, std::string_view name, std::string_view procedure,
              std::string_view module) {
    if (!a.allocated() || !a.owner()) detail::deallocate_error(name, procedure, module);
    long long bytes = element_bytes;
    for (int r = 0; r < R; ++r) bytes *= a.extent(r);
    a.deallocate();
    detail::count_bytes(-bytes);
}

// clang-format off
inline void ca_integer_1d(farray<int, 1>& a, long l1, long u1, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1}, {u1}, 4, n, p, m); }
inline void ca_integer_2d(farray<int, 2>& a, long l1, long u1, long l2, long u2, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2}, {u1, u2}, 4, n, p, m); }
inline void ca_integer_3d(farray<int, 3>& a, long l1, long u1, long l2, long u2, long l3, long u3, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2, l3}, {u1, u2, u3}, 4, n, p, m); }
inline void ca_logical_1d(farray<bool, 1>& a, long l1, long u1, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1}, {u1}, 4, n, p, m); }
inline void ca_logical_2d(farray<bool, 2>& a, long l1, long u1, long l2, long u2, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2}, {u1, u2}, 4, n, p, m); }
inline void ca_logical_3d(farray<bool, 3>& a, long l1, long u1, long l2, long u2, long l3, long u3, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2, l3}, {u1, u2, u3}, 4, n, p, m); }
inline void ca_real_1d(farray<double, 1>& a, long l1, long u1, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1}, {u1}, 8, n, p, m); }
inline void ca_real_2d(farray<double, 2>& a, long l1, long u1, long l2, long u2, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2}, {u1, u2}, 8, n, p, m); }
inline void ca_real_3d(farray<double, 3>& a, long l1, long u1, long l2, long u2, long l3, long u3, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2, l3}, {u1, u2, u3}, 8, n, p, m); }
inline void ca_complex_1d(farray<dcomplex, 1>& a, long l1, long u1, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1}, {u1}, 16, n, p, m); }
inline void ca_complex_2d(farray<dcomplex, 2>& a, long l1, long u1, long l2, long u2, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2}, {u1, u2}, 16, n, p, m); }
inline void ca_complex_3d(farray<dcomplex, 3>& a, long l1, long u1, long l2, long u2, long l3, long u3, std::string_view n, std::string_view p, std::string_view m) { ca_array(a, {l1, l2, l3}, {u1, u2, u3}, 16, n, p, m); }

inline void cd_integer_1d(farray<int, 1>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 4, n, p, m); }
inline void cd_integer_2d(farray<int, 2>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 4, n, p, m); }
inline void cd_integer_3d(farray<int, 3>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 4, n, p, m); }
inline void cd_logical_1d(farray<bool, 1>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 4, n, p, m); }
inline void cd_logical_2d(farray<bool, 2>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 4, n, p, m); }
inline void cd_logical_3d(farray<bool, 3>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 4, n, p, m); }
inline void cd_real_1d(farray<double, 1>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 8, n, p, m); }
inline void cd_real_2d(farray<double, 2>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 8, n, p, m); }
inline void cd_real_3d(farray<double, 3>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 8, n, p, m); }
inline void cd_complex_1d(farray<dcomplex, 1>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 16, n, p, m); }
inline void cd_complex_2d(farray<dcomplex, 2>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 16, n, p, m); }
inline void cd_complex_3d(farray<dcomplex, 3>& a, std::string_view n, std::string_view p, std::string_view m) { cd_array(a, 16, n, p, m); }
// clang-format on

} // namespace lyrt
