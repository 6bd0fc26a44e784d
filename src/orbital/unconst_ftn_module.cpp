#include "orbital/unconst_ftn_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/pzeros.hpp"
#include "operators/acum_delem_module_2.hpp"

#include <algorithm>
#include <cmath>

namespace lyrt {

namespace {

constexpr const char* mod = "unconst_ftn_module";

// The block density matrices of the forces, kept between calls.
farray<double, 2> dh_dm;
farray<double, 1> dm_diag;

// S0 P and S0 D: the overlap products, or the orbitals themselves in an
// orthogonal model.
const farray<double, 2>& s0_psi(const cg_state_type& cg) {
    return cg.non_orthogonal ? cg.s_psi : cg.psi;
}

// q += the populations 2 sum over the rows of ion i and the columns of a b.
void project_add(const hamiltonian_type& ham, const cg_state_type& cg, const farray<double, 2>& a,
                 const farray<double, 2>& b, farray<double, 1>& q, farray<double, 1>& work) {
    project_on_atom_gen(ham, cg, cg.non_orthogonal, a, b, work);
    for (long i = 1; i <= q.extent(0); ++i) q(i) += work(i);
}

// b -= a, element by element.
void subtract(const farray<double, 2>& a, farray<double, 2>& b) {
    const std::size_t n = a.size();
    for (std::size_t k = 0; k < n; ++k) b.data()[k] -= a.data()[k];
}

void reserve_forces(const hamiltonian_type& ham) {
    const char* proc = "forces_cg_min";
    const long u = ham.dh_ab.extent(0), l = ham.dh_ab.extent(1), n = ham.desc.n_row;
    if (dh_dm.allocated() && (dh_dm.extent(0) != u || dh_dm.extent(1) != l))
        cd_real_2d(dh_dm, "dh_dm", proc, mod);
    if (!dh_dm.allocated()) ca_real_2d(dh_dm, 1, u, 1, l, "dh_dm", proc, mod);
    if (dm_diag.allocated() && dm_diag.extent(0) != n) cd_real_1d(dm_diag, "dm_diag", proc, mod);
    if (!dm_diag.allocated()) ca_real_1d(dm_diag, 1, n, "dm_diag", proc, mod);
}

} // namespace

double calc_gradient(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc, double eta,
                     farray<double, 1>& q) {
    const trace_guard trace("calc_gradient", mod);
    // 1. S and Q of the orbitals.
    if (cg.non_orthogonal) {
        hs_psi_cg(ham, cg, cg.psi, ham.s_ab, cg.s_psi);
        calc_dm_ab(cg, cg.psi, cg.s_psi, cg.s_dm);
    } else {
        calc_dm_aa(cg, cg.psi, cg.s_dm);
    }
    calc_q_dm(cg, cg.s_dm, cg.q_dm);
    // 2. The charges of the present orbitals renew the effective Hamiltonian.
    if (scc.used) {
        wf_mult_dm_ab(cg, cg.psi, cg.q_dm, cg.q_psi);
        calc_atomic_charge(ham, cg, q);
        for (long i = 1; i <= q.extent(0); ++i) q(i) -= scc.qi0(i);
        cal_charge_aux(scc, q, scc.qaux);
        setup_scc_heff(ham, scc, eta);
    }
    // 3.-6. Energy and gradient.
    hs_psi_cg(ham, cg, cg.psi, scc.heff, cg.h_psi);
    calc_dm_ab(cg, cg.psi, cg.h_psi, cg.h_dm);
    const double e = 2.0 * trace_abdm(cg, cg.h_dm, cg.q_dm);
    wf_mult_dm_ab(cg, cg.h_psi, cg.q_dm, cg.hq_psi);
    wf_mult_dm_ab(cg, s0_psi(cg), cg.h_dm, cg.sh_psi);
    sum_gradient(cg, cg.hq_psi, cg.sh_psi);
    return e + get_scc_detot(scc, eta, q);
}

void calc_line_poly(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc, double /*eta*/,
                    std::vector<double>& poly) {
    const trace_guard trace("calc_line_poly", mod);
    // A = sym(P' S0 D), B = D' S0 D; S0 D is kept in sh_psi for the charge terms.
    if (cg.non_orthogonal) {
        hs_psi_cg(ham, cg, cg.dir, ham.s_ab, cg.sh_psi);
        calc_dm_ab(cg, cg.psi, cg.sh_psi, cg.a_dm, 'S');
        calc_dm_ab(cg, cg.dir, cg.sh_psi, cg.b_dm);
    } else {
        calc_dm_ab(cg, cg.psi, cg.dir, cg.a_dm, 'S');
        calc_dm_aa(cg, cg.dir, cg.b_dm);
    }
    // C = sym(P' H0 D), G = D' H0 D.
    hs_psi_cg(ham, cg, cg.dir, scc.heff, cg.hq_psi);
    calc_dm_ab(cg, cg.psi, cg.hq_psi, cg.c_dm, 'S');
    calc_dm_ab(cg, cg.dir, cg.hq_psi, cg.d_dm);
    // E(l) = 2 Tr[(Q - l A - l^2 B)(H + l C + l^2 G)].
    const double qc = trace_abdm(cg, cg.q_dm, cg.c_dm), ah = trace_abdm(cg, cg.a_dm, cg.h_dm);
    const double qg = trace_abdm(cg, cg.q_dm, cg.d_dm), bh = trace_abdm(cg, cg.b_dm, cg.h_dm);
    const double ac = trace_abdm(cg, cg.a_dm, cg.c_dm), bc = trace_abdm(cg, cg.b_dm, cg.c_dm);
    const double ag = trace_abdm(cg, cg.a_dm, cg.d_dm), bg = trace_abdm(cg, cg.b_dm, cg.d_dm);
    poly[1] = 2.0 * (qc - ah);
    poly[2] = 2.0 * (qg - bh - ac);
    poly[3] = -2.0 * (bc + ag);
    poly[4] = -2.0 * bg;
    if (scc.used && poly.size() > 5) calc_line_poly_scc(ham, cg, scc, poly);
}

void calc_line_poly_scc(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc,
                        std::vector<double>& poly) {
    const trace_guard trace("calc_line_poly_hubbard", mod);
    check_aux_orbital(cg);
    // Along P(l) = P + l D the populations of 2 P(l) Q(l) P(l)' S0 are a quartic in
    // l, from P(l) Q(l) = P Q + l (D Q - P A) - l^2 (P B + D A) - l^3 D B and
    // S0 P(l) = S0 P + l S0 D.
    farray<double, 2>& x1 = cg.aux_orb_1; // D Q - P A
    farray<double, 2>& x2 = cg.aux_orb_2; // -(P B + D A)
    farray<double, 2>& x3 = cg.aux_orb_3; // -D B
    wf_mult_dm_ab(cg, cg.psi, cg.a_dm, cg.aux_orb_4);
    wf_mult_dm_ab(cg, cg.dir, cg.q_dm, x1);
    subtract(cg.aux_orb_4, x1);
    wf_mult_dm_ab(cg, cg.dir, cg.a_dm, cg.aux_orb_5);
    wf_mult_dm_ab(cg, cg.psi, cg.b_dm, x2);
    for (std::size_t k = 0; k < x2.size(); ++k)
        x2.data()[k] = -x2.data()[k] - cg.aux_orb_5.data()[k];
    wf_mult_dm_ab(cg, cg.dir, cg.b_dm, x3);
    for (double& v : x3) v = -v;
    const farray<double, 2>& sp = s0_psi(cg);
    const farray<double, 2>& sd = cg.non_orthogonal ? cg.sh_psi : cg.dir;
    // The population change of degree k, k = 1..4, in qi_k; U times it in qaux_k.
    farray<double, 1>* qi[4] = {&scc.qi_1, &scc.qi_2, &scc.qi_3, &scc.qi_4};
    farray<double, 1>* qa[4] = {&scc.qaux_1, &scc.qaux_2, &scc.qaux_3, &scc.qaux_4};
    farray<double, 1> work;
    work.allocate({1}, {scc.qi0.extent(0)});
    for (farray<double, 1>* v : qi) v->fill(0.0);
    project_add(ham, cg, cg.q_psi, sd, *qi[0], work);
    project_add(ham, cg, x1, sp, *qi[0], work);
    project_add(ham, cg, x1, sd, *qi[1], work);
    project_add(ham, cg, x2, sp, *qi[1], work);
    project_add(ham, cg, x2, sd, *qi[2], work);
    project_add(ham, cg, x3, sp, *qi[2], work);
    project_add(ham, cg, x3, sd, *qi[3], work);
    for (int k = 0; k < 4; ++k) cal_charge_aux(scc, *qi[k], *qa[k]);
    // The quartic of calc_line_poly holds the charge term to first order (the
    // potential of the charges at l = 0); the rest is 1/2 sum_i U_i dq_i(l)^2.
    for (int j = 1; j <= 4; ++j)
        for (int k = 1; k <= 4; ++k)
            poly[static_cast<std::size_t>(j + k)] += 0.5 * qsum(cg, *qa[j - 1], *qi[k - 1]);
}

void solve_line_min(const std::vector<double>& poly, std::vector<double>& extrema, double& lambda) {
    lambda = 0.0;
    extrema.clear();
    // The true degree; a line without slope at 0 (a zero direction) or without
    // curvature has no minimum to go to, and the root finder must not see it.
    std::size_t deg = poly.size() - 1;
    while (deg > 0 && poly[deg] == 0.0) --deg;
    if (deg < 2 || poly[1] == 0.0) return;
    int n_roots = 0;
    find_poly_extremas_iter(std::span<const double>(poly.data(), deg + 1), extrema, n_roots);
    double best = 10000000000.0;
    for (const double x : extrema)
        if (x > 0.0 && x <= best &&
            x * (poly[1] + x * (poly[2] + x * (poly[3] + x * poly[4]))) < 0.0)
            best = x;
    lambda = best <= 10.0 ? best : 0.0;
}

void calc_elocal_cg(const hamiltonian_type& ham, cg_state_type& cg, scc_type& scc, double eta,
                    const farray<double, 1>& q, farray<double, 1>& elocal) {
    const trace_guard trace("calc_elocal_cg", mod);
    if (!scc.used) wf_mult_dm_ab(cg, cg.psi, cg.q_dm, cg.q_psi);
    farray<double, 1> work;
    work.allocate({1}, {elocal.extent(0)});
    project_on_atom_gen(ham, cg, cg.non_orthogonal, cg.psi, cg.hq_psi, work);
    for (long i = 1; i <= elocal.extent(0); ++i) elocal(i) += work(i);
    if (scc.used) {
        get_scc_deloc(scc, eta, q, elocal);
        return;
    }
    // The shift eta of H0 given back per ion, by its population.
    calc_atomic_charge(ham, cg, work);
    for (long i = 1; i <= elocal.extent(0); ++i) elocal(i) += eta * work(i);
}

void purify_cg_state(cg_state_type& cg, const hamiltonian_type& ham) {
    std::copy(cg.psi.begin(), cg.psi.end(), cg.psi_old.begin());
    if (cg.non_orthogonal) {
        hs_psi_cg(ham, cg, cg.psi, ham.s_ab, cg.s_psi);
        calc_dm_ab(cg, cg.psi, cg.s_psi, cg.s_dm);
    } else {
        calc_dm_ab(cg, cg.psi, cg.psi, cg.s_dm);
    }
    wf_mult_dm_ab_xx(cg, cg.psi_old, cg.s_dm, cg.psi, -0.5);
}

double charge_total(const cg_state_type& cg, const scc_type& scc, const farray<double, 1>& q) {
    if (!scc.used) return 2.0 * trace_abdm(cg, cg.q_dm, cg.s_dm);
    double s = scc.q_total;
    for (long i = 1; i <= q.extent(0); ++i) s += q(i);
    return s;
}

void forces_cg_min(hamiltonian_type& ham, farray<double, 2>& forces_out, cg_state_type& cg,
                   scc_type& scc, double eta, double boost, const farray<bool, 1>* boost_active) {
    const trace_guard trace("forces_cg_min", mod);
    const bool non_orth = cg.non_orthogonal, on_site = ham.tb_model->on_site_env;
    reserve_forces(ham);
    forces_out.fill(0.0);
    // dE/dR at fixed orbitals: 2 Tr[Q P' dH0 P] - 2 Tr[P' dS0 P h], h = P' H0 P.
    if (!scc.used) wf_mult_dm_ab(cg, cg.psi, cg.q_dm, cg.q_psi);
    setup_dh_dm(ham, cg, cg.psi, cg.q_psi, dh_dm, on_site ? &dm_diag : nullptr);
    if (scc.used && non_orth) modify_dh_ab(ham, scc, eta);
    acum_dm_boost_r(ham, 2.0, forces_out, dh_dm, ham.dh_ab, boost, boost_active,
                    on_site ? &dm_diag : nullptr, on_site ? &ham.dh_aa : nullptr);
    if (non_orth) {
        if (!scc.used && eta != 0.0)
            acum_dm_boost_r(ham, -2.0 * eta, forces_out, dh_dm, ham.ds_ab, boost, boost_active,
                            nullptr, nullptr);
        wf_mult_dm_ab(cg, cg.psi, cg.h_dm, cg.hq_psi);
        setup_dh_dm(ham, cg, cg.psi, cg.hq_psi, dh_dm);
        acum_dm_boost_r(ham, -2.0, forces_out, dh_dm, ham.ds_ab, boost, boost_active, nullptr,
                        nullptr);
    }
    if (scc.used) add_forces_scc(scc);
}

void unconst_ftn_reset() {
    if (dh_dm.allocated()) cd_real_2d(dh_dm, "dh_dm", "unconst_ftn_reset", mod);
    if (dm_diag.allocated()) cd_real_1d(dm_diag, "dm_diag", "unconst_ftn_reset", mod);
}

} // namespace lyrt
