#include "base/dlexlib.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

namespace lyrt {

namespace {

// Assignment to a fixed-length string: a sized target keeps its size.
void assign_fixed(std::string& dst, std::string_view src) {
    if (dst.empty()) {
        dst = std::string(src);
        return;
    }
    const std::size_t size = dst.size();
    dst = std::string(src.substr(0, size));
    dst.resize(size, ' ');
}

void library_warning(std::initializer_list<std::string> lines) {
    unit_write(stdout_unit, "");
    for (const auto& l : lines) unit_write(stdout_unit, l);
    unit_write(stdout_unit, "");
    unit_write(stdout_unit, "Continuing execution ...");
}

std::string_view trimmed(std::string_view s) {
    return s.substr(0, static_cast<std::size_t>(length(s)));
}

// The delimiter's effective text under the n rule.
std::string_view effective(std::string_view sub, int n) {
    if (n < 0) {
        std::string_view t = trimmed(sub);
        return t.empty() ? sub.substr(0, 1) : t;
    }
    return sub;
}

std::vector<std::string_view> words_of(std::string_view s) {
    std::vector<std::string_view> w;
    std::size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && s[i] == ' ') ++i;
        std::size_t j = i;
        while (j < s.size() && s[j] != ' ') ++j;
        if (j > i) w.push_back(s.substr(i, j - i));
        i = j;
    }
    return w;
}

bool is_digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

std::string without_blanks(std::string_view s) {
    std::string t;
    for (char c : s)
        if (c != ' ') t += c;
    return t;
}

// Mantissa of a real: sign, digits, at most one point, at least one digit.
bool real_mantissa(std::string_view s, int& decimals) {
    std::size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    int digits = 0, points = 0;
    decimals = 0;
    for (; i < s.size(); ++i) {
        if (std::isdigit(static_cast<unsigned char>(s[i]))) {
            ++digits;
            if (points > 0) ++decimals;
        } else if (s[i] == '.') {
            if (++points > 1) return false;
        } else {
            return false;
        }
    }
    return digits > 0;
}

} // namespace

int length(std::string_view s) {
    auto p = s.find_last_not_of(' ');
    return p == std::string_view::npos ? 0 : static_cast<int>(p) + 1;
}

int nwords(std::string_view s) {
    return static_cast<int>(words_of(s).size());
}

void upper(std::string& s) {
    const int n = length(s);
    for (int i = 0; i < n; ++i)
        if (s[static_cast<std::size_t>(i)] >= 'a' && s[static_cast<std::size_t>(i)] <= 'z')
            s[static_cast<std::size_t>(i)] = static_cast<char>(s[static_cast<std::size_t>(i)] - 32);
}

void lower(std::string& s) {
    const int n = length(s);
    for (int i = 0; i < n; ++i)
        if (s[static_cast<std::size_t>(i)] >= 'A' && s[static_cast<std::size_t>(i)] <= 'Z')
            s[static_cast<std::size_t>(i)] = static_cast<char>(s[static_cast<std::size_t>(i)] + 32);
}

void strip(std::string& s, int& len, char mode) {
    const std::size_t size = s.size();
    std::string_view t = trimmed(s);
    std::string r;
    switch (std::toupper(static_cast<unsigned char>(mode))) {
    case 'L': {
        auto p = t.find_first_not_of(' ');
        r = p == std::string_view::npos ? "" : std::string(t.substr(p));
        break;
    }
    case 'I': {
        auto p = t.find_first_not_of(' ');
        if (p != std::string_view::npos)
            r = std::string(t.substr(0, p)) + without_blanks(t.substr(p));
        break;
    }
    case 'A': r = without_blanks(t); break;
    case 'S':
    case 'B': {
        bool blank = false;
        for (char c : t) {
            if (c == ' ') {
                if (!blank) r += ' ';
                blank = true;
            } else {
                r += c;
                blank = false;
            }
        }
        if (std::toupper(static_cast<unsigned char>(mode)) == 'B' && !r.empty() && r[0] == ' ')
            r.erase(0, 1);
        break;
    }
    default: r.clear(); break;
    }
    len = length(r);
    r.resize(size, ' ');
    s = r;
}

