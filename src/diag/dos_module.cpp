#include "diag/dos_module.hpp"

#include "base/error_module.hpp"
#include "base/format_module.hpp"
#include "base/io_module.hpp"
#include "diag/pdiag_module.hpp"
#include "model/tb_hs_module.hpp"
#include "numerics/lapack_module.hpp"
#include "operators/hs_psi_module.hpp"
#include "parallel/mpi_module.hpp"

#include <algorithm>
#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "dos_module";
const char* const shell_name[3] = {"s", "p", "d"};

// The shell (0 s, 1 p, 2 d) of orbital number o (1..9).
int shell_of(int o) {
    return o == 1 ? 0 : (o <= 4 ? 1 : 2);
}

// The groups species x shell present in the model, and the group of each row.
void set_groups(dos_type& dos, const hamiltonian_type& ham, const ions_type& ions, int n_dim) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    std::vector<int> index(static_cast<std::size_t>(3 * ions.n_species), -1);
    dos.column.assign(1, "total");
    for (int t = 1; t <= ions.n_species; ++t) {
        const ao_type& ao = pair_param(*ham.tb_model, t, t).ao1;
        for (int o = 1; o <= 9; ++o) {
            int& g = index[static_cast<std::size_t>(3 * (t - 1) + shell_of(o))];
            if (aop(o, ao) == 0 || g >= 0) continue;
            g = static_cast<int>(dos.column.size()) - 1;
            std::string sym = ions.species[static_cast<std::size_t>(t - 1)].symbol;
            sym.erase(sym.find_last_not_of(' ') + 1);
            dos.column.push_back(sym + "_" + shell_name[shell_of(o)]);
        }
    }
    dos.group_of_row.assign(static_cast<std::size_t>(n_dim), 0);
    for (int ig = 1; ig <= sd.row_pdist->n; ++ig) {
        const int t = ions.type(ig);
        const ao_type& ao = pair_param(*ham.tb_model, t, t).ao1;
        for (int o = 1; o <= 9; ++o) {
            const int place = aop(o, ao);
            if (place == 0) continue;
            dos.group_of_row[static_cast<std::size_t>(sd.row_block_offset(ig) + place - 2)] =
                index[static_cast<std::size_t>(3 * (t - 1) + shell_of(o))];
        }
    }
}

// The Mulliken weights Re[conj(c_mu) (S c)_mu] of the states of every point summed
// by group into dos.proj, each process adding what it holds; one global sum.
void project_states(dos_type& dos, hamiltonian_type& ham, const ions_type& ions,
                    const box_type& box, eig_state_type& eig) {
    const char* proc = "dos_calc";
    const int n_dim = eig.n_dim, ns = eig.n_states, nk = eig.kpt->n_k;
    const int ng = static_cast<int>(dos.column.size()) - 1;
    const bool non_orth = ham.tb_model->non_orthogonal;
    dos.proj.assign(static_cast<std::size_t>(ng) * ns * nk, 0.0);
    auto at = [&](int g, int s, int k) -> double& {
        return dos.proj[static_cast<std::size_t>(g) +
                        static_cast<std::size_t>(ng) *
                            (static_cast<std::size_t>(s - 1) +
                             static_cast<std::size_t>(ns) * static_cast<std::size_t>(k - 1))];
    };
    auto group = [&](int r) { return dos.group_of_row[static_cast<std::size_t>(r - 1)]; };
    if (kpt_general(*eig.kpt)) {
        farray<dcomplex, 2> y;
        y.allocate({1, 1}, {n_dim, ns});
        for (int k = 1; k <= nk; ++k) {
            if (!eig_kpt_mine(eig, k)) continue;
            const farray<dcomplex, 2>& psi = eig_kpt_states(eig, k);
            if (non_orth) {
                get_hs_ij_complex(ham, ions, *eig.kpt, k, nullptr, &eig.zs, nullptr);
                const dcomplex one(1.0, 0.0), zero(0.0, 0.0);
                zgemm_("N", "N", &n_dim, &ns, &n_dim, &one, eig.zs.data(), &n_dim, psi.data(),
                       &n_dim, &zero, y.data(), &n_dim);
            }
            for (int s = 1; s <= ns; ++s)
                for (int r = 1; r <= n_dim; ++r)
                    at(group(r), s, k) +=
                        (std::conj(psi(r, s)) * (non_orth ? y(r, s) : psi(r, s))).real();
        }
    } else if (eig_distributed(eig)) {
        if (non_orth) pdiag_form_s_z(ham, eig);
        const blacs_distr_type& d = eig.d;
        const farray<double, 2>& sz = non_orth ? eig.sz_loc : eig.z_loc;
        for (int lr = 1; lr <= d.l_m; ++lr) {
            const int r = bc_global(lr, d.mb, d.nprow, d.myrow);
            for (int lc = 1; lc <= d.l_n; ++lc) {
                const int s = bc_global(lc, d.nb, d.npcol, d.mycol);
                if (s <= ns) at(group(r), s, 1) += eig.z_loc(lr, lc) * sz(lr, lc);
            }
        }
    } else if (i_am_master) {
        // One process solved the gamma point: its states are here (in the file
        // WFS when memory holds none).
        if (eig.n_psi < nk)
            eig_state_read_psi_k(eig, 1, wfs_unit, "WFS", true);
        else
            eig_set_psi(eig, 1);
        farray<double, 2> y;
        if (non_orth) {
            calc_hs_real(ham, ions, box, "S");
            ca_real_2d(y, 1, n_dim, 1, ns, "y", proc, mod);
            s_psi_rmat(ham, eig.psi, y);
        }
        const farray<double, 2>& sc = non_orth ? y : eig.psi;
        for (int s = 1; s <= ns; ++s)
            for (int r = 1; r <= n_dim; ++r) at(group(r), s, 1) += eig.psi(r, s) * sc(r, s);
        if (y.allocated()) cd_real_2d(y, "y", proc, mod);
    }
    if (n_proc > 1) gsum_real_ptr(dos.proj.data(), static_cast<long>(dos.proj.size()));
}

} // namespace

