// The parameter file, the model functions and the Slater-Koster table.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "model_support.hpp"
#include "test_support.hpp"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

class ParameterFile : public lyrt_test::program_test {
  protected:
    std::string read_stop(const std::string& text, int n_species = 1) {
        write_text(dir / "TBPARAM", text);
        std::vector<atomic_type> species;
        tb_model_type model;
        try {
            tb_model_read_param(species, model, "TBPARAM", n_species);
        } catch (const fatal_stop& stop) {
            io_reset();
            open_units();
            return stop.message;
        }
        return "";
    }
};

TEST_F(ParameterFile, PublishedSetsReadConvertAndPrint) {
    for (const char* name : {"Si", "Cu"}) {
        std::vector<atomic_type> species;
        tb_model_type model;
        std::filesystem::copy_file(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data" /
                                       (std::string(name) + ".tbparam"),
                                   dir / name);
        tb_model_read_param(species, model, name, 1);
        const offsite_param_type& p = model.param[0];
        EXPECT_TRUE(model.non_orthogonal);
        EXPECT_FALSE(model.pair_pot);
        EXPECT_NEAR(model.r_cut, 12.5 * 0.529177, 1e-12); // 6.61 Angstrom
        EXPECT_NEAR(p.r0 + 5.0 * p.l0, model.r_cut, 1e-12);
        if (std::string(name) == "Si") {
            EXPECT_EQ(species[0].atomic_number, 14);
            EXPECT_EQ(model.max_no, 4);
            EXPECT_EQ(p.insul, 1);
            // sss of H: a in eV, the exponent squared and per Angstrom.
            EXPECT_NEAR(p.h_a.v[sk_sss], 219.560813651 * 13.6058, 1e-9);
            EXPECT_NEAR(p.h_d.v[sk_sss], 1.26439940008 * 1.26439940008 * 1.8897268777743552, 1e-12);
            EXPECT_NEAR(p.lambda2, std::pow(1.10356625153 * 1.3746733713047457, 2), 1e-12);
            // The atom: 2 s and 2 p electrons on the on-site a terms.
            EXPECT_NEAR(model.e_atom(1), 13.6058 * (2 * -0.0532334619024 + 2 * 0.357859715265),
                        1e-9);
            EXPECT_EQ(p.h_a.v[sk_pss], p.h_a.v[sk_sps]);
        } else {
            EXPECT_EQ(species[0].atomic_number, 29);
            EXPECT_EQ(model.max_no, 9);
            EXPECT_EQ(p.insul, 0);
            EXPECT_EQ(species[0].elec_occ[2], 10.0);
        }
        testing::internal::CaptureStdout();
        tb_model_print_param(model, stdout_unit);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("Hamiltonian off-site parameters"), std::string::npos);
        EXPECT_NE(out.find("  sss :"), std::string::npos);
        EXPECT_EQ(out.find("  dds :") != std::string::npos, std::string(name) == "Cu");
    }
}

TEST_F(ParameterFile, BadFilesStopWithClearMessages) {
    species_set si = read_species_set("Si");
    const std::string good = one_species_file(si);
    EXPECT_EQ(read_stop(one_species_file(si, 0, "NM00000")),
              "TBPARAM contains spin polarized parameters.Trying to run spin-polarized calculation "
              "with non-spin polarized version. Recompile code with -DSPIN.");
    EXPECT_EQ(read_stop(one_species_file(si, 0, "XX")),
              "unrecognised format for the parameter file TBPARAM");
    EXPECT_EQ(read_stop(good, 2), "# of species in TBPARAM inconsistent with POSLYRT");
    // Cut after the first H coefficients.
    const std::string cut = good.substr(0, good.find(si.h[3]));
    EXPECT_EQ(read_stop(cut), "error reading parameter file TBPARAM: H section of pair 1-1, sss "
                              "coefficient 4 (the file ends early)");
    std::string bad = good;
    bad.replace(bad.find(si.s[10]), si.s[10].size(), "1.0.0");
    EXPECT_EQ(read_stop(bad), "error reading parameter file TBPARAM: S section of pair 1-1, pps "
                              "coefficient 3 (not a number)");
    EXPECT_EQ(read_stop(one_species_file(si, 7)),
              "orbital count 7 of species 1 in TBPARAM is not one of 1, 3, 4, 5, 6, 8, 9");
    EXPECT_EQ(read_stop(""),
              "error reading parameter file TBPARAM: format token (the file ends early)");
    EXPECT_EQ(read_stop("NN\n"),
              "error reading parameter file TBPARAM: title (the file ends early)");
    EXPECT_EQ(read_stop("NN\nt\n1\n12.5 0.5\n4\n28.086\nfour\n"),
              "error reading parameter file TBPARAM: electron counts of species 1 (not a number)");
    io_reset();
    std::vector<atomic_type> species;
    tb_model_type model;
    try {
        tb_model_read_param(species, model, "NOFILE", 1);
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "problems opening file NOFILEiostat=");
    }
}

