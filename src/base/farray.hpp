// Column-major multi-dimensional array with a lower bound per dimension.
//
// Layout follows std::mdspan with layout_left: the first index runs fastest.
// Element (i_1, ..., i_R) sits at linear position offset + sum_r i_r * stride_r,
// where offset = -sum_r lb_r * stride_r; the data pointer itself is never shifted.
// Dimension numbers r in extent(r), lbound(r), ubound(r) are 0-based as in
// mdspan; the index values themselves carry the array's own bounds (1 by default).
//
// An array either owns its storage or is a view into another array (a slice of
// a history, a matrix handed to LAPACK); views never free, and owner() tells
// the two apart. Owning arrays are move-only; copy() makes an explicit deep
// copy. A view taken of a const array has a const element type
// (farray<const T, R>): what can only be read through the array stays read-only
// through its views.
//
// With LYRT_BOUNDS_CHECK defined every element access checks its indices and
// stops the process with a message naming the dimension and the bounds.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

namespace lyrt {

// Storage of large arrays (at least farray_large_bytes): aligned to 2 MiB and
// offered to the kernel as transparent huge pages, so that the first touch of a
// fresh array of tens of megabytes takes tens of page faults, not thousands
// (a fault costs microseconds, more under a hypervisor). nullptr when the memory
// can't be had.
constexpr std::size_t farray_large_bytes = std::size_t{4} << 20;
void* farray_large_alloc(std::size_t bytes);
void farray_large_free(void* p);

[[noreturn]] inline void farray_bounds_error(int dim, long index, long lb, long ub) {
    std::fprintf(stderr, "Array bound mismatch: index %ld of dimension %d outside %ld:%ld\n", index,
                 dim + 1, lb, ub);
    std::fflush(stderr);
    std::abort();
}

template <class T, int Rank>
class farray {
    static_assert(Rank >= 1 && Rank <= 4, "farray supports ranks 1 to 4");
    using mutable_type = std::remove_const_t<T>;

  public:
    using value_type = T;
    using bounds = std::array<long, Rank>;

    farray() = default;
    farray(const farray&) = delete;
    farray& operator=(const farray&) = delete;
    farray(farray&& o) noexcept { steal(o); }
    farray& operator=(farray&& o) noexcept {
        if (this != &o) {
            release();
            steal(o);
        }
        return *this;
    }
    ~farray() { release(); }

    // Allocates owning storage with the given bounds, zero-filled. An extent
    // below zero counts as zero. Returns false (and stays unallocated) when the
    // memory can't be had.
    bool allocate(const bounds& lb, const bounds& ub) {
        release();
        std::size_t n = 1;
        for (int r = 0; r < Rank; ++r)
            n *= static_cast<std::size_t>(std::max(0L, ub[r] - lb[r] + 1));
        T* p = nullptr;
        bool large = false;
        if constexpr (std::is_trivially_default_constructible_v<T> &&
                      std::is_trivially_destructible_v<T>) {
            if (n >= farray_large_bytes / sizeof(T)) {
                void* raw = farray_large_alloc(n * sizeof(T));
                if (raw == nullptr) return false;
                p = static_cast<T*>(raw);
                std::fill(const_cast<mutable_type*>(p), const_cast<mutable_type*>(p) + n,
                          mutable_type{});
                large = true;
            }
        }
        if (n > 0 && !large) {
            p = new (std::nothrow) T[n]();
            if (p == nullptr) return false;
        }
        set_layout(p, lb, ub);
        owner_ = true;
        large_ = large;
        return true;
    }

    // Frees owning storage; a view is only detached.
    void deallocate() { release(); }

    // A non-owning array over external contiguous storage.
    static farray view_of(T* p, const bounds& lb, const bounds& ub) {
        farray a;
        a.set_layout(p, lb, ub);
        return a;
    }

    // A non-owning view of the whole array, same bounds; read-only for a const array.
    farray view() {
        farray a;
        a.set_layout(data_, lb_, ub_);
        return a;
    }
    farray<const T, Rank> view() const { return farray<const T, Rank>::view_of(data_, lb_, ub_); }

