#include "model_support.hpp"
#include "numerics/lapack_module.hpp"

#include "test_support.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

namespace lyrt_test {

using namespace lyrt;

species_set read_species_set(const std::string& name) {
    auto lines =
        read_lines(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data" / (name + ".tbparam"));
    species_set s;
    std::size_t k = 0;
    s.token = lines[k++];
    ++k; // title
    ++k; // species count
    s.r0_l0 = lines[k++];
    s.count = std::stoi(lines[k++]);
    s.mass = lines[k++];
    s.electrons = lines[k++];
    for (int i = 0; i < 17; ++i) s.onsite.push_back(lines[k++]);
    for (int i = 0; i < 40; ++i) s.h.push_back(lines[k++]);
    // An orthogonal set has no overlap section.
    for (int i = 0; i < 40 && k < lines.size(); ++i) s.s.push_back(lines[k++]);
    return s;
}

std::string one_species_file(const species_set& a, int count, const std::string& token) {
    std::ostringstream f;
    f << (token.empty() ? a.token : token) << "\ntest set\n1\n"
      << a.r0_l0 << "\n"
      << (count > 0 ? count : a.count) << "\n"
      << a.mass << "\n"
      << a.electrons << "\n";
    for (const auto& v : a.onsite) f << v << "\n";
    for (const auto& v : a.h) f << v << "\n";
    for (const auto& v : a.s) f << v << "\n";
    return f.str();
}

namespace {

void onsite_without_a(std::ostringstream& f, const species_set& a) {
    for (int c = 0; c < 4; ++c)
        for (int k = 1; k < 4; ++k) f << a.onsite[static_cast<std::size_t>(1 + 4 * c + k)] << "\n";
}

} // namespace

std::string two_species_file(const species_set& a, const species_set& b,
                             const std::vector<double>& cross_h, const std::vector<double>& cross_s,
                             const std::string& token) {
    std::ostringstream f;
    f.precision(17);
    f << token << "\ntwo species\n2\n" << a.r0_l0 << "\n" << b.r0_l0 << "\n" << a.r0_l0 << "\n";
    for (const species_set* s : {&a, &b})
        f << s->count << "\n" << s->mass << "\n" << s->electrons << "\n";
    for (const auto& v : a.onsite) f << v << "\n";
    for (const auto& v : b.onsite) f << v << "\n";
    onsite_without_a(f, a); // (1,2): density of species 2 at species 1
    onsite_without_a(f, b); // (2,1)
    for (const auto& v : a.h) f << v << "\n";
    for (const auto& v : b.h) f << v << "\n";
    for (double v : cross_h) f << v << "\n";
    for (const auto& v : a.s) f << v << "\n";
    for (const auto& v : b.s) f << v << "\n";
    for (double v : cross_s) f << v << "\n";
    return f.str();
}

std::vector<double> copy_cross(const std::vector<std::string>& forty) {
    std::vector<double> v;
    for (const auto& x : forty) v.push_back(std::stod(x));
    // Extras pss, dss, dps, dpp as the file writes them: -sps, +sds, -pds, -pdp.
    const int from[4] = {1, 4, 5, 6}; // integral numbers of sps, sds, pds, pdp in file order
    const double sign[4] = {-1.0, 1.0, -1.0, -1.0};
    for (int t = 0; t < 4; ++t)
        for (int c = 0; c < 4; ++c)
            v.push_back(sign[t] * v[static_cast<std::size_t>(c + 4 * from[t])]);
    return v;
}

void zero_onsite_density(species_set& a) {
    for (int c = 0; c < 4; ++c)
        for (int k = 1; k < 4; ++k) a.onsite[static_cast<std::size_t>(1 + 4 * c + k)] = "0.0";
}

void build_system(model_system& s, const std::filesystem::path& dir, const std::string& poslyrt,
                  const std::string& tbparam, double r_cut) {
    write_text(dir / "POSLYRT", poslyrt);
    write_text(dir / "TBPARAM", tbparam);
    ions_read_in(s.box, s.box.ions, (dir / "POSLYRT").string());
    tb_model_read_param(s.box.ions.species, s.model, (dir / "TBPARAM").string(),
                        s.box.ions.n_species);
    pbc_build_nn_lists(s.box, r_cut > 0 ? r_cut : s.model.r_cut);
    pdist_init(s.pd, s.box.ions.total_n_ions, 1, 1, 0, "bl");
    hamiltonian_init(s.ham, s.box.ions, s.model, s.pd, s.pd);
    calc_hs_real(s.ham, s.box.ions, s.box);
}

void rebuild(model_system& s) {
    box_init(s.box, s.box.r_cut);
    box_calc_ic_list(s.box);
    box_reset(s.box);
    box_init_sb_list(s.box);
    box_ions_fill_sb(s.box);
    pbc_calc_nn_lists(s.box);
    hamiltonian_reinit(s.ham, s.box.ions);
    calc_hs_real(s.ham, s.box.ions, s.box);
}

void gamma_point(kpt_type& kpt, double sigma) {
    kpt.n_k = 1;
    kpt.weight.allocate({1}, {1});
    kpt.weight(1) = 1.0;
    kpt.k_cart.allocate({1, 1}, {3, 1});
    kpt.sigma = sigma;
}

void electronic_records_init(electronic_records& r, model_system& s, double sigma, bool charges,
                             int n_states) {
    ions_type& ions = s.box.ions;
    // Points set beforehand (a k-point test) stay; otherwise the gamma point.
    if (r.kpt.n_k == 0)
        gamma_point(r.kpt, sigma);
    else
        r.kpt.sigma = sigma;
    scc_model_init(r.scc, ions, charges, false);
    const int n_dim = s.ham.desc.n_row;
    if (n_states == 0) n_states = sigma > 0.0 ? n_dim : static_cast<int>(r.scc.q_total) / 2;
    eig_state_allocate(r.eig, n_dim, n_states, r.scc.q_total, 1, 1, s.model.non_orthogonal, 'V',
                       r.kpt);
    r.elec.eig = &r.eig;
    r.elec.scc = &r.scc;
    r.st.ions = &ions;
    r.st.box = &s.box;
    r.ea.scc_used = charges;
    r.ea.scc_mixer = scc_mixer_broyden;
    r.ea.charge_mixing = 0.2;
    r.ea.energy_tol = 1e-13;
    r.ea.charge_tol = 1e-11;
    r.ea.max_iter = 400;
    r.ea.min_iter = 1;
    ions.qion.fill(0.0);
}

void electronic_records_free(electronic_records& r) {
    eig_state_deallocate(r.eig);
    scc_model_fine(r.scc);
}

double minus_central_difference(model_system& s, int i, int x, double h,
                                const std::function<double()>& energy) {
    // The whole array is restored: a rebuild may wrap a displaced ion into the cell.
    farray<double, 2>& r = s.box.ions.r;
    const farray<double, 2> r0 = r.copy();
    double e[2];
    for (int k = 0; k < 2; ++k) {
        std::copy(r0.begin(), r0.end(), r.begin());
        r(x, i) += k == 0 ? h : -h;
        rebuild(s);
        e[k] = energy();
    }
    std::copy(r0.begin(), r0.end(), r.begin());
    rebuild(s);
    return -(e[0] - e[1]) / (2.0 * h);
}

void dense(model_system& s, farray<double, 2>& h, farray<double, 2>& sm) {
    const int n = s.ham.desc.n_row;
    h.allocate({1, 1}, {n, n});
    if (s.model.non_orthogonal) {
        sm.allocate({1, 1}, {n, n});
        get_hs_ij_real(s.ham, &h, &sm, nullptr);
    } else {
        get_hs_ij_real(s.ham, &h, nullptr, nullptr);
    }
}

std::vector<double> symmetric_eigenvalues(const farray<double, 2>& m) {
    const int n = static_cast<int>(m.extent(0));
    farray<double, 2> a = m.copy();
    std::vector<double> w(static_cast<std::size_t>(n)), work(static_cast<std::size_t>(8 * n + 8));
    const int lwork = static_cast<int>(work.size());
    int info = 0;
    dsyev_("N", "U", &n, a.data(), &n, w.data(), work.data(), &lwork, &info);
    EXPECT_EQ(info, 0);
    return w;
}

} // namespace lyrt_test