TEST_F(ParameterFile, TwoSpeciesOrderSignsAndElectronLine) {
    species_set cu = read_species_set("Cu"), si = read_species_set("Si");
    si.electrons = "2 2 0 1.5"; // a Hubbard U of 1.5 eV
    std::vector<double> h(56), s(56);
    for (int k = 0; k < 56; ++k) {
        h[static_cast<std::size_t>(k)] = 0.01 * (k + 1);
        s[static_cast<std::size_t>(k)] = -0.02 * (k + 1);
    }
    write_text(dir / "TBPARAM", two_species_file(cu, si, h, s, "NN"));
    std::vector<atomic_type> species;
    tb_model_type model;
    tb_model_read_param(species, model, "TBPARAM", 2);
    EXPECT_EQ(model.pair_index(1, 1), 1);
    EXPECT_EQ(model.pair_index(2, 2), 2);
    EXPECT_EQ(model.pair_index(1, 2), 3);
    EXPECT_EQ(model.pair_index(2, 1), 4);
    EXPECT_EQ(species[1].hubbard_u, 1.5);
    EXPECT_EQ(species[0].hubbard_u, 0.0);
    EXPECT_FALSE(model.same_orbitals);
    const offsite_param_type& p12 = pair_param(model, 1, 2);
    const offsite_param_type& p21 = pair_param(model, 2, 1);
    // a coefficients of H in eV: file value times 13.6058; sps is file integral 2.
    EXPECT_NEAR(p12.h_a.v[sk_sps], 0.05 * 13.6058, 1e-12);
    // The extras: pss = -(41st value), dss = +(45th), dps = -(49th), dpp = -(53rd).
    EXPECT_NEAR(p12.h_a.v[sk_pss], -0.41 * 13.6058, 1e-12);
    EXPECT_NEAR(p12.h_a.v[sk_dss], 0.45 * 13.6058, 1e-12);
    EXPECT_NEAR(p12.h_a.v[sk_dps], -0.49 * 13.6058, 1e-12);
    EXPECT_NEAR(p12.h_a.v[sk_dpp], -0.53 * 13.6058, 1e-12);
    // (2,1) is (1,2) with the atoms exchanged, signs kept.
    EXPECT_EQ(p21.h_a.v[sk_sps], p12.h_a.v[sk_pss]);
    EXPECT_EQ(p21.h_a.v[sk_pss], p12.h_a.v[sk_sps]);
    EXPECT_EQ(p21.h_a.v[sk_dpp], p12.h_a.v[sk_pdp]);
    EXPECT_EQ(p21.s_b.v[sk_dss], p12.s_b.v[sk_sds]);
    EXPECT_EQ(p12.ao1.mask, 511);
    EXPECT_EQ(p12.ao2.mask, 15);
    // The on-site of a cross pair has no a, and the lambda of the other species.
    EXPECT_EQ(p12.s.a, 0.0);
    EXPECT_EQ(p12.lambda, pair_param(model, 2, 2).lambda);
    auto err = read_lines(dir / "ERRLYRT");
    flush(error_unit);
    EXPECT_TRUE(model.non_orthogonal);
}