    // A non-owning view of the sub-array with the last index fixed at k:
    // slot k of a history array r_of_t(3, n, k) is the matrix r(3, n).
    farray<T, Rank - 1> slice_last(long k) requires(Rank >= 2) {
        return farray<T, Rank - 1>::view_of(slice_pointer(k), sub_bounds(lb_), sub_bounds(ub_));
    }
    farray<const T, Rank - 1> slice_last(long k) const requires(Rank >= 2) {
        return farray<const T, Rank - 1>::view_of(slice_pointer(k), sub_bounds(lb_),
                                                  sub_bounds(ub_));
    }

    // Deep copy into new owning storage (not accounted: for short-lived work).
    farray copy() const {
        farray a;
        if (!allocated_) return a;
        a.allocate(lb_, ub_);
        std::copy(data_, data_ + size_, a.data_);
        return a;
    }

    template <class... I>
    T& operator()(I... idx) {
        static_assert(sizeof...(I) == Rank, "wrong number of indices");
        return data_[linear(static_cast<long>(idx)...)];
    }
    template <class... I>
    const T& operator()(I... idx) const {
        static_assert(sizeof...(I) == Rank, "wrong number of indices");
        return data_[linear(static_cast<long>(idx)...)];
    }

    bool allocated() const { return allocated_; }
    bool owner() const { return owner_; }
    std::size_t size() const { return size_; }
    long extent(int r) const { return ub_[r] - lb_[r] + 1 > 0 ? ub_[r] - lb_[r] + 1 : 0; }
    long lbound(int r) const { return lb_[r]; }
    long ubound(int r) const { return ub_[r]; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }
    void fill(const T& v) { std::fill(data_, data_ + size_, v); }

  private:
    template <class, int>
    friend class farray;

    T* slice_pointer(long k) const {
        check(Rank - 1, k);
        return data_ == nullptr ? nullptr : data_ + (k - lb_[Rank - 1]) * stride_[Rank - 1];
    }
    static std::array<long, Rank - 1> sub_bounds(const bounds& b) requires(Rank >= 2) {
        std::array<long, Rank - 1> s{};
        for (int r = 0; r < Rank - 1; ++r) s[r] = b[r];
        return s;
    }

    void set_layout(T* p, const bounds& lb, const bounds& ub) {
        data_ = p;
        lb_ = lb;
        ub_ = ub;
        long s = 1, off = 0;
        for (int r = 0; r < Rank; ++r) {
            stride_[r] = s;
            off -= lb[r] * s;
            s *= std::max(0L, ub[r] - lb[r] + 1);
        }
        offset_ = off;
        size_ = static_cast<std::size_t>(s);
        allocated_ = true;
        owner_ = false;
    }

    void check([[maybe_unused]] int r, [[maybe_unused]] long i) const {
#ifdef LYRT_BOUNDS_CHECK
        if (i < lb_[r] || i > ub_[r]) farray_bounds_error(r, i, lb_[r], ub_[r]);
#endif
    }

    template <class... I>
    long linear(I... idx) const {
        const long iv[Rank] = {idx...};
        long pos = offset_;
        for (int r = 0; r < Rank; ++r) {
            check(r, iv[r]);
            pos += iv[r] * stride_[r];
        }
        return pos;
    }

    void release() {
        if (owner_ && large_)
            farray_large_free(const_cast<mutable_type*>(data_));
        else if (owner_)
            delete[] data_;
        data_ = nullptr;
        owner_ = false;
        large_ = false;
        allocated_ = false;
        size_ = 0;
        offset_ = 0;
        lb_.fill(1);
        ub_.fill(0);
        stride_.fill(0);
    }

    void steal(farray& o) {
        data_ = o.data_;
        lb_ = o.lb_;
        ub_ = o.ub_;
        stride_ = o.stride_;
        offset_ = o.offset_;
        size_ = o.size_;
        owner_ = o.owner_;
        large_ = o.large_;
        allocated_ = o.allocated_;
        o.data_ = nullptr;
        o.owner_ = false;
        o.large_ = false;
        o.release();
    }

    T* data_ = nullptr;
    bounds lb_ = filled(1);
    bounds ub_ = filled(0);
    bounds stride_ = filled(0);
    long offset_ = 0;
    std::size_t size_ = 0;
    bool owner_ = false;
    bool large_ = false; // storage from farray_large_alloc
    bool allocated_ = false;

    static constexpr bounds filled(long v) {
        bounds b{};
        for (auto& x : b) x = v;
        return b;
    }
};

} // namespace lyrt
