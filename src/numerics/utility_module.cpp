#include "numerics/utility_module.hpp"

#include "base/dlexlib.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace lyrt {

namespace {
constexpr const char* mod = "utility_module";
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