void subwrd(std::string_view s, std::string& out, int first, int n) {
    auto w = words_of(s);
    if (first < 1 || n < 1 || first > static_cast<int>(w.size())) {
        assign_fixed(out, "");
        if (!out.empty()) out.assign(out.size(), ' ');
        return;
    }
    const int last = std::min(first + n - 1, static_cast<int>(w.size()));
    const char* begin = w[static_cast<std::size_t>(first - 1)].data();
    const char* end =
        w[static_cast<std::size_t>(last - 1)].data() + w[static_cast<std::size_t>(last - 1)].size();
    std::string_view text(begin, static_cast<std::size_t>(end - begin));
    if (!out.empty() && text.size() > out.size())
        library_warning(
            {"Warning LEXLIB routine 'SUBWRD': Output string will be truncated! The output is",
             free_form({"a string of length ", static_cast<int>(text.size()),
                        " characters but 'WORDS' can only hold ", static_cast<int>(out.size()),
                        " characters."})});
    assign_fixed(out, text);
}

void parse(std::string_view s, std::string& left, std::string& right, std::string_view delim,
           int n) {
    std::string_view d = effective(delim, n);
    auto p = s.find(d);
    if (p == std::string_view::npos) {
        assign_fixed(left, s);
        assign_fixed(right, "");
        if (!right.empty()) right.assign(right.size(), ' ');
        return;
    }
    assign_fixed(left, s.substr(0, p));
    assign_fixed(right, s.substr(p + d.size()));
}

namespace {

// Start positions (0-based) of non-overlapping occurrences, under the stop rule:
// the scan ends when fewer than len(sub) + 1 characters of s remain.
std::vector<std::size_t> occurrences(std::string_view s, std::string_view sub) {
    std::vector<std::size_t> at;
    const std::size_t len = static_cast<std::size_t>(length(s));
    if (sub.empty()) return at;
    std::size_t i = 0;
    while (i + sub.size() + 1 <= len) {
        if (s.substr(i, sub.size()) == sub) {
            at.push_back(i);
            i += sub.size();
        } else {
            ++i;
        }
    }
    return at;
}

} // namespace

int noccur(std::string_view s, std::string_view sub, int n) {
    return static_cast<int>(occurrences(s, effective(sub, n)).size());
}

int indexn(std::string_view s, std::string_view sub, int n) {
    auto at = occurrences(s, effective(sub, n < 0 ? -1 : 1));
    const int k = n < 0 ? -n : n;
    if (k < 1 || k > static_cast<int>(at.size())) return 0;
    return static_cast<int>(at[static_cast<std::size_t>(k - 1)]) + 1;
}

void replac(std::string& s, std::string_view old_str, std::string_view new_str, int& n, int limit) {
    std::string_view o = n < 0 ? effective(old_str, -1) : old_str;
    std::string_view w = n > 0 ? new_str : trimmed(new_str);
    std::string result;
    std::size_t i = 0;
    int count = 0;
    const std::string_view text(s);
    while (i < text.size()) {
        if (!o.empty() && text.substr(i, o.size()) == o) {
            ++count;
            const bool take =
                limit == 0 || (limit > 0 && count == limit) || (limit < 0 && count <= -limit);
            if (take) {
                result += w;
            } else {
                result += o;
            }
            i += o.size();
        } else {
            result += text[i++];
        }
    }
    const int res_len = length(result);
    if (res_len > static_cast<int>(s.size()))
        library_warning(
            {"Warning LEXLIB routine 'REPLAC': Output string will be truncated! New string is",
             "longer than old string and the length of variable 'STRING' is too short! Length",
             free_form({"of new string is ", res_len, " characters but 'STRING' can only hold ",
                        static_cast<int>(s.size()), " characters."})});
    const std::size_t size = s.size();
    result.resize(size, ' ');
    s = result;
    n = length(s);
}

void chkint(std::string_view s, char& ok, std::string& format) {
    std::string t = without_blanks(s);
    std::string_view body(t);
    if (!body.empty() && (body[0] == '+' || body[0] == '-')) body.remove_prefix(1);
    if (is_digits(body)) {
        ok = 'Y';
        format.assign(1, 'I');
        format += std::to_string(t.size());
        return;
    }
    // A real that holds a whole value passes as an integer; another real is unclear.
    char fok;
    std::string f;
    chkflt(t, fok, f);
    if (fok != 'Y') chkedq(t, fok, f);
    if (fok == 'Y') {
        std::string e = t;
        for (char& c : e)
            if (c == 'd' || c == 'D' || c == 'q' || c == 'Q') c = 'E';
        const double v = std::strtod(e.c_str(), nullptr);
        // Whole and finite; the bound keeps the test clear of values no integer holds.
        ok = std::isfinite(v) && std::fabs(v) < 9.0e18 && v == std::trunc(v) ? 'Y' : 'U';
        format = f;
        return;
    }
    ok = 'N';
    format.clear();
}