TEST(ModelFunctions, CutOffAndIntegrals) {
    const double r0 = 3.0, l = 0.2, r1 = r0 + 4 * l, r2 = r0 + 5 * l;
    EXPECT_EQ(f_cut(r2, r0, l), 0.0);
    EXPECT_EQ(f_cut_smooth(r2, r0, l), 0.0);
    EXPECT_EQ(f_cut_smooth(2.0, r0, l), 1.0);
    EXPECT_DOUBLE_EQ(f_cut(2.0, r0, l), 1.0 / (1.0 + std::exp((2.0 - r0) / l)));
    // df_cut is minus the logarithmic derivative of f_cut, inside and in the taper.
    for (double r : {2.5, 3.1, r1 + 0.05, r1 + 0.15}) {
        const double h = 1e-6;
        const double fd = (std::log(f_cut(r + h, r0, l)) - std::log(f_cut(r - h, r0, l))) / (2 * h);
        EXPECT_NEAR(df_cut(r, r0, l), -fd, 1e-6 * (1 + std::fabs(fd))) << r;
    }
    // At and beyond the reach of a pair the cut-off and its product with the
    // derivative are 0 (not 0/0), so a pair that ends inside the search radius
    // adds nothing to gradients.
    for (double r : {r2, r2 + 0.1, r2 + 5.0}) {
        EXPECT_TRUE(std::isfinite(df_cut(r, r0, l))) << r;
        EXPECT_EQ(f_cut(r, r0, l) * df_cut(r, r0, l), 0.0) << r;
    }
    // Radial derivatives of both integral forms against finite differences.
    sk_param_type c[4];
    for (int t = 0; t < n_sk; ++t) {
        c[0].v[t] = 1.0 + 0.1 * t;
        c[1].v[t] = -0.3 + 0.05 * t;
        c[2].v[t] = 0.02 * t - 0.1;
        c[3].v[t] = 0.8 + 0.01 * t;
    }
    ao_type spd;
    ao_init(spd, 511);
    for (double r : {1.5, 2.9, r1 + 0.1, r2 + 0.5}) {
        double x1[n_sk], x2[n_sk], dx[n_sk], y1[n_sk], y2[n_sk], dy[n_sk];
        const double h = 1e-6;
        calc_x_ij_sk_param(x1, c, r0, l, r + h, spd, spd);
        calc_x_ij_sk_param(x2, c, r0, l, r - h, spd, spd);
        calc_dx_ij_sk_param(dx, c, r0, l, r, spd, spd);
        calc_x_ij_sk_param_insul(y1, c, r0, l, r + h, spd, spd);
        calc_x_ij_sk_param_insul(y2, c, r0, l, r - h, spd, spd);
        calc_dx_ij_sk_param_insul(dy, c, r0, l, r, spd, spd);
        for (int t = 0; t < n_sk; ++t) {
            EXPECT_NEAR(dx[t], (x1[t] - x2[t]) / (2 * h), 1e-7) << t << " " << r;
            EXPECT_NEAR(dy[t], (y1[t] - y2[t]) / (2 * h), 1e-7) << t << " " << r;
        }
    }
    // At the reach itself the taper is flat: both radial derivatives are exactly 0.
    {
        double dx[n_sk], dy[n_sk];
        calc_dx_ij_sk_param(dx, c, r0, l, r2, spd, spd);
        calc_dx_ij_sk_param_insul(dy, c, r0, l, r2, spd, spd);
        for (int t = 0; t < n_sk; ++t) {
            EXPECT_EQ(dx[t], 0.0) << t;
            EXPECT_EQ(dy[t], 0.0) << t;
        }
    }
    // The constant term of the overlap form within one shell.
    double x0[n_sk];
    calc_x_ij_sk_param_insul(x0, c, r0, l, 0.0, spd, spd);
    EXPECT_DOUBLE_EQ(x0[sk_pps], f_cut(0.0, r0, l) * (1.0 + 0.0));
    EXPECT_DOUBLE_EQ(x0[sk_sps], 0.0);
    // The pair potential and its derivative.
    offsite_param_type p;
    p.core_ri = 1.0;
    p.core_ro = 2.5;
    EXPECT_EQ(pair_pot(p, 2.5 - 1e-6), 0.0);
    const double h = 1e-6, r = 1.7;
    EXPECT_NEAR(pair_pot_derivative(p, r), (pair_pot(p, r + h) - pair_pot(p, r - h)) / (2 * h),
                1e-6);
    EXPECT_GT(pair_pot(p, 0.9), 0.0); // below the inner radius: finite and small
    EXPECT_LT(pair_pot(p, 0.9), 1e-3);
}