void dos_calc(dos_type& dos, hamiltonian_type& ham, const ions_type& ions, const box_type& box,
              eig_state_type& eig, double width) {
    if (!(width > 0.0))
        fatal_error("the width of the density of states must be above 0", -1, "dos_calc", mod);
    dos.width = width;
    set_groups(dos, ham, ions, eig.n_dim);
    project_states(dos, ham, ions, box, eig);
    const int ns = eig.n_states, nk = eig.kpt->n_k;
    const int ng = static_cast<int>(dos.column.size()) - 1, nc = ng + 1;
    double lo = eig.en_i(1, 1), hi = eig.en_i(ns, 1);
    for (int k = 1; k <= nk; ++k) {
        lo = std::min(lo, eig.en_i(1, k));
        hi = std::max(hi, eig.en_i(ns, k));
    }
    // Five widths beyond the outer levels, a fifth of a width apart (no more than
    // 20001 energies).
    lo -= 5.0 * width;
    hi += 5.0 * width;
    const double step = std::max(0.2 * width, (hi - lo) / 20000.0);
    const int n_e = static_cast<int>(std::floor((hi - lo) / step)) + 1;
    dos.energy.resize(static_cast<std::size_t>(n_e));
    for (int i = 0; i < n_e; ++i) dos.energy[static_cast<std::size_t>(i)] = lo + i * step;
    dos.value.assign(static_cast<std::size_t>(n_e) * nc, 0.0);
    // Each level adds its Gaussian within seven widths, where it is above 1e-10 of
    // its peak; both spins, the point's weight.
    const double norm = 1.0 / (width * std::sqrt(2.0 * 3.141592653589793));
    const int reach = static_cast<int>(std::ceil(7.0 * width / step));
    for (int k = 1; k <= nk; ++k)
        for (int s = 1; s <= ns; ++s) {
            const double e = eig.en_i(s, k), w = 2.0 * eig.kpt->weight(k) * norm;
            const double* p =
                &dos.proj[static_cast<std::size_t>(ng) * (static_cast<std::size_t>(s - 1) +
                                                          static_cast<std::size_t>(ns) * (k - 1))];
            const int centre = static_cast<int>(std::lround((e - lo) / step));
            for (int i = std::max(0, centre - reach); i <= std::min(n_e - 1, centre + reach); ++i) {
                const double x = (dos.energy[static_cast<std::size_t>(i)] - e) / width;
                const double g = w * std::exp(-0.5 * x * x);
                double* row = &dos.value[static_cast<std::size_t>(i) * nc];
                row[0] += g;
                for (int c = 0; c < ng; ++c) row[c + 1] += g * p[c];
            }
        }
}

void dos_write(const dos_type& dos, const eig_state_type& eig, std::string_view file) {
    const std::size_t nc = dos.column.size();
    const int unit = next_free_unit();
    unit_open(unit, std::string(file), "replace");
    unit_write(unit, "# density of states (states/eV per cell, both spins) from " +
                         std::to_string(eig.kpt->n_k) + " points; Gaussian width (eV)" +
                         format_items("(F10.5)", {dos.width}) + "; Fermi level (eV)" +
                         format_items("(F12.5)", {eig.e_fermi}));
    std::string head = "# E (eV)";
    for (const std::string& c : dos.column) head += "  " + c;
    unit_write(unit, head);
    for (std::size_t i = 0; i < dos.energy.size(); ++i) {
        std::string line = format_items("(F12.5)", {dos.energy[i]});
        for (std::size_t c = 0; c < nc; ++c)
            line += format_items("(ES14.6)", {dos.value[i * nc + c]});
        unit_write(unit, line);
    }
    unit_close(unit);
}

} // namespace lyrt
