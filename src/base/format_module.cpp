#include "base/format_module.hpp"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace lyrt {

namespace {

// One element of a parsed format.
struct fnode {
    enum node_kind { data, literal, skip, slash, colon, group };
    node_kind kind = data;
    int repeat = 1;
    char letter = 0;    // I F E D S(ES) L A for data descriptors
    int w = -1, d = -1; // field width and digits; -1 when not given
    int e = -1, m = -1; // exponent digits (Ew.dEe) and minimum digits (Iw.m)
    std::string text;   // literal text
    std::vector<fnode> children;
};

struct format_parser {
    std::string_view s;
    std::size_t pos = 0;

    [[noreturn]] void fail(const char* what) const {
        throw std::logic_error(std::string("bad format ") + std::string(s) + ": " + what);
    }
    void blanks() {
        while (pos < s.size() && (s[pos] == ' ' || s[pos] == ',' || s[pos] == '\t')) ++pos;
    }
    bool digit() const {
        return pos < s.size() && std::isdigit(static_cast<unsigned char>(s[pos]));
    }
    int number() {
        int v = 0;
        if (!digit()) fail("number expected");
        while (digit()) v = 10 * v + (s[pos++] - '0');
        return v;
    }

    std::vector<fnode> list() {
        std::vector<fnode> out;
        for (;;) {
            blanks();
            if (pos >= s.size()) fail("missing closing parenthesis");
            if (s[pos] == ')') {
                ++pos;
                return out;
            }
            out.push_back(item());
        }
    }

    fnode item() {
        fnode n;
        int rep = -1;
        if (digit()) rep = number();
        blanks();
        if (pos >= s.size()) fail("unexpected end");
        char c = s[pos];
        if (c == '(') {
            ++pos;
            n.kind = fnode::group;
            n.children = list();
            n.repeat = rep < 0 ? 1 : rep;
            return n;
        }
        if (c == '\'' || c == '"') {
            ++pos;
            n.kind = fnode::literal;
            for (;;) {
                if (pos >= s.size()) fail("unterminated literal");
                if (s[pos] == c) {
                    if (pos + 1 < s.size() && s[pos + 1] == c) {
                        n.text += c;
                        pos += 2;
                        continue;
                    }
                    ++pos;
                    break;
                }
                n.text += s[pos++];
            }
            n.repeat = rep < 0 ? 1 : rep;
            return n;
        }
        if (c == '/') {
            ++pos;
            n.kind = fnode::slash;
            n.repeat = rep < 0 ? 1 : rep;
            return n;
        }
        if (c == ':') {
            ++pos;
            n.kind = fnode::colon;
            return n;
        }
        char u = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        ++pos;
        if (u == 'X') {
            n.kind = fnode::skip;
            n.w = rep < 0 ? 1 : rep;
            return n;
        }
        n.kind = fnode::data;
        n.repeat = rep < 0 ? 1 : rep;
        if (u == 'E' && pos < s.size() && std::toupper(static_cast<unsigned char>(s[pos])) == 'S') {
            ++pos;
            u = 'S';
        }
        n.letter = u;
        switch (u) {
        case 'A':
            if (digit()) n.w = number();
            break;
        case 'L': n.w = digit() ? number() : 2; break;
        case 'I':
            n.w = number();
            if (pos < s.size() && s[pos] == '.') {
                ++pos;
                n.m = number();
            }
            break;
        case 'F':
        case 'E':
        case 'D':
        case 'S':
            n.w = number();
            if (pos >= s.size() || s[pos] != '.') fail("digits expected");
            ++pos;
            n.d = number();
            if (u != 'F' && pos < s.size() &&
                std::toupper(static_cast<unsigned char>(s[pos])) == 'E') {
                ++pos;
                n.e = number();
            }
            break;
        default: fail("unsupported edit descriptor");
        }
        return n;
    }
};

std::vector<fnode> parse_format(std::string_view f) {
    format_parser p{f};
    p.blanks();
    if (p.pos >= f.size() || f[p.pos] != '(') p.fail("must start with (");
    ++p.pos;
    return p.list();
}

// Parsed formats are kept, since report lines reuse the same few formats.
const std::vector<fnode>& cached_format(std::string_view f) {
    static std::map<std::string, std::unique_ptr<std::vector<fnode>>, std::less<>> cache;
    auto it = cache.find(f);
    if (it != cache.end()) return *it->second;
    auto parsed = std::make_unique<std::vector<fnode>>(parse_format(f));
    auto& ref = *parsed;
    cache.emplace(std::string(f), std::move(parsed));
    return ref;
}

std::string stars(int w) {
    return std::string(static_cast<std::size_t>(w > 0 ? w : 0), '*');
}

std::string right(const std::string& s, int w) {
    if (static_cast<int>(s.size()) > w) return stars(w);
    return std::string(static_cast<std::size_t>(w) - s.size(), ' ') + s;
}

std::string non_finite(double v, int w) {
    std::string t;
    if (std::isnan(v)) {
        t = "NaN";
    } else {
        bool neg = v < 0;
        if (w >= 8 + (neg ? 1 : 0))
            t = neg ? "-Infinity" : "Infinity";
        else
            t = neg ? "-Inf" : "Inf";
    }
    return right(t, w);
}

// Executes a parsed format over the items.
struct format_runner {
    std::span<const fitem> items;
    std::size_t next = 0;
    std::string out;      // all finished records, '\n'-separated
    std::string record;   // the record being built
    int pending_skip = 0; // nX not yet materialised: trailing blanks are not written
    bool started = false; // a record has been begun (for the separators)
    bool stop = false;
    int consumed_in_pass = 0;

