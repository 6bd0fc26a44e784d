#include "numerics/utility_module.hpp"

#include "run/dlexlib.hpp"
#include "run/error_module.hpp"
#include "run/io_module.hpp"

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "utility_module";
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
    return end != nullptr && *end == '\0' && !token.empty() && errno == 0;
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
            out.cplx_values[ku] = dcomplex(re, im);
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
    bool found = false, continued = false;
    std::string saved, record;
    auto finish = [&] {
        if (open_file) unit_close(unit);
    };

    for (;;) {
        const int ios = unit_read(unit, record);
        if (ios < 0) break;
        if (ios > 0) {
            finish();
            fatal_error("Problem reading from file " + name + "IO STATUS CODE = ", ios,
                        "get_keyword", mod);
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
            const std::string squeezed = blank_free_upper(stmt);
            if (squeezed.empty() || squeezed.compare(0, key.size(), key) != 0) continue;
            if (type != 'K' && (squeezed.size() <= key.size() || squeezed[key.size()] != equals))
                continue;
            ++count;
            if (occurrence > 0 && count != occurrence) continue;

            if (type == 'K') {
                n_found = 1;
                status = kw_ok;
                finish();
                return;
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
                finish();
                return;
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
                finish();
                return;
            }
            if (max_values > 0 && n > max_values) n = max_values;
            const int room = static_cast<int>(receiver_size(out, type));
            if (n > room) n = room;
            if (!read_values(value, type, n, out)) {
                status = kw_bad_value;
                n_found = 0;
                finish();
                return;
            }
            n_found = n;
            finish();
            return;
        }
    }
    finish();
    if (!found) status = kw_not_found;
}

int iscan(int value, std::span<const int> list) {
    for (std::size_t i = 0; i < list.size(); ++i)
        if (list[i] == value) return static_cast<int>(i) + 1;
    return -1;
}

void ucase(std::string& s) {
    upper(s);
}
void lcase(std::string& s) {
    lower(s);
}

namespace {

// The classical heap sort on 1-based positions; idx, when given, moves along.
void heap_sort(std::span<int> a, std::vector<int>* idx) {
    const int n = static_cast<int>(a.size());
    if (n < 2) return; // nothing to order (the sift loop needs two elements)
    auto at = [&](int i) -> int& { return a[static_cast<std::size_t>(i - 1)]; };
    auto ix = [&](int i) -> int& { return (*idx)[static_cast<std::size_t>(i - 1)]; };
    int l = n / 2 + 1, ir = n;
    for (;;) {
        int rra, rri = 0;
        if (l > 1) {
            --l;
            rra = at(l);
            if (idx) rri = ix(l);
        } else {
            rra = at(ir);
            if (idx) rri = ix(ir);
            at(ir) = at(1);
            if (idx) ix(ir) = ix(1);
            if (--ir == 1) {
                at(1) = rra;
                if (idx) ix(1) = rri;
                return;
            }
        }
        int i = l, j = l + l;
        while (j <= ir) {
            if (j < ir && at(j) < at(j + 1)) ++j;
            if (rra < at(j)) {
                at(i) = at(j);
                if (idx) ix(i) = ix(j);
                i = j;
                j += j;
            } else {
                j = ir + 1;
            }
        }
        at(i) = rra;
        if (idx) ix(i) = rri;
    }
}

} // namespace

void isort(std::span<int> a) {
    heap_sort(a, nullptr);
}

void rsort(std::span<int> a, std::span<int> index) {
    if (index.empty()) {
        heap_sort(a, nullptr);
        return;
    }
    std::vector<int> work(a.size());
    for (std::size_t i = 0; i < work.size(); ++i) work[i] = static_cast<int>(i) + 1;
    heap_sort(a, &work);
    for (std::size_t i = 0; i < work.size() && i < index.size(); ++i) index[i] = work[i];
}

void cross_product(double* c, const double* a, const double* b) {
    c[0] = a[1] * b[2] - a[2] * b[1];
    c[1] = a[2] * b[0] - a[0] * b[2];
    c[2] = a[0] * b[1] - a[1] * b[0];
}

