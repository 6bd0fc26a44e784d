// The density of states of a solved system: the levels of every k-point with
// their weights, each broadened by a Gaussian, in total and projected (Mulliken)
// on the orbital shells s, p, d of each species.
#pragma once

#include "diag/eig_state_module.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace lyrt {

struct dos_type {
    double width = 0.0;              // Gaussian width, eV
    std::vector<std::string> column; // "total", then "<species>_<shell>" per group
    std::vector<double> energy;      // grid, eV
    std::vector<double> value;       // energy-major: value[i * column.size() + c], states/eV
    std::vector<int> group_of_row;   // group (0-based) of each basis function
    std::vector<double> proj;        // weight of each group in each state: (group, state, k)
};

// Fills dos from the states held in eig (the last solve must have formed them):
// states per eV per cell, both spins; the groups add up to the total. The overlap
// blocks are rebuilt for the gamma-point path (its direct route keeps none).
void dos_calc(dos_type& dos, hamiltonian_type& ham, const ions_type& ions, const box_type& box,
              eig_state_type& eig, double width);
// The file: a header (width, points, Fermi level, column names), then one line
// per energy. Master only.
void dos_write(const dos_type& dos, const eig_state_type& eig, std::string_view file);

} // namespace lyrt