    void put(const std::string& s) {
        record.append(static_cast<std::size_t>(pending_skip), ' ');
        pending_skip = 0;
        record += s;
    }
    void end_record() {
        if (started) out += '\n';
        out += record;
        started = true;
        record.clear();
        pending_skip = 0;
    }

    std::string edit(const fnode& n, const fitem& it) {
        switch (n.letter) {
        case 'A': {
            std::string s;
            if (it.kind == fitem::k_character)
                s = std::string(it.s);
            else
                s.assign(1, it.kind == fitem::k_logical ? (it.l ? 'T' : 'F') : '?');
            if (n.w < 0) return s;
            if (static_cast<int>(s.size()) >= n.w)
                return s.substr(0, static_cast<std::size_t>(n.w));
            return std::string(static_cast<std::size_t>(n.w) - s.size(), ' ') + s;
        }
        case 'L': {
            bool v =
                it.kind == fitem::k_logical ? it.l : (it.kind == fitem::k_integer && it.i != 0);
            return std::string(static_cast<std::size_t>(n.w > 0 ? n.w - 1 : 0), ' ') +
                   (v ? "T" : "F");
        }
        case 'I': {
            long long v = it.kind == fitem::k_integer ? it.i : static_cast<long long>(it.d);
            return format_int(v, n.w, n.m);
        }
        case 'F': return format_fixed(real_of(it), n.w, n.d);
        case 'E': return format_exp(real_of(it), n.w, n.d, n.e, 'E');
        case 'D': return format_exp(real_of(it), n.w, n.d, n.e, 'D');
        case 'S': return format_sci(real_of(it), n.w, n.d, n.e);
        }
        throw std::logic_error("unsupported edit descriptor");
    }

    static double real_of(const fitem& it) {
        return it.kind == fitem::k_real ? it.d : static_cast<double>(it.i);
    }

    static std::string format_sci(double v, int w, int d, int e) {
        if (!std::isfinite(v)) return non_finite(v, w);
        char buf[512];
        std::snprintf(buf, sizeof buf, "%.*E", d, std::fabs(v));
        std::string s(buf);
        auto epos = s.find('E');
        int ex = std::atoi(s.c_str() + epos + 1);
        std::string mant = s.substr(0, epos);
        std::string es = exponent_text(ex, e, 'E');
        if (es.empty()) return stars(w);
        std::string t = (std::signbit(v) && v != 0.0 ? "-" : "") + mant + es;
        return right(t, w);
    }

    // Walks a node list once; returns false when output must stop.
    void walk(const std::vector<fnode>& list, std::size_t from) {
        for (std::size_t k = from; k < list.size() && !stop; ++k) {
            const fnode& n = list[k];
            switch (n.kind) {
            case fnode::literal:
                for (int r = 0; r < n.repeat; ++r) put(n.text);
                break;
            case fnode::skip: pending_skip += n.w; break;
            case fnode::slash:
                for (int r = 0; r < n.repeat; ++r) end_record();
                break;
            case fnode::colon:
                if (next >= items.size()) stop = true;
                break;
            case fnode::group:
                for (int r = 0; r < n.repeat && !stop; ++r) walk(n.children, 0);
                break;
            case fnode::data:
                for (int r = 0; r < n.repeat && !stop; ++r) {
                    if (next >= items.size()) {
                        stop = true;
                        break;
                    }
                    put(edit(n, items[next++]));
                    ++consumed_in_pass;
                }
                break;
            }
        }
    }

    void run(const std::vector<fnode>& top) {
        std::size_t revert = 0;
        for (std::size_t k = 0; k < top.size(); ++k)
            if (top[k].kind == fnode::group) revert = k;
        walk(top, 0);
        while (!stop && next < items.size()) {
            if (consumed_in_pass == 0) throw std::logic_error("format has no data edit descriptor");
            consumed_in_pass = 0;
            end_record();
            walk(top, revert);
        }
        end_record();
    }

