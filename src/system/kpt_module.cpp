#include "system/kpt_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/mpi_module.hpp"
#include "system/box_module.hpp"

#include <cmath>
#include <cstdlib>
#include <filesystem>

namespace lyrt {

namespace {

constexpr const char* mod = "kpt_module";
constexpr double two_pi = 6.283185307179586;
// Two points in cell units are the same when they differ by integers to this.
constexpr double same_point = 1e-8;

// The distance of x from the nearest integer.
double off_integer(double x) {
    return std::fabs(x - std::nearbyint(x));
}

bool same_modulo_lattice(const double* a, const double* b) {
    return off_integer(a[0] - b[0]) < same_point && off_integer(a[1] - b[1]) < same_point &&
           off_integer(a[2] - b[2]) < same_point;
}

// ---- the file ---------------------------------------------------------------------

[[noreturn]] void bad_file(const std::string& file, int line, const std::string& what) {
    fatal_error("error reading file " + file + (line > 0 ? ", line " + std::to_string(line) : "") +
                    ": " + what,
                line, "kpt_read_and_allocate", mod);
}

// The words of a record, with everything after '!' left out.
std::vector<std::string> words_of(const std::string& record) {
    std::string text = record.substr(0, record.find('!'));
    for (char& c : text)
        if (c == '=' || c == ',' || c == '\t') c = ' ';
    std::vector<std::string> out;
    std::size_t p = 0;
    while (p < text.size()) {
        const std::size_t q = text.find(' ', p);
        const std::size_t e = q == std::string::npos ? text.size() : q;
        if (e > p) out.push_back(text.substr(p, e - p));
        p = e + 1;
    }
    return out;
}

double finite_number(const std::string& word, const std::string& file, int line) {
    char* end = nullptr;
    const double v = std::strtod(word.c_str(), &end);
    if (end == word.c_str() || *end != '\0' || !std::isfinite(v))
        bad_file(file, line, "\"" + word + "\" is not a finite number");
    return v;
}

int whole_number(const std::string& word, const std::string& file, int line, int lowest) {
    char* end = nullptr;
    const long v = std::strtol(word.c_str(), &end, 10);
    if (end == word.c_str() || *end != '\0' || v < lowest || v > 1000000)
        bad_file(file, line,
                 "\"" + word + "\" is not a whole number of " + std::to_string(lowest) +
                     " or more");
    return static_cast<int>(v);
}

struct kpts_file {
    std::string name;
    std::vector<std::vector<std::string>> lines; // the words of the records that have any
    std::vector<int> number;                     // their line numbers
};

kpts_file read_kpts(const std::string& file, int unit) {
    kpts_file f{file, {}, {}};
    if (unit_open(unit, file, "old") != 0) bad_file(file, 0, "the file cannot be opened");
    std::string record;
    int line = 0;
    while (unit_read(unit, record) == 0) {
        ++line;
        std::vector<std::string> w = words_of(record);
        if (w.empty()) continue;
        f.lines.push_back(std::move(w));
        f.number.push_back(line);
    }
    unit_close(unit);
    return f;
}

std::string lower_case(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The n lines of a block after its keyword line at position p.
void need_lines(const kpts_file& f, std::size_t p, int n, const char* block) {
    const std::size_t left = f.lines.size() - 1 - p;
    if (static_cast<std::size_t>(n) > left)
        bad_file(f.name, f.number[p],
                 "the " + std::string(block) + " block announces " + std::to_string(n) +
                     " lines but the file has only " + std::to_string(left) + " after it");
}

} // namespace

void kpt_allocate(kpt_type& kpt, int n) {
    const char* proc = "kpt_allocate";
    kpt.n_k = n;
    ca_real_2d(kpt.k_cart, 1, 3, 1, n, "kpt%k_cart", proc, mod);
    ca_real_2d(kpt.k_cell, 1, 3, 1, n, "kpt%k_cell", proc, mod);
    ca_real_1d(kpt.weight, 1, n, "kpt%weight", proc, mod);
    kpt.phase.clear();
    kpt.phase.resize(static_cast<std::size_t>(n));
    kpt.real_point.assign(static_cast<std::size_t>(n), 1);
    kpt.label.assign(static_cast<std::size_t>(n), "");
    kpt.path_x.assign(static_cast<std::size_t>(n), 0.0);
}

void kpt_deallocate(kpt_type& kpt) {
    const char* proc = "kpt_deallocate";
    if (kpt.k_cart.allocated()) cd_real_2d(kpt.k_cart, "kpt%k_cart", proc, mod);
    if (kpt.k_cell.allocated()) cd_real_2d(kpt.k_cell, "kpt%k_cell", proc, mod);
    if (kpt.weight.allocated()) cd_real_1d(kpt.weight, "kpt%weight", proc, mod);
    kpt.phase.clear();
    kpt.real_point.clear();
    kpt.label.clear();
    kpt.path_x.clear();
    kpt.n_k = 0;
}

void kpt_update_cart(kpt_type& kpt, const farray<double, 2>& b) {
    for (int ik = 1; ik <= kpt.n_k; ++ik)
        for (int a = 1; a <= 3; ++a) {
            double s = 0.0;
            for (int c = 1; c <= 3; ++c) s += b(c, a) * kpt.k_cell(c, ik); // transposed b
            kpt.k_cart(a, ik) = two_pi * s;
        }
}

std::vector<double> kpt_grid_points(const int* n, const double* s) {
    std::vector<double> k;
    k.reserve(static_cast<std::size_t>(3 * n[0] * n[1] * n[2]));
    for (int i = 0; i < n[0]; ++i)
        for (int j = 0; j < n[1]; ++j)
            for (int l = 0; l < n[2]; ++l) {
                const int m[3] = {i, j, l};
                for (int c = 0; c < 3; ++c) {
                    // Folded into (-1/2, 1/2].
                    double x = (m[c] + s[c]) / n[c];
                    x -= std::ceil(x - 0.5);
                    k.push_back(x);
                }
            }
    return k;
}

void kpt_set_points(kpt_type& kpt, const farray<double, 2>& b, const std::vector<double>& k_cell,
                    const std::vector<double>& weight, bool keep_all) {
    const char* proc = "kpt_read_and_allocate";
    const std::size_t n_in = weight.size();
    std::vector<double> kk;
    std::vector<double> ww;
    for (std::size_t p = 0; p < n_in; ++p) {
        const double* k = &k_cell[3 * p];
        bool merged = false;
        if (!keep_all)
            for (std::size_t q = 0; q < ww.size() && !merged; ++q) {
                const double* o = &kk[3 * q];
                const double minus[3] = {-k[0], -k[1], -k[2]};
                if (same_modulo_lattice(k, o) || same_modulo_lattice(minus, o)) {
                    ww[q] += weight[p];
                    merged = true;
                }
            }
        if (merged) continue;
        kk.insert(kk.end(), k, k + 3);
        ww.push_back(weight[p]);
    }
    if (kpt.n_k > 0) kpt_deallocate(kpt);
    kpt_allocate(kpt, static_cast<int>(ww.size()));
    double sum = 0.0;
    for (int ik = 1; ik <= kpt.n_k; ++ik) {
        for (int c = 1; c <= 3; ++c) kpt.k_cell(c, ik) = kk[3 * (ik - 1) + (c - 1)];
        kpt.weight(ik) = ww[static_cast<std::size_t>(ik - 1)];
        sum += kpt.weight(ik);
        bool real = true;
        for (int c = 1; c <= 3; ++c)
            real = real && off_integer(2.0 * kpt.k_cell(c, ik)) < same_point;
        kpt.real_point[static_cast<std::size_t>(ik - 1)] = real ? 1 : 0;
    }
    if (sum <= 0.0) fatal_error("Sum of weights is <= 0.0", -1, proc, mod);
    for (int ik = 1; ik <= kpt.n_k; ++ik) kpt.weight(ik) /= sum;
    kpt_update_cart(kpt, b);
}

void kpt_read_and_allocate(kpt_type& kpt, const farray<double, 2>& b, std::string_view file,
                           int unit) {
    const std::string name(file);
    if (name.empty() || !std::filesystem::exists(name)) {
        kpt.mode = kpt_mode_gamma;
        kpt_set_points(kpt, b, {0.0, 0.0, 0.0}, {1.0}, true);
        return;
    }
    const kpts_file f = read_kpts(name, unit);
    std::vector<double> k, w;
    int mode = kpt_mode_gamma;
    bool shifted = false;
    double shift[3] = {0.0, 0.0, 0.0};
    int grid[3] = {1, 1, 1};
    std::vector<std::string> labels;
    std::vector<int> counts;
    for (std::size_t p = 0; p < f.lines.size(); ++p) {
        const std::vector<std::string>& l = f.lines[p];
        const std::string key = lower_case(l[0]);
        const int line = f.number[p];
        const auto need = [&](std::size_t n_words) {
            if (l.size() != n_words)
                bad_file(name, line,
                         key + " takes " + std::to_string(n_words - 1) + " value" +
                             (n_words > 2 ? "s" : ""));
        };
        const auto only_one = [&](int m) {
            if (mode != kpt_mode_gamma && mode != m)
                bad_file(name, line, "grid, points and path exclude one another");
            if (mode == m) bad_file(name, line, key + " is given twice");
            mode = m;
        };
        if (key == "grid") {
            only_one(kpt_mode_grid);
            need(4);
            for (int c = 0; c < 3; ++c) grid[c] = whole_number(l[1 + c], name, line, 1);
        } else if (key == "shift") {
            need(4);
            if (shifted) bad_file(name, line, "shift is given twice");
            shifted = true;
            for (int c = 0; c < 3; ++c) shift[c] = finite_number(l[1 + c], name, line);
        } else if (key == "points" || key == "path") {
            const bool path = key == "path";
            only_one(path ? kpt_mode_path : kpt_mode_points);
            need(2);
            const int n = whole_number(l[1], name, line, path ? 2 : 1);
            need_lines(f, p, n, key.c_str());
            for (int i = 1; i <= n; ++i) {
                const std::vector<std::string>& r = f.lines[p + static_cast<std::size_t>(i)];
                const int rl = f.number[p + static_cast<std::size_t>(i)];
                const std::size_t first = path ? 1 : 0, width = path ? 5 : 4;
                const bool last = path && i == n;
                if (r.size() != width && !(last && r.size() == width - 1))
                    bad_file(name, rl,
                             path ? "a corner of the path is: label k1 k2 k3 points-to-the-next"
                                  : "a point is: k1 k2 k3 weight");
                for (std::size_t c = 0; c < 3; ++c)
                    k.push_back(finite_number(r[first + c], name, rl));
                if (path) {
                    labels.push_back(r[0]);
                    counts.push_back(last ? 0 : whole_number(r[4], name, rl, 1));
                } else {
                    const double wt = finite_number(r[3], name, rl);
                    if (!(wt > 0.0)) bad_file(name, rl, "a weight must be above 0");
                    w.push_back(wt);
                }
            }
            p += static_cast<std::size_t>(n);
        } else {
            bad_file(name, line,
                     "unknown keyword \"" + l[0] + "\" (known: grid, shift, points, path)");
        }
    }
    if (mode == kpt_mode_gamma) bad_file(name, 0, "the file gives no grid, points or path");
    if (shifted && mode != kpt_mode_grid) bad_file(name, 0, "shift belongs to a grid");
    kpt.mode = mode;
    if (mode == kpt_mode_grid) {
        k = kpt_grid_points(grid, shift);
        w.assign(k.size() / 3, 1.0);
        kpt_set_points(kpt, b, k, w, false);
        for (int c = 0; c < 3; ++c) {
            kpt.grid[c] = grid[c];
            kpt.shift[c] = shift[c];
        }
    } else if (mode == kpt_mode_points) {
        kpt_set_points(kpt, b, k, w, false);
    } else {
        // The path: the corners and the points between them, each of equal weight.
        std::vector<double> pk;
        std::vector<std::string> pl;
        std::vector<double> px;
        double x = 0.0;
        const std::size_t n_c = labels.size();
        kpt_set_points(kpt, b, {0.0, 0.0, 0.0}, {1.0}, true); // for the Cartesian scale
        for (std::size_t c = 0; c < n_c; ++c) {
            const int steps = c + 1 < n_c ? counts[c] : 1;
            for (int s = 0; s < steps; ++s) {
                double q[3];
                for (int d = 0; d < 3; ++d) {
                    const double a = k[3 * c + d];
                    q[d] = c + 1 < n_c ? a + (k[3 * (c + 1) + d] - a) * s / steps : a;
                }
                if (!pk.empty()) {
                    double dk[3] = {0, 0, 0};
                    for (int d = 0; d < 3; ++d)
                        for (int e = 0; e < 3; ++e)
                            dk[d] += two_pi * b(e + 1, d + 1) * (q[e] - pk[pk.size() - 3 + e]);
                    x += std::sqrt(dk[0] * dk[0] + dk[1] * dk[1] + dk[2] * dk[2]);
                }
                pk.insert(pk.end(), q, q + 3);
                pl.push_back(s == 0 ? labels[c] : "");
                px.push_back(x);
            }
        }
        kpt_set_points(kpt, b, pk, std::vector<double>(px.size(), 1.0), true);
        kpt.mode = kpt_mode_path;
        kpt.label = pl;
        kpt.path_x = px;
    }
}

bool kpt_general(const kpt_type& kpt) {
    if (kpt.n_k != 1) return true;
    if (!kpt.k_cell.allocated()) return false; // a bare record of one point is the gamma point
    return kpt.k_cell(1, 1) != 0.0 || kpt.k_cell(2, 1) != 0.0 || kpt.k_cell(3, 1) != 0.0;
}

dcomplex kpt_lattice_phase(const kpt_type& kpt, int ik, const int* n) {
    const double x = kpt.k_cell(1, ik) * n[0] + kpt.k_cell(2, ik) * n[1] + kpt.k_cell(3, ik) * n[2];
    if (kpt.real_point[static_cast<std::size_t>(ik - 1)] != 0) {
        // k.n is a multiple of one half.
        const long h = std::lround(2.0 * x);
        return dcomplex(h % 2 == 0 ? 1.0 : -1.0, 0.0);
    }
    const double f = x - std::nearbyint(x);
    return dcomplex(std::cos(two_pi * f), std::sin(two_pi * f));
}

void kpt_print(const kpt_type& kpt, const farray<double, 2>& /*b*/, int unit) {
    write_free(unit, {"k-points:"});
    write_free(unit, {" Cell units                          Weight     Cartesian units"});
    if (!kpt_general(kpt)) {
        write_free(unit, {"GAMMA POINT ASSUMED"});
        return;
    }
    if (kpt.mode == kpt_mode_grid)
        write_fmt(unit, "(A,3I4,A,3F8.4,A,I6,A)",
                  {" grid ", kpt.grid[0], kpt.grid[1], kpt.grid[2], ", shift ", kpt.shift[0],
                   kpt.shift[1], kpt.shift[2], ": ", kpt.n_k, " points after time reversal"});
    for (int ik = 1; ik <= kpt.n_k; ++ik)
        write_fmt(unit, "(3F11.6,F14.10,3F11.6,A,A)",
                  {kpt.k_cell(1, ik), kpt.k_cell(2, ik), kpt.k_cell(3, ik), kpt.weight(ik),
                   kpt.k_cart(1, ik), kpt.k_cart(2, ik), kpt.k_cart(3, ik),
                   kpt.real_point[static_cast<std::size_t>(ik - 1)] != 0 ? "  real" : "",
                   kpt.label[static_cast<std::size_t>(ik - 1)].empty()
                       ? std::string()
                       : "  " + kpt.label[static_cast<std::size_t>(ik - 1)]});
}

void kpt_bcast(kpt_type& kpt) {
    bcast_int(kpt.n_k);
    bcast_real_mat(kpt.k_cart);
    bcast_real_mat(kpt.k_cell);
    bcast_real_vec(kpt.weight);
}

void kpt_init_phase(kpt_type& kpt, const box_type& box) {
    if (!kpt_general(kpt))
        fatal_error("kpt_init_phase called for GAMMA version", -1, "kpt_init_phase", mod);
    kpt_reinit_phase(kpt, box);
}

void kpt_reinit_phase(kpt_type& kpt, const box_type& box) {
    const char* proc = "kpt_reinit_phase";
    const int n = box.ions.total_n_ions;
    const int n_ic = box.ic_list.n_nn;
    for (kpt_phase_type& ph : kpt.phase) {
        if (ph.cos_kl.allocated()) {
            cd_real_1d(ph.cos_kl, "kpt%phase(ik)%cos_kl", proc, mod);
            cd_real_1d(ph.sin_kl, "kpt%phase(ik)%sin_kl", proc, mod);
            cd_real_2d(ph.cos_kr, "kpt%phase(ik)%cos_kr", proc, mod);
            cd_real_2d(ph.sin_kr, "kpt%phase(ik)%sin_kr", proc, mod);
        }
        ca_real_1d(ph.cos_kl, 1, n_ic, "kpt%phase(ik)%cos_kl", proc, mod);
        ca_real_1d(ph.sin_kl, 1, n_ic, "kpt%phase(ik)%sin_kl", proc, mod);
        ca_real_2d(ph.cos_kr, 1, n, 1, 1, "kpt%phase(ik)%cos_kr", proc, mod);
        ca_real_2d(ph.sin_kr, 1, n, 1, 1, "kpt%phase(ik)%sin_kr", proc, mod);
    }
    kpt_calc_phase_factors(kpt, box);
}

void kpt_calc_phase(double& c, double& s, const kpt_type& kpt, int ik, const double* r) {
    const double kr =
        kpt.k_cart(1, ik) * r[0] + kpt.k_cart(2, ik) * r[1] + kpt.k_cart(3, ik) * r[2];
    c = std::cos(kr);
    s = std::sin(kr);
}

void kpt_calc_phase_factors(kpt_type& kpt, const box_type& box) {
    for (int ik = 1; ik <= kpt.n_k; ++ik) {
        kpt_phase_type& ph = kpt.phase[static_cast<std::size_t>(ik - 1)];
        if (!ph.cos_kl.allocated()) continue;
        for (int l = 1; l <= box.ic_list.n_nn && l <= static_cast<int>(ph.cos_kl.extent(0)); ++l)
            kpt_calc_phase(ph.cos_kl(l), ph.sin_kl(l), kpt, ik, &box.ic_list.r_ij(1, l));
        for (int i = 1; i <= box.ions.total_n_ions && i <= static_cast<int>(ph.cos_kr.extent(0));
             ++i)
            kpt_calc_phase(ph.cos_kr(i, 1), ph.sin_kr(i, 1), kpt, ik, &box.ions.r(1, i));
    }
}

dcomplex kpt_get_phase(const kpt_type& kpt, const box_type& box, int ik, int i, int /*j*/, int nn) {
    // exp(i k.L) of the lattice vector L of the entry: the image of the neighbour
    // (r_ij - (r_j - r_i)) and, with explicit images, the image cell too.
    if (nn <= 0) return dcomplex(1.0, 0.0);
    const nn_list_type& nl = ions_nn_list(box.ions, i);
    if (box.explicit_images) return kpt_lattice_phase(kpt, ik, &nl.trans(1, nn));
    const int jn = nl.index(nn);
    double d[3];
    for (int c = 0; c < 3; ++c)
        d[c] = nl.r_ij(c + 1, nn) - box.ions.r(c + 1, jn) + box.ions.r(c + 1, i);
    int n[3];
    const double* b = box.cell.b.data();
    for (int c = 0; c < 3; ++c)
        n[c] = static_cast<int>(std::lround(b[c] * d[0] + b[c + 3] * d[1] + b[c + 6] * d[2]));
    return kpt_lattice_phase(kpt, ik, n);
}

} // namespace lyrt
