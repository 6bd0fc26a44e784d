#include "model/scc_model_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/fitpoly.hpp"

#include <algorithm>
#include <cmath>

namespace lyrt {

namespace {
constexpr const char* mod = "scc_model_module";
}

void scc_model_init(scc_type& scc, const ions_type& ions, bool used, bool orbital_solver) {
    const char* proc = "scc_model_init";
    scc_model_fine(scc);
    const int n = ions.total_n_ions;
    scc.ions = &ions;
    scc.used = used;
    ca_real_1d(scc.qi0, 1, n, "qi0", proc, mod);
    ca_real_1d(scc.qaux, 1, n, "qaux", proc, mod);
    ca_real_1d(scc.uu, 1, n, "uu", proc, mod);
    scc.q_total = 0.0;
    for (int i = 1; i <= n; ++i) {
        const atomic_type& sp = ions.species[static_cast<std::size_t>(ions.type(i) - 1)];
        scc.qi0(i) = sp.elec_occ[0] + sp.elec_occ[1] + sp.elec_occ[2];
        scc.uu(i) = sp.hubbard_u;
        scc.q_total += scc.qi0(i);
    }
    if (used) {
        ca_real_1d(scc.qi_1, 1, n, "qi_1", proc, mod);
        ca_real_1d(scc.qi_2, 1, n, "qi_2", proc, mod);
        if (orbital_solver) {
            ca_real_1d(scc.qaux_1, 1, n, "qaux_1", proc, mod);
            ca_real_1d(scc.qi_3, 1, n, "qi_3", proc, mod);
            ca_real_1d(scc.qi_4, 1, n, "qi_4", proc, mod);
            ca_real_1d(scc.qaux_2, 1, n, "qaux_2", proc, mod);
            ca_real_1d(scc.qaux_3, 1, n, "qaux_3", proc, mod);
            ca_real_1d(scc.qaux_4, 1, n, "qaux_4", proc, mod);
        }
    }
}

void scc_model_fine(scc_type& scc) {
    const char* proc = "scc_model_fine";
    const std::pair<farray<double, 1>*, const char*> arrays[] = {
        {&scc.qi0, "qi0"},       {&scc.qaux, "qaux"},     {&scc.uu, "uu"},
        {&scc.qi_1, "qi_1"},     {&scc.qi_2, "qi_2"},     {&scc.qaux_1, "qaux_1"},
        {&scc.qi_3, "qi_3"},     {&scc.qi_4, "qi_4"},     {&scc.qaux_2, "qaux_2"},
        {&scc.qaux_3, "qaux_3"}, {&scc.qaux_4, "qaux_4"}, {&scc.heff_diag, "scc%heff_diag"}};
    for (const auto& [a, name] : arrays)
        if (a->allocated()) cd_real_1d(*a, name, proc, mod);
    if (scc.heff.allocated()) cd_real_2d(scc.heff, "scc%heff", proc, mod);
}

void cal_charge_aux(const scc_type& scc, const farray<double, 1>& q, farray<double, 1>& qaux) {
    qaux.fill(0.0);
    // Every ion is local to the one process.
    for (long i = 1; i <= static_cast<long>(scc.uu.extent(0)); ++i) qaux(i) = scc.uu(i) * q(i);
}

double get_scc_detot(const scc_type& scc, double x, const farray<double, 1>& q) {
    const trace_guard trace("get_scc_energy", mod);
    double e = x * scc.q_total;
    if (scc.used) {
        double s1 = 0.0, s2 = 0.0;
        for (long i = 1; i <= static_cast<long>(scc.qaux.extent(0)); ++i) {
            s1 += scc.qaux(i) * q(i);
            s2 += scc.qaux(i) * scc.qi0(i);
        }
        e -= 0.5 * s1 + s2;
    }
    return e;
}

void get_scc_deloc(const scc_type& scc, double x, const farray<double, 1>& q,
                   farray<double, 1>& e_local) {
    if (!scc.used) return;
    for (long i = 1; i <= static_cast<long>(scc.qaux.extent(0)); ++i)
        e_local(i) += x * (q(i) + scc.qi0(i)) - (scc.qi0(i) + 0.5 * q(i)) * scc.qaux(i);
}

namespace {

void build_heff(const hamiltonian_type& ham, scc_type& scc, double eta, bool charges) {
    const trace_guard trace("setup_heff", mod);
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    if (scc.heff.allocated() &&
        (scc.heff.extent(0) != ham.h_ab.extent(0) || scc.heff.extent(1) != ham.h_ab.extent(1)))
        cd_real_2d(scc.heff, "scc%heff", "setup_heff", mod);
    if (!scc.heff.allocated())
        ca_real_2d(scc.heff, 1, ham.h_ab.extent(0), 1, ham.h_ab.extent(1), "scc%heff", "setup_heff",
                   mod);
    const bool non_orth = ham.tb_model->non_orthogonal;
    for (int il = 1; il <= pd.l_n; ++il) {
        const int ig = pd.l2g(il);
        for (long l = 1; l <= ham.h_ab.extent(0); ++l) scc.heff(l, il) = ham.h_ab(l, il);
        const double qi = charges ? scc.qaux(ig) : 0.0;
        if (!non_orth) {
            // S is the unit matrix: only the diagonal of the ion's own block moves.
            const int d = sd.row_block_dim(ig);
            const int l0 = sd.ublock_offset(1, ig);
            for (int a = 0; a < d; ++a) scc.heff(l0 + a + d * a, il) += qi - eta;
            continue;
        }
        for (int k = 1; k <= sd.n_blocks(ig); ++k) {
            const int jg = sd.block_index(k, ig);
            const double f = (charges ? 0.5 * (qi + scc.qaux(jg)) : 0.0) - eta;
            const int l0 = sd.ublock_offset(k, ig);
            for (int l = l0; l < l0 + sd.ublock_dim(k, ig); ++l)
                scc.heff(l, il) += f * ham.s_ab(l, il);
        }
    }
}

} // namespace

void setup_heff(const hamiltonian_type& ham, scc_type& scc, double eta) {
    build_heff(ham, scc, eta, false);
}

void setup_scc_heff(const hamiltonian_type& ham, scc_type& scc, double eta) {
    build_heff(ham, scc, eta, scc.used);
}

void modify_dh_ab(hamiltonian_type& ham, const scc_type& scc, double eta) {
    const sparse_1d_matrix_desc_type& sd = ham.desc;
    const pdist_type& pd = *sd.row_pdist;
    for (int x = 1; x <= 3; ++x)
        for (int il = 1; il <= pd.l_n; ++il) {
            const int ig = pd.l2g(il);
            for (int k = 1; k <= sd.n_blocks(ig); ++k) {
                const double f = 0.5 * (scc.qaux(ig) + scc.qaux(sd.block_index(k, ig))) - eta;
                const int l0 = sd.ublock_offset(k, ig);
                for (int l = l0; l < l0 + sd.ublock_dim(k, ig); ++l)
                    ham.dh_ab(l, il, x) += f * ham.ds_ab(l, il, x);
            }
        }
}

void calc_gamma(scc_type& /*scc*/) {}
void add_forces_scc(const scc_type& /*scc*/) {}

void scc_mixer_mix(scc_mixer_type& m, std::vector<double>& x, const std::vector<double>& r) {
    constexpr std::size_t depth = 8;
    const std::size_t n = x.size();
    if (!m.x_prev.empty()) {
        std::vector<double> a(n), b(n);
        for (std::size_t i = 0; i < n; ++i) {
            a[i] = x[i] - m.x_prev[i];
            b[i] = r[i] - m.r_prev[i];
        }
        m.dx.push_back(std::move(a));
        m.dr.push_back(std::move(b));
        if (m.dx.size() > depth) {
            m.dx.erase(m.dx.begin());
            m.dr.erase(m.dr.begin());
        }
    }
    m.x_prev = x;
    m.r_prev = r;
    const std::size_t k = m.dr.size();
    std::vector<double> g(k, 0.0);
    if (k > 0) {
        // Normal equations of the fit (symmetric), slightly regularised.
        std::vector<double> a(k * k), rhs(k);
        double trace = 0.0;
        for (std::size_t p = 0; p < k; ++p) {
            for (std::size_t q = 0; q < k; ++q) {
                double d = 0.0;
                for (std::size_t i = 0; i < n; ++i) d += m.dr[p][i] * m.dr[q][i];
                a[p * k + q] = d;
            }
            double d = 0.0;
            for (std::size_t i = 0; i < n; ++i) d += m.dr[p][i] * r[i];
            rhs[p] = d;
            trace += a[p * k + p];
        }
        for (std::size_t p = 0; p < k; ++p) a[p * k + p] += 1e-12 * trace + 1e-300;
        // A singular fit falls back to the plain step.
        if (gaussj(a, static_cast<int>(k), rhs, 1)) g = rhs;
    }
    for (std::size_t i = 0; i < n; ++i) {
        double v = x[i] + m.beta * r[i];
        for (std::size_t j = 0; j < k; ++j) v -= g[j] * (m.dx[j][i] + m.beta * m.dr[j][i]);
        x[i] = v;
    }
}

double scc_mix_charges(ions_type& ions, scc_type& scc, const elec_algo_type& elec_algo,
                       scc_mixer_type& m) {
    const int n = ions.total_n_ions;
    std::vector<double> q_in(static_cast<std::size_t>(n)), q_res(static_cast<std::size_t>(n));
    double dq_max = 0.0;
    for (int i = 1; i <= n; ++i) {
        scc.qi_1(i) -= scc.qi0(i);
        q_in[static_cast<std::size_t>(i - 1)] = ions.qion(i);
        q_res[static_cast<std::size_t>(i - 1)] = scc.qi_1(i) - ions.qion(i);
        dq_max = std::max(dq_max, std::fabs(scc.qi_1(i) - ions.qion(i)));
    }
    if (elec_algo.scc_mixer == scc_mixer_broyden) {
        scc_mixer_mix(m, q_in, q_res);
        for (int i = 1; i <= n; ++i) ions.qion(i) = q_in[static_cast<std::size_t>(i - 1)];
    } else {
        const double mix = elec_algo.charge_mixing;
        for (int i = 1; i <= n; ++i) ions.qion(i) = (1.0 - mix) * ions.qion(i) + mix * scc.qi_1(i);
    }
    cal_charge_aux(scc, ions.qion, scc.qaux);
    return dq_max;
}

} // namespace lyrt
