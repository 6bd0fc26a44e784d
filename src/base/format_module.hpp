// Formatted records: the Fortran edit descriptors that every report line uses,
// and free-form (list-directed) records.
//
// Supported in a format: A, Aw, Iw, Iw.m, Fw.d, Ew.d, Ew.dEe, Dw.d, ESw.d, Lw,
// nX, /, :, quoted literals ('..' or ".."), repeat counts and nested groups, with
// the format reversion of Fortran (items left over at the end of the format
// start a new record at the last top-level group). A value too wide for its
// field prints as asterisks. Records are returned joined by '\n'.
#pragma once

#include <concepts>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lyrt {

// One output item: an integer, a real, a logical or a character string.
struct fitem {
    enum kind_type { k_integer, k_real, k_logical, k_character };
    kind_type kind;
    long long i = 0;
    double d = 0.0;
    bool l = false;
    std::string_view s;

    template <std::integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, char>) fitem(I v)
        : kind(k_integer), i(static_cast<long long>(v)) {}
    fitem(double v) : kind(k_real), d(v) {}
    fitem(bool v) : kind(k_logical), l(v) {}
    fitem(const char* v) : kind(k_character), s(v) {}
    fitem(std::string_view v) : kind(k_character), s(v) {}
    fitem(const std::string& v) : kind(k_character), s(v) {}
};

using fitem_list = std::vector<fitem>;

// Applies a Fortran format to the items; records are separated by '\n'.
// A malformed format is a programming error and throws std::logic_error.
std::string format_items(std::string_view format, std::span<const fitem> items);
inline std::string format_items(std::string_view format, std::initializer_list<fitem> items) {
    return format_items(format, std::span<const fitem>(items.begin(), items.size()));
}

// A free-form record: one leading blank, then the items separated by blanks.
// Integers in as many digits as they need, reals with 17 significant digits
// (fixed notation between 0.1 and 1e17, exponent notation otherwise), logicals
// as T or F, strings as they stand.
std::string free_form(std::span<const fitem> items);
inline std::string free_form(std::initializer_list<fitem> items) {
    return free_form(std::span<const fitem>(items.begin(), items.size()));
}

// Single fields, for callers that build a record piece by piece.
std::string format_int(long long v, int w, int m = -1);
std::string format_fixed(double v, int w, int d);
std::string format_exp(double v, int w, int d, int e = -1, char letter = 'E');

} // namespace lyrt