double abs_vector(const double* v) {
    return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

double det_2by2_val(double a, double b, double c, double d) {
    return a * d - b * c;
}

double det_2by2(const double* m) {
    return m[3] * m[0] - m[1] * m[2];
}

double det_3by3(const double* m) {
    // Expansion along the first stored column: m(1,1), m(2,1), m(3,1).
    return m[0] * det_2by2_val(m[4], m[7], m[5], m[8]) -
           m[1] * det_2by2_val(m[3], m[6], m[5], m[8]) +
           m[2] * det_2by2_val(m[3], m[6], m[4], m[7]);
}

void inverse_matrix_3by3(double* inv, const double* m) {
    const double det = det_3by3(m);
    auto a = [&](int i, int j) { return m[(i - 1) + 3 * (j - 1)]; };
    auto set = [&](int i, int j, double v) { inv[(i - 1) + 3 * (j - 1)] = v / det; };
    set(1, 1, a(2, 2) * a(3, 3) - a(2, 3) * a(3, 2));
    set(1, 2, a(1, 3) * a(3, 2) - a(1, 2) * a(3, 3));
    set(1, 3, a(1, 2) * a(2, 3) - a(1, 3) * a(2, 2));
    set(2, 1, a(2, 3) * a(3, 1) - a(2, 1) * a(3, 3));
    set(2, 2, a(1, 1) * a(3, 3) - a(1, 3) * a(3, 1));
    set(2, 3, a(1, 3) * a(2, 1) - a(1, 1) * a(2, 3));
    set(3, 1, a(2, 1) * a(3, 2) - a(2, 2) * a(3, 1));
    set(3, 2, a(1, 2) * a(3, 1) - a(1, 1) * a(3, 2));
    set(3, 3, a(1, 1) * a(2, 2) - a(1, 2) * a(2, 1));
}

void spline(std::span<const double> x, std::span<const double> y, double yp1, double ypn,
            std::span<double> y2, double* y_min, double* y_max) {
    const std::size_t n = x.size();
    if (y_min != nullptr) {
        *y_min = 1.7976931348623157e+308;
        for (double v : y) *y_min = std::min(*y_min, v);
    }
    if (y_max != nullptr) {
        *y_max = -1.7976931348623157e+308;
        for (double v : y) *y_max = std::max(*y_max, v);
    }
    if (n < 2) return;
    std::vector<double> u(n);
    if (yp1 >= spline_natural) {
        y2[0] = 0.0;
        u[0] = 0.0;
    } else {
        y2[0] = -0.5;
        u[0] = (3.0 / (x[1] - x[0])) * ((y[1] - y[0]) / (x[1] - x[0]) - yp1);
    }
    for (std::size_t i = 1; i + 1 < n; ++i) {
        const double sig = (x[i] - x[i - 1]) / (x[i + 1] - x[i - 1]);
        const double p = sig * y2[i - 1] + 2.0;
        y2[i] = (sig - 1.0) / p;
        u[i] =
            (6.0 * ((y[i + 1] - y[i]) / (x[i + 1] - x[i]) - (y[i] - y[i - 1]) / (x[i] - x[i - 1])) /
                 (x[i + 1] - x[i - 1]) -
             sig * u[i - 1]) /
            p;
    }
    double qn, un;
    if (ypn >= spline_natural) {
        qn = 0.0;
        un = 0.0;
    } else {
        qn = 0.5;
        un = (3.0 / (x[n - 1] - x[n - 2])) * (ypn - (y[n - 1] - y[n - 2]) / (x[n - 1] - x[n - 2]));
    }
    y2[n - 1] = (un - qn * u[n - 2]) / (qn * y2[n - 2] + 1.0);
    for (std::size_t k = n - 1; k-- > 0;) y2[k] = y2[k] * y2[k + 1] + u[k];
}

namespace {

// Bracket of x in xa by bisection; 0-based klo, khi.
void bracket(std::span<const double> xa, double x, std::size_t& klo, std::size_t& khi,
             const char* proc) {
    const std::size_t n = xa.size();
    if (n == 0 || x < xa[0] || x > xa[n - 1]) fatal_error("X is out of bounds", 0, proc, mod);
    klo = 0;
    khi = n - 1;
    while (khi - klo > 1) {
        const std::size_t k = (khi + klo) / 2;
        if (xa[k] > x)
            khi = k;
        else
            klo = k;
    }
    if (xa[khi] - xa[klo] == 0.0) write_free(stdout_unit, {"Bad XA input."});
}

} // namespace

void splint(std::span<const double> xa, std::span<const double> ya, std::span<const double> y2a,
            double x, double& y) {
    std::size_t klo, khi;
    bracket(xa, x, klo, khi, "splint");
    const double h = xa[khi] - xa[klo];
    const double a = (xa[khi] - x) / h, b = (x - xa[klo]) / h;
    y = a * ya[klo] + b * ya[khi] +
        ((a * a * a - a) * y2a[klo] + (b * b * b - b) * y2a[khi]) * h * h / 6.0;
}

void splintd(std::span<const double> xa, std::span<const double> ya, std::span<const double> y2a,
             double x, double& y, double& dy) {
    std::size_t klo, khi;
    bracket(xa, x, klo, khi, "splintd");
    const double h = xa[khi] - xa[klo];
    const double a = (xa[khi] - x) / h, b = (x - xa[klo]) / h;
    y = a * ya[klo] + b * ya[khi] +
        ((a * a * a - a) * y2a[klo] + (b * b * b - b) * y2a[khi]) * h * h / 6.0;
    dy = (ya[khi] - ya[klo]) / h +
         ((3.0 * b * b - 1.0) * y2a[khi] - (3.0 * a * a - 1.0) * y2a[klo]) * h / 6.0;
}

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