// Blocks along the axes have the analytic two-centre values.
TEST(SlaterKoster, AxialBlocks) {
    ao_type spd, s_only;
    ao_init(spd, 511);
    ao_init(s_only, 1);
    double sk[14];
    for (int k = 0; k < 14; ++k) sk[k] = 0.1 * (k + 1) * (k % 2 ? -1 : 1);
    double b[81];
    auto at = [&](int r, int c) { return b[(r - 1) + 9 * (c - 1)]; };
    const double x[3] = {1, 0, 0}, z[3] = {0, 0, 1};
    calc_sk_block(x, sk, b, 9, spd, spd, false);
    EXPECT_DOUBLE_EQ(at(orb_s, orb_s), sk[sk_sss]);
    EXPECT_DOUBLE_EQ(at(orb_s, orb_px), sk[sk_sps]);
    EXPECT_DOUBLE_EQ(at(orb_px, orb_s), -sk[sk_sps]);
    EXPECT_DOUBLE_EQ(at(orb_px, orb_px), sk[sk_pps]);
    EXPECT_DOUBLE_EQ(at(orb_py, orb_py), sk[sk_ppp]);
    EXPECT_DOUBLE_EQ(at(orb_d3z2r2, orb_d3z2r2), 0.25 * sk[sk_dds] + 0.75 * sk[sk_ddd]);
    EXPECT_DOUBLE_EQ(at(orb_dx2y2, orb_dx2y2), 0.75 * sk[sk_dds] + 0.25 * sk[sk_ddd]);
    EXPECT_DOUBLE_EQ(at(orb_dxy, orb_dxy), sk[sk_ddp]);
    EXPECT_DOUBLE_EQ(at(orb_dyz, orb_dyz), sk[sk_ddd]);
    EXPECT_DOUBLE_EQ(at(orb_px, orb_dx2y2), 0.8660254037844386 * sk[sk_pds]);
    EXPECT_DOUBLE_EQ(at(orb_py, orb_dxy), sk[sk_pdp]);
    EXPECT_NEAR(at(orb_s, orb_d3z2r2), -0.5 * sk[sk_sds], 1e-15);
    calc_sk_block(z, sk, b, 9, spd, spd, true);
    EXPECT_DOUBLE_EQ(at(orb_d3z2r2, orb_d3z2r2), sk[sk_dds]);
    EXPECT_DOUBLE_EQ(at(orb_pz, orb_s), -sk[sk_pss]); // the mirror integral of a pair of species
    EXPECT_DOUBLE_EQ(at(orb_d3z2r2, orb_s), sk[sk_dss]);
    EXPECT_DOUBLE_EQ(at(orb_d3z2r2, orb_pz), -sk[sk_dps]);
    EXPECT_DOUBLE_EQ(at(orb_pz, orb_d3z2r2), sk[sk_pds]);
    EXPECT_DOUBLE_EQ(at(orb_dzx, orb_dzx), sk[sk_ddp]);
    // A block between s only and s p d is 1 by 9; absent orbitals stay untouched.
    for (double& v : b) v = 7.0;
    calc_sk_block(x, sk, b, 9, s_only, spd, false);
    EXPECT_DOUBLE_EQ(at(1, orb_px), sk[sk_sps]);
    EXPECT_EQ(at(2, 2), 7.0);
}

// Rotating the two atoms rotates the block like the orbitals: B(R lmn) = U B(lmn) U^T.
TEST(SlaterKoster, BlocksTransformLikeTheOrbitals) {
    ao_type spd;
    ao_init(spd, 511);
    double sk[14];
    for (int k = 0; k < 14; ++k) sk[k] = std::sin(1.0 + k);
    // Rotation by 90 degrees about z: x -> y, y -> -x.
    // Orbital map under it: s->s, px->py, py->-px, pz->pz, xy->-xy, yz->-zx, zx->yz,
    // x2-y2 -> -(x2-y2), 3z2-r2 -> 3z2-r2.
    const int img[10] = {0,       orb_s,   orb_py,  orb_px,    orb_pz,
                         orb_dxy, orb_dzx, orb_dyz, orb_dx2y2, orb_d3z2r2};
    const double sgn[10] = {0, 1, 1, -1, 1, -1, -1, 1, -1, 1};
    const double lmn[3] = {0.36, 0.48, 0.8};
    const double rot[3] = {-lmn[1], lmn[0], lmn[2]};
    double b1[81], b2[81];
    calc_sk_block(lmn, sk, b1, 9, spd, spd, false);
    calc_sk_block(rot, sk, b2, 9, spd, spd, false);
    for (int r = 1; r <= 9; ++r)
        for (int c = 1; c <= 9; ++c)
            EXPECT_NEAR(b2[(img[r] - 1) + 9 * (img[c] - 1)],
                        sgn[r] * sgn[c] * b1[(r - 1) + 9 * (c - 1)], 1e-14)
                << r << "," << c;
    // The table's l, m, n derivatives against finite differences.
    double bl[81], bm[81], bn[81], p[81], q[81];
    calc_sk_block_derivatives(lmn, sk, bl, bm, bn, 9, spd, spd, true);
    for (int k = 0; k < 3; ++k) {
        double up[3] = {lmn[0], lmn[1], lmn[2]}, dn[3] = {lmn[0], lmn[1], lmn[2]};
        up[k] += 1e-6;
        dn[k] -= 1e-6;
        calc_sk_block(up, sk, p, 9, spd, spd, true);
        calc_sk_block(dn, sk, q, 9, spd, spd, true);
        const double* d = k == 0 ? bl : (k == 1 ? bm : bn);
        for (int e = 0; e < 81; ++e) EXPECT_NEAR(d[e], (p[e] - q[e]) / 2e-6, 1e-8);
    }
    double single[81];
    calc_sk_block_derivative_m(lmn, sk, single, 9, spd, spd, true);
    for (int e = 0; e < 81; ++e) EXPECT_EQ(single[e], bm[e]);
}

} // namespace
