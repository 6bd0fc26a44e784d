// Runs of the lyrt executable on generated inputs, and what their reports say.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <vector>

namespace lyrt_test {

struct run_result {
    int status = -1;
    double e_pot = 0.0;                       // potential energy, eV
    std::vector<std::array<double, 3>> force; // eV/Angstrom, per ion (when printed)
    std::string report;                       // OUTLYRT
};

struct atom {
    int species;
    double x, y, z; // Cartesian, Angstrom
};

// A POSLYRT with the cell vectors in rows of `cell` and Cartesian positions.
std::string poslyrt(const std::array<std::array<double, 3>, 3>& cell,
                    const std::vector<atom>& atoms, int n_species);
// Diamond or fcc crystals of n x n x n conventional cubic cells of edge a.
std::vector<atom> diamond(double a, int n);
std::vector<atom> fcc(double a, int n);
std::string tbparam(const std::string& name); // "Si" or "Cu" from tests/data
run_result run_case(const std::filesystem::path& dir, const std::string& poslyrt,
                    const std::string& inlyrt, const std::string& tbparam);

} // namespace lyrt_test
