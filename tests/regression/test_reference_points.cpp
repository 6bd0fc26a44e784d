// Single points against values computed by an independent implementation of the
// same tight-binding model (tests/data/reference): rattled diamond Si, fcc Cu with
// smearing, and Cu3Au with two species. The references hold the Fermi level solved
// to machine precision; the forces are minus central differences of their energy.
#include "run_support.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt_test;

class ReferencePoints : public ::testing::TestWithParam<const char*> {};

TEST_P(ReferencePoints, EnergiesEigenvaluesAndForcesAgree) {
    const std::string name = GetParam();
    const std::filesystem::path from =
        std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data/reference" / name;
    const std::string json = read_text(from / "reference.json");
    const run_result r = run_folder(fresh_dir("reference_" + name), from);
    ASSERT_EQ(r.status, 0);

    const double e_pot = json_numbers(json, "e_pot").at(0);
    const double e_atoms = json_numbers(json, "e_atoms").at(0);
    const double e_fermi = json_numbers(json, "e_fermi").at(0);
    EXPECT_NEAR(r.e_pot, e_pot, 1e-6);
    EXPECT_NEAR(r.e_atoms, e_atoms, 1e-6);
    EXPECT_NEAR(r.e_fermi, e_fermi, 1e-6);

    // The program computes the lowest n_states eigenvalues.
    const std::vector<double> eig = json_numbers(json, "eigenvalues");
    const auto n_states = static_cast<std::size_t>(json_numbers(json, "n_states").at(0));
    ASSERT_EQ(r.eigenvalues.size(), n_states);
    for (std::size_t i = 0; i < n_states; ++i)
        EXPECT_NEAR(r.eigenvalues[i], eig.at(i), 1e-6) << "eigenvalue " << i + 1;

    const std::vector<double> f = json_numbers(json, "forces");
    ASSERT_EQ(r.force.size() * 3, f.size());
    for (std::size_t i = 0; i < r.force.size(); ++i)
        for (std::size_t k = 0; k < 3; ++k)
            EXPECT_NEAR(r.force[i][k], f[3 * i + k], 1e-5) << "ion " << i + 1 << " axis " << k;
}

INSTANTIATE_TEST_SUITE_P(Independent, ReferencePoints,
                         ::testing::Values("si8_rattled", "cu4_rattled", "cu3au_rattled"));

} // namespace
