// Sparse block products: each unrolled kernel against the general form and
// against the dense matrix.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "model_support.hpp"
#include "numerics/random_module.hpp"
#include "operators/hs_psi_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;
using namespace lyrt_test;

class SparseOperators : public lyrt_test::program_test {
  protected:
    // Eight ions of one species with `count` orbitals (a copper set cut down to that
    // orbital set), in a small cell.
    void build(model_system& s, int count) {
        species_set cu = read_species_set("Cu");
        const std::string pos =
            "number_of_ions = 8\na0 = 3.61\na_1 = 1 0 0\na_2 = 0 1 0\na_3 = 0 0 2\n"
            "positions\n0 0 0\n0 0.5 0.25\n0.5 0 0.25\n0.5 0.5 0\n"
            "0 0 0.5\n0 0.5 0.75\n0.5 0 0.75\n0.5 0.5 0.5\n";
        on_site_reset();
        build_system(s, dir, pos, one_species_file(cu, count), 4.0);
    }
    static void fill(farray<double, 2>& x, long rows, long cols) {
        x.allocate({1, 1}, {rows, cols});
        for (double& v : x) v = lyrt::random() - 0.5;
    }
};

TEST_F(SparseOperators, KernelsAgreeWithTheGeneralForm) {
    init_random(9, 9);
    for (int count : {4, 5, 6, 9}) {
        model_system s;
        build(s, count);
        ASSERT_TRUE(s.model.same_orbitals);
        const int n = s.ham.desc.n_row, cols = 3;
        const x_psi_layout m = hs_layout(s.ham, s.ham.h_ab);
        farray<double, 2> x, z, y1, y2, dense_h, dense_s;
        fill(x, n, cols);
        fill(z, n, cols);
        fill(y1, n, cols);
        y2 = y1.copy(); // the products accumulate into what is there
        x_psi_gen_r(m, x.data(), n, y1.data(), n, cols, 0.7);
        x_psi_77_r(m, count, x.data(), n, y2.data(), n, cols, 0.7);
        for (std::size_t k = 0; k < y1.size(); ++k)
            ASSERT_NEAR(y1.data()[k], y2.data()[k], 1e-12) << count;
        // Against the dense matrix: y = H x.
        dense(s, dense_h, dense_s);
        h_psi_rmat(s.ham, x, y1);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= cols; ++j) {
                double ref = 0.0;
                for (int k = 1; k <= n; ++k) ref += dense_h(i, k) * x(k, j);
                ASSERT_NEAR(y1(i, j), ref, 1e-10);
            }
        // The recurrence step y = H x - z.
        x_psi_cheby_gen_r(m, x.data(), n, z.data(), n, y1.data(), n, cols, 1.0);
        x_psi_cheby_77_r(m, count, x.data(), n, z.data(), n, y2.data(), n, cols, 1.0);
        for (std::size_t k = 0; k < y1.size(); ++k) ASSERT_NEAR(y1.data()[k], y2.data()[k], 1e-12);
        // A whole recurrence over five times.
        farray<double, 3> c1, c2;
        c1.allocate({1, 1, 1}, {n, cols, 5});
        for (double& v : c1) v = lyrt::random() - 0.5;
        c2 = c1.copy();
        x_psi_chrec_gen_r(m, c1.data(), n, cols, 5);
        switch (count) {
        case 4: x_psi_chrec_four_77_r(m, c2.data(), n, cols, 5); break;
        case 5: x_psi_chrec_five_77_r(m, c2.data(), n, cols, 5); break;
        case 6: x_psi_chrec_six_77_r(m, c2.data(), n, cols, 5); break;
        default: x_psi_chrec_nine_77_r(m, c2.data(), n, cols, 5); break;
        }
        for (std::size_t k = 0; k < c1.size(); ++k) ASSERT_NEAR(c1.data()[k], c2.data()[k], 1e-9);
        // Gradient products of one ion.
        calc_hs_grad_real(s.ham, s.box.ions, s.box);
        const long stride = static_cast<long>(s.ham.dh_ab.extent(0)) * s.ham.dh_ab.extent(1);
        std::vector<double> o1(static_cast<std::size_t>(count * cols * 3)), o2(o1.size());
        dx_psi_xyz_gen(m, 3, s.ham.dh_ab.data(), stride, x.data(), n, o1.data(), count, cols);
        dx_psi_xyz(m, count, 3, s.ham.dh_ab.data(), stride, x.data(), n, o2.data(), count, cols);
        for (std::size_t k = 0; k < o1.size(); ++k) ASSERT_NEAR(o1[k], o2[k], 1e-12);
        // ... which is twice the product of the neighbour gradient blocks.
        const sparse_1d_matrix_desc_type& sd = s.ham.desc;
        double ref = 0.0;
        for (int j = 2; j <= sd.n_blocks(3); ++j) {
            const int jg = sd.block_index(j, 3);
            for (int b = 1; b <= count; ++b)
                ref += s.ham.dh_ab(sd.ublock_offset(j, 3) + (b - 1) * count, 3, 2) *
                       x(sd.row_block_offset(jg) + b - 1, 1);
        }
        EXPECT_NEAR(o1[static_cast<std::size_t>(count * cols)], 2.0 * ref, 1e-12);
    }
}

} // namespace