void chkflt(std::string_view s, char& ok, std::string& format) {
    std::string t = without_blanks(s);
    int decimals = 0;
    if (real_mantissa(t, decimals)) {
        ok = 'Y';
        format.assign(1, 'F');
        format += std::to_string(t.size());
        format += '.';
        format += std::to_string(decimals);
    } else {
        ok = 'N';
        format.clear();
    }
}

void chkedq(std::string_view s, char& ok, std::string& format) {
    std::string t = without_blanks(s);
    ok = 'N';
    format.clear();
    auto p = t.find_first_of("EeDdQq");
    if (p == std::string::npos) return;
    int decimals = 0;
    if (!real_mantissa(std::string_view(t).substr(0, p), decimals)) return;
    std::string_view ex = std::string_view(t).substr(p + 1);
    if (!ex.empty() && (ex[0] == '+' || ex[0] == '-')) ex.remove_prefix(1);
    if (!is_digits(ex)) return;
    ok = 'Y';
    const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(t[p])));
    format = std::string(1, letter == 'Q' ? 'E' : letter) + std::to_string(t.size()) + "." +
             std::to_string(decimals);
}

void chktyp(std::string_view s, std::string& work, char type, char& ok, std::string& format) {
    work = without_blanks(s);
    const std::string& t = work;
    ok = 'N';
    format.clear();
    auto all_of = [&](auto pred) {
        if (t.empty()) return false;
        for (char c : t)
            if (!pred(static_cast<unsigned char>(c))) return false;
        return true;
    };
    switch (type) {
    case 'I': chkint(t, ok, format); return;
    case 'F':
        chkflt(t, ok, format);
        if (ok != 'Y') chkedq(t, ok, format);
        return;
    case 'C': {
        if (t.size() < 5 || t.front() != '(' || t.back() != ')') return;
        std::string inner = t.substr(1, t.size() - 2);
        auto comma = inner.find(',');
        if (comma == std::string::npos || inner.find(',', comma + 1) != std::string::npos) return;
        std::string w1, w2, f1, f2;
        char ok1, ok2;
        chktyp(inner.substr(0, comma), w1, 'F', ok1, f1);
        chktyp(inner.substr(comma + 1), w2, 'F', ok2, f2);
        work = t;
        if (ok1 == 'Y' && ok2 == 'Y') {
            ok = 'Y';
            format = "(" + f1 + "," + f2 + ")";
        }
        return;
    }
    case 'L': {
        const char c0 =
            t.empty() ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(t[0])));
        const char c1 =
            t.size() < 2 ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(t[1])));
        if (c0 == 'T' || c0 == 'F' || (c0 == '.' && (c1 == 'T' || c1 == 'F'))) {
            ok = 'Y';
            format.assign(1, 'L');
            format += std::to_string(t.size());
        }
        return;
    }
    case 'A':
        if (all_of([](unsigned char c) { return std::isalnum(c) != 0; })) ok = 'Y';
        break;
    case 'U':
        if (all_of([](unsigned char c) { return std::isupper(c) != 0 || std::isdigit(c) != 0; }))
            ok = 'Y';
        break;
    case 'l':
        if (all_of([](unsigned char c) { return std::islower(c) != 0 || std::isdigit(c) != 0; }))
            ok = 'Y';
        break;
    case 'O':
        if (all_of([](unsigned char c) { return c >= '0' && c <= '7'; })) ok = 'Y';
        break;
    case 'H':
        if (all_of([](unsigned char c) { return std::isxdigit(c) != 0; })) ok = 'Y';
        break;
    case 'N':
        ok = t.empty() ? 'Y' : 'N';
        format = "A1";
        return;
    default: return;
    }
    if (ok == 'Y') {
        format.assign(1, 'A');
        format += std::to_string(t.size());
    }
}