    static std::string exponent_text(int ex, int e, char letter) {
        char buf[32];
        int a = std::abs(ex);
        char sign = ex < 0 ? '-' : '+';
        if (e < 0) {
            if (a <= 99)
                std::snprintf(buf, sizeof buf, "%c%c%02d", letter, sign, a);
            else if (a <= 999)
                std::snprintf(buf, sizeof buf, "%c%03d", sign, a);
            else
                return "";
            return buf;
        }
        std::string digits = std::to_string(a);
        if (static_cast<int>(digits.size()) > e) return "";
        digits.insert(0, static_cast<std::size_t>(e) - digits.size(), '0');
        return std::string(1, letter) + sign + digits;
    }
};

} // namespace

std::string format_int(long long v, int w, int m) {
    unsigned long long mag =
        v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    std::string digits = std::to_string(mag);
    if (m >= 0) {
        if (m == 0 && v == 0) digits.clear();
        while (static_cast<int>(digits.size()) < m) digits.insert(digits.begin(), '0');
    }
    std::string t = (v < 0 ? "-" : "") + digits;
    if (w == 0) return t;
    return right(t, w);
}

std::string format_fixed(double v, int w, int d) {
    if (!std::isfinite(v)) return non_finite(v, w);
    char buf[512];
    int n = std::snprintf(buf, sizeof buf, "%.*f", d, std::fabs(v));
    if (n < 0 || n >= static_cast<int>(sizeof buf)) return stars(w);
    std::string mag(buf);
    if (d == 0) mag += '.'; // the decimal point is always written
    bool neg = std::signbit(v);
    // A value that rounds to zero keeps its minus sign, as the Fortran runtime does.
    std::string t = (neg ? "-" : "") + mag;
    if (static_cast<int>(t.size()) > w && mag.size() > 1 && mag[0] == '0' && mag[1] == '.') {
        // The leading zero is optional and goes first when the field is tight.
        t.assign(neg ? 1 : 0, '-');
        t.append(mag, 1);
    }
    return right(t, w);
}

std::string format_exp(double v, int w, int d, int e, char letter) {
    if (!std::isfinite(v)) return non_finite(v, w);
    std::string digits;
    int ex = 0;
    if (v == 0.0) {
        digits.assign(static_cast<std::size_t>(d), '0');
    } else {
        char buf[512];
        std::snprintf(buf, sizeof buf, "%.*e", d > 0 ? d - 1 : 0, std::fabs(v));
        std::string s(buf);
        auto epos = s.find('e');
        ex = std::atoi(s.c_str() + epos + 1) + 1;
        for (std::size_t k = 0; k < epos; ++k)
            if (std::isdigit(static_cast<unsigned char>(s[k]))) digits += s[k];
        digits.resize(static_cast<std::size_t>(d));
    }
    std::string es = format_runner::exponent_text(ex, e, letter);
    if (es.empty()) return stars(w);
    bool neg = std::signbit(v);
    std::string body = "." + digits + es;
    std::string t = neg ? "-0" : "0";
    t += body;
    if (static_cast<int>(t.size()) > w) t = (neg ? "-" : "") + body;
    return right(t, w);
}

std::string format_items(std::string_view format, std::span<const fitem> items) {
    static std::mutex lock; // the parse cache is shared
    std::lock_guard<std::mutex> guard(lock);
    format_runner r;
    r.items = items;
    r.run(cached_format(format));
    return r.out;
}

std::string free_form(std::span<const fitem> items) {
    std::string out;
    for (const fitem& it : items) {
        out += ' ';
        switch (it.kind) {
        case fitem::k_integer: out += std::to_string(it.i); break;
        case fitem::k_logical: out += it.l ? 'T' : 'F'; break;
        case fitem::k_character: out += it.s; break;
        case fitem::k_real: {
            double a = std::fabs(it.d);
            char buf[64];
            if (!std::isfinite(it.d)) {
                out += std::isnan(it.d) ? "NaN" : (it.d < 0 ? "-Infinity" : "Infinity");
            } else if (a == 0.0 || (a >= 0.1 && a < 1e17)) {
                int intdigits = a < 1.0 ? 0 : static_cast<int>(std::floor(std::log10(a))) + 1;
                int dec = a < 1.0 ? 17 : 17 - intdigits;
                if (dec < 1) dec = 1;
                std::snprintf(buf, sizeof buf, "%.*f", dec, it.d);
                out += buf;
            } else {
                std::snprintf(buf, sizeof buf, "%.16E", it.d);
                std::string s(buf);
                auto epos = s.find('E');
                int ex = std::atoi(s.c_str() + epos + 1);
                char eb[16];
                std::snprintf(eb, sizeof eb, "E%c%03d", ex < 0 ? '-' : '+', std::abs(ex));
                out += s.substr(0, epos) + eb;
            }
            break;
        }
        }
    }
    return out;
}

} // namespace lyrt
