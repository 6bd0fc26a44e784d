#include "system/kpt_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/mpi_module.hpp"
#include "system/box_module.hpp"

#include <cmath>

namespace lyrt {

namespace {
constexpr const char* mod = "kpt_module";
}

void kpt_allocate(kpt_type& kpt, int n) {
    const char* proc = "kpt_allocate";
    kpt.n_k = n;
    ca_real_2d(kpt.k_cart, 1, 3, 1, n, "kpt%k_cart", proc, mod);
    ca_real_2d(kpt.k_cell, 1, 3, 1, n, "kpt%k_cell", proc, mod);
    ca_real_1d(kpt.weight, 1, n, "kpt%weight", proc, mod);
    kpt.phase.clear();
    kpt.phase.resize(static_cast<std::size_t>(n));
}

void kpt_deallocate(kpt_type& kpt) {
    const char* proc = "kpt_deallocate";
    if (kpt.k_cart.allocated()) cd_real_2d(kpt.k_cart, "kpt%k_cart", proc, mod);
    if (kpt.k_cell.allocated()) cd_real_2d(kpt.k_cell, "kpt%k_cell", proc, mod);
    if (kpt.weight.allocated()) cd_real_1d(kpt.weight, "kpt%weight", proc, mod);
    kpt.phase.clear();
    kpt.n_k = 0;
}

void kpt_read_and_allocate(kpt_type& kpt, const farray<double, 2>& b, std::string_view /*file*/,
                           int /*unit*/) {
    const char* proc = "kpt_read_and_allocate";
    if (kpt.n_k > 0) kpt_deallocate(kpt);
    kpt_allocate(kpt, 1);
    kpt.k_cell(1, 1) = kpt.k_cell(2, 1) = kpt.k_cell(3, 1) = 0.0;
    kpt.weight(1) = 1.0;
    for (int ik = 1; ik <= kpt.n_k; ++ik)
        for (int a = 1; a <= 3; ++a) {
            double s = 0.0;
            for (int c = 1; c <= 3; ++c) s += b(c, a) * kpt.k_cell(c, ik); // transposed b
            kpt.k_cart(a, ik) = 6.283185307179586 * s;
        }
    double sum = 0.0;
    for (int ik = 1; ik <= kpt.n_k; ++ik) sum += kpt.weight(ik);
    if (sum <= 0.0) fatal_error("Sum of weights is <= 0.0", -1, proc, mod);
    for (int ik = 1; ik <= kpt.n_k; ++ik) kpt.weight(ik) /= sum;
}

void kpt_print(const kpt_type& /*kpt*/, const farray<double, 2>& /*b*/, int unit) {
    write_free(unit, {"k-points:"});
    write_free(unit, {" Cell units                          Weight     Cartesian units"});
    write_free(unit, {"GAMMA POINT ASSUMED"});
}

void kpt_bcast(kpt_type& kpt) {
    bcast_int(kpt.n_k);
    bcast_real_mat(kpt.k_cart);
    bcast_real_mat(kpt.k_cell);
    bcast_real_vec(kpt.weight);
}

void kpt_init_phase(kpt_type& /*kpt*/, const box_type& /*box*/) {
    fatal_error("kpt_init_phase called for GAMMA version", -1, "kpt_init_phase", mod);
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

dcomplex kpt_get_phase(const kpt_type& kpt, const box_type& box, int ik, int i, int j, int nn) {
    // exp(i k.(r_j + R - r_i)) from the vector of the neighbour entry; 1 at gamma.
    const double* r = nn > 0 ? &ions_nn_list(box.ions, i).r_ij(1, nn) : nullptr;
    if (r == nullptr || j == 0) return dcomplex(1.0, 0.0);
    double c, s;
    kpt_calc_phase(c, s, kpt, ik, r);
    return dcomplex(c, s);
}

} // namespace lyrt