void dattyp(std::string_view s, std::string& work, char& type, std::string& format) {
    for (char candidate : {'N', 'L', 'I', 'C', 'F', 'A'}) {
        char ok;
        chktyp(s, work, candidate, ok, format);
        if (ok == 'Y') {
            type = candidate;
            return;
        }
    }
    type = 'G';
    work = without_blanks(s);
    format.assign(1, 'A');
    format += std::to_string(work.size());
}

int nitems(std::string& s, std::string& work, bool expand, char type) {
    const bool checked = type == 'L' || type == 'I' || type == 'F' || type == 'C';
    if (expand) strip(s, 'B');
    for (;;) {
        int count = 0;
        bool restart = false;
        auto words = words_of(s);
        for (std::size_t k = 0; k < words.size(); ++k) {
            std::string_view word = words[k];
            const auto stars = std::count(word.begin(), word.end(), '*');
            if (stars >= 2) return count;
            int repeat = 1;
            std::string_view item = word;
            if (stars == 1) {
                auto p = word.find('*');
                std::string_view times = word.substr(0, p);
                item = word.substr(p + 1);
                if (!is_digits(times)) return count;
                // A repeat count beyond what an int holds is no count at all.
                const auto first = times.find_first_not_of('0');
                const std::string_view digits =
                    first == std::string_view::npos ? std::string_view{} : times.substr(first);
                if (digits.size() > 9) return count;
                repeat = digits.empty() ? 0 : std::stoi(std::string(digits));
                if (repeat < 1) return count;
            }
            if (checked) {
                char ok;
                std::string format;
                chktyp(item, work, type, ok, format);
                if (ok == 'N' || (type == 'I' && ok == 'U')) return count;
            }
            if (stars == 1 && expand) {
                // Write the repeat out in place and count again from the start; a
                // repeat that can't fit the record fails before it is written out.
                const bool fits = static_cast<std::size_t>(repeat) * (item.size() + 1) <=
                                  s.size() + word.size() + 1;
                std::string expansion;
                for (int r = 0; fits && r < repeat; ++r) {
                    if (r > 0) expansion += ' ';
                    expansion += item;
                }
                const std::size_t at = static_cast<std::size_t>(word.data() - s.data());
                std::string next = s.substr(0, at) + expansion + s.substr(at + word.size());
                if (!fits || length(next) > static_cast<int>(s.size())) {
                    unit_write(stdout_unit, "");
                    unit_write(stdout_unit, "Error LEXLIB routine 'NITEMS': expansion fails, "
                                            "insufficient CHARACTER length.");
                    unit_write(stdout_unit, "");
                    return count;
                }
                next.resize(s.size(), ' ');
                s = next;
                restart = true;
                break;
            }
            count = repeat > std::numeric_limits<int>::max() - count
                        ? std::numeric_limits<int>::max()
                        : count + repeat;
        }
        if (!restart) return count;
    }
}

int nxtfru() {
    for (int unit = 0; unit < 100; ++unit) {
        if (unit == 0 || unit == 5 || unit == 6) continue;
        if (!unit_is_open(unit)) return unit;
    }
    return -1;
}

// ---- keyword reader ------------------------------------------------------------

namespace {

// The keyword reader names utility_module in its messages, its home of old.
constexpr const char* kw_mod = "utility_module";
constexpr std::size_t record_length = 500; // characters of a record that count
constexpr char escape = '\\';

// Position of the first `c` not preceded by the escape character, or npos.
std::size_t unescaped(std::string_view s, char c, std::size_t from = 0) {
    for (std::size_t i = from; i < s.size(); ++i)
        if (s[i] == c && (i == 0 || s[i - 1] != escape)) return i;
    return std::string_view::npos;
}

std::string blank_free_upper(std::string_view s) {
    std::string t;
    for (char ch : s)
        if (ch != ' ' && ch != '\t') t += ch;
    upper(t);
    return t;
}

std::string undo_escapes(std::string_view s) {
    std::string t;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == escape && i + 1 < s.size() &&
            (s[i + 1] == '=' || s[i + 1] == '!' || s[i + 1] == ';' || s[i + 1] == escape)) {
            t += s[i + 1];
            ++i;
        } else {
            t += s[i];
        }
    }
    return t;
}

bool read_real_token(std::string token, double& v) {
    for (char& c : token)
        if (c == 'd' || c == 'D' || c == 'q' || c == 'Q') c = 'E';
    char* end = nullptr;
    errno = 0;
    v = std::strtod(token.c_str(), &end);
    return end != nullptr && *end == '\0' && !token.empty() && errno == 0 && std::isfinite(v);
}

// Reads the blank-separated items of an expanded value into the receiver.
bool read_values(const std::string& value, char type, int count, const keyword_receivers& out) {
    std::vector<std::string> tokens;
    std::size_t i = 0;
    while (i < value.size() && static_cast<int>(tokens.size()) < count) {
        while (i < value.size() && value[i] == ' ') ++i;
        std::size_t j = i;
        while (j < value.size() && value[j] != ' ') ++j;
        if (j > i) tokens.push_back(value.substr(i, j - i));
        i = j;
    }
    if (static_cast<int>(tokens.size()) < count) return false;
    for (int k = 0; k < count; ++k) {
        const std::string& t = tokens[static_cast<std::size_t>(k)];
        const auto ku = static_cast<std::size_t>(k);
        switch (type) {
        case 'I': {
            double v;
            if (!read_real_token(t, v) || v != std::trunc(v) || std::fabs(v) > 2147483647.0)
                return false;
            out.int_values[ku] = static_cast<int>(v);
            break;
        }
        case 'F': {
            double v;
            if (!read_real_token(t, v)) return false;
            out.real_values[ku] = v;
            break;
        }
        case 'L': {
            const char c0 = static_cast<char>(std::toupper(static_cast<unsigned char>(t[0])));
            const char c = c0 == '.' && t.size() > 1
                               ? static_cast<char>(std::toupper(static_cast<unsigned char>(t[1])))
                               : c0;
            if (c != 'T' && c != 'F') return false;
            out.log_values[ku] = c == 'T';
            break;
        }
        case 'C': {
            if (t.size() < 5 || t.front() != '(' || t.back() != ')') return false;
            auto comma = t.find(',');
            double re, im;
            if (comma == std::string::npos || !read_real_token(t.substr(1, comma - 1), re) ||
                !read_real_token(t.substr(comma + 1, t.size() - comma - 2), im))
                return false;
            out.cplx_values[ku] = std::complex<double>(re, im);
            break;
        }
        default: return false;
        }
    }
    return true;
}

std::size_t receiver_size(const keyword_receivers& out, char type) {
    switch (type) {
    case 'I': return out.int_values.size();
    case 'F': return out.real_values.size();
    case 'C': return out.cplx_values.size();
    case 'L': return out.log_values.size();
    default: return 0;
    }
}

// Calls f(statement) for each statement of the open file, from its start:
// continuation records joined, comments cut, statements split at the separator.
// Stops when f returns true, and then returns true.
template <class F>
bool for_each_statement(int unit, const std::string& name, char comment, char separator,
                        bool close_on_error, F&& f) {
    bool continued = false;
    std::string saved, record;
    for (;;) {
        const int ios = unit_read(unit, record);
        if (ios < 0) return false;
        if (ios > 0) {
            if (close_on_error) unit_close(unit);
            fatal_error("Problem reading from file " + name + "IO STATUS CODE = ", ios,
                        "get_keyword", kw_mod);
        }
        if (record.size() > record_length) record.resize(record_length);
        std::string text = continued ? saved + record : record;
        if (text.size() > record_length) text.resize(record_length);
        continued = false;
        // An odd number of trailing escapes continues the record on the next one.
        const std::size_t len = static_cast<std::size_t>(length(text));
        std::size_t n_esc = 0;
        while (n_esc < len && text[len - 1 - n_esc] == escape) ++n_esc;
        if (n_esc % 2 == 1) {
            saved = text.substr(0, len - 1);
            continued = true;
            continue;
        }
        auto first = text.find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        text.erase(0, first);
        if (text[0] == comment) continue;
        auto cpos = unescaped(text, comment);
        if (cpos != std::string::npos) text.resize(cpos);

        std::size_t start = 0;
        while (start <= text.size()) {
            auto stop = unescaped(text, separator, start);
            std::string_view stmt = std::string_view(text).substr(
                start, stop == std::string::npos ? std::string::npos : stop - start);
            start = stop == std::string::npos ? text.size() + 1 : stop + 1;
            if (f(stmt)) return true;
        }
    }
}

} // namespace

void get_keyword(bool open_file, std::string_view file_name, int unit, std::string_view keyword,
                 char equals, char comment, char separator, char type_in,
                 const keyword_receivers& out, int& n_found, int max_values, int& status,
                 int occurrence) {
    status = kw_ok;
    n_found = 0;
    const char type = static_cast<char>(std::toupper(static_cast<unsigned char>(type_in)));
    if (std::string_view("IFCSKL").find(type) == std::string_view::npos || type == '\0') {
        status = kw_bad_type;
        return;
    }
    std::string name(file_name);
    strip(name, 'L');
    name.resize(static_cast<std::size_t>(length(name)));
    if (open_file) {
        if (name.empty()) {
            write_free(error_unit, {"File name for input is empty ..."});
            status = kw_no_file;
            return;
        }
        const int ios = unit_open(unit, name, "old");
        if (ios != 0) {
            write_free(error_unit, {"Problem opening file ", name, " IOSTAT=", ios});
            status = kw_no_file;
            return;
        }
    } else {
        unit_rewind(unit);
    }
    std::string key = blank_free_upper(keyword.substr(0, 255));
    int count = 0;
    bool found = false;
    auto finish = [&] {
        if (open_file) unit_close(unit);
    };

    const bool stopped =
        for_each_statement(unit, name, comment, separator, open_file, [&](std::string_view stmt) {
            const std::string squeezed = blank_free_upper(stmt);
            if (squeezed.empty() || squeezed.compare(0, key.size(), key) != 0) return false;
            if (type != 'K' && (squeezed.size() <= key.size() || squeezed[key.size()] != equals))
                return false;
            ++count;
            if (occurrence > 0 && count != occurrence) return false;

            if (type == 'K') {
                n_found = 1;
                status = kw_ok;
                return true;
            }
            found = true;
            auto eq = unescaped(stmt, equals);
            std::string value(eq == std::string_view::npos ? std::string_view()
                                                           : stmt.substr(eq + 1));
            if (type == 'S') {
                value = undo_escapes(value);
                n_found = length(value);
                if (max_values > 0 && n_found > max_values) n_found = max_values;
                if (out.string_value != nullptr)
                    *out.string_value = value.substr(0, static_cast<std::size_t>(n_found));
                return true;
            }
            // Commas separate items like blanks, except inside the pairs of a complex.
            int depth = 0;
            for (char& c : value) {
                if (c == '(') ++depth;
                if (c == ')') --depth;
                if (c == ',' && depth == 0) c = ' ';
                if (c == '\t') c = ' ';
            }
            value.resize(record_length, ' ');
            std::string work;
            int n = nitems(value, work, true, type);
            if (n == 0) {
                status = kw_bad_value;
                n_found = 0;
                return true;
            }
            if (max_values > 0 && n > max_values) n = max_values;
            const int room = static_cast<int>(receiver_size(out, type));
            if (n > room) n = room;
            if (!read_values(value, type, n, out)) {
                status = kw_bad_value;
                n_found = 0;
                return true;
            }
            n_found = n;
            return true;
        });
    finish();
    if (!stopped && !found) status = kw_not_found;
}

std::vector<std::string> keyword_names(int unit, std::string_view file_name, char equals,
                                       char comment, char separator) {
    std::vector<std::string> names;
    unit_rewind(unit);
    for_each_statement(unit, std::string(file_name), comment, separator, false,
                       [&](std::string_view stmt) {
                           const auto eq = unescaped(stmt, equals);
                           if (eq == std::string_view::npos) return false;
                           std::string key = blank_free_upper(stmt.substr(0, eq));
                           lower(key);
                           if (!key.empty()) names.push_back(key);
                           return false;
                       });
    return names;
}

int edit_distance(std::string_view a, std::string_view b) {
    std::vector<int> prev(b.size() + 1), cur(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) prev[j] = static_cast<int>(j);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        cur[0] = static_cast<int>(i);
        for (std::size_t j = 1; j <= b.size(); ++j)
            cur[j] = std::min(
                {prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
        std::swap(prev, cur);
    }
    return prev[b.size()];
}

} // namespace lyrt
