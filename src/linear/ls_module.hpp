// The linear-scaling ground state: the density matrix from block-sparse products
// without eigenvectors. The blocks of the products are groups of neighbouring ions
// (cells of the simulation cell holding about 48 orbitals): the block products of
// DBCSR are several times faster on such blocks than on those of single ions. S^-1/2 by
// Newton-Schulz iterations, the orthogonalised Hamiltonian Z H Z purified (second-order spectral
// projection, SP2) to the occupied subspace of n_el / 2 states, then P = Z P~ Z and the
// energy-weighted W = Z P~ H~ P~ Z, whose blocks on the neighbour pattern give forces by the
// contractions of the dense path. With smearing, P~ is the Fermi function of H~ by a Chebyshev
// series (the chemical potential from the traces of its terms), W~ = P~ H~, and the energy the
// free energy E - T S, whose derivatives the forces are. Products drop blocks below eps_filter.
#pragma once

#include "base/algo_module.hpp"
#include "model/hamiltonian_module.hpp"
#include "model/scc_model_module.hpp"
#include "parallel/bsm_module.hpp"
#include "system/box_module.hpp"

#include <vector>

namespace lyrt {

// For each ion (0-based) the distinct neighbour ions of its block list, sorted, and
// for each the block places jb (an ion seen through several images has several).
struct ls_pattern_type {
    std::vector<std::vector<int>> nbr;
    std::vector<std::vector<std::vector<int>>> places;
};

struct ls_state_type {
    double eps_filter = 1e-6; // Frobenius norm below which a product's block is dropped
    double ns_tol = 1e-9;     // Newton-Schulz stops when |I - Z S Z| (Frobenius, per row) is below
    double sp2_tol = 1e-9;    // purification stops when Tr(X - X^2) per row is below
    int max_iter = 200;       // steps of either iteration at most
    int block_orbitals = 48;  // orbitals a group of ions aims at
    double sigma = 0.0;       // Fermi smearing width, eV: 0 purifies, > 0 expands f(H~)
    double cheb_tol = 1e-10;  // largest error of the Fermi function's series on the spectrum
    bsm_layout_type lay;
    std::vector<int> group;                // group (block, 0-based) of each ion
    std::vector<int> offset;               // first row of each ion in its group's block
    std::vector<std::vector<int>> members; // ions (0-based) of each group
    ls_pattern_type pattern;               // ham's block pattern at the last ls_calc
    bsm_type s, z, h, p, w;                // S, S^-1/2, Z H Z, P~ (orthogonal basis), work
    bool have_z = false; // z holds S^-1/2 of the last call (the start of the next)
    // What the last call found.
    double e_band = 0.0;      // 2 Tr[P H], eV
    double e_ts = 0.0;        // T S of the smeared occupations, eV (the energy is e_band - e_ts)
    double mu = 0.0;          // chemical potential of the smeared occupations, eV
    int cheb_terms = 0;       // terms of the Fermi function's series
    double n_found = 0.0;     // 2 Tr[P S]
    double idempotency = 0.0; // |Tr(P~ - P~^2)|
    double fill = 0.0;        // share of P~'s blocks present
    int ns_steps = 0, sp2_steps = 0;
    long long flops = 0;        // flops of the block products of this process, summed over calls
    double product_seconds = 0; // their wall time
    double n_el = 0.0;          // electrons of the system
    farray<double, 2> dm;       // block density matrix of the forces, ham's layout
    farray<double, 1> dm_diag;  // its diagonal (on-site terms)
    farray<double, 2> dm_w;     // block energy-weighted matrix -2 W, ham's layout
    // Whether dm (with dm_diag) and dm_w hold the blocks of the last ls_calc: the
    // forces, the stress and the charge loop share them.
    bool have_p = false, have_w = false;
};

// Groups the ions by their place in the cell (box), builds the layout of the groups'
// blocks and takes the arrays of the forces; call again when the ion count changes.
void ls_init(ls_state_type& ls, const hamiltonian_type& ham, const box_type& box, double n_el);
void ls_free(ls_state_type& ls);
// The ground state of the blocks of ham (calc_hs_real done) for ls.n_el electrons;
// with scc, H carries the charge terms of the present scc.qaux.
void ls_calc(ls_state_type& ls, const hamiltonian_type& ham, const scc_type* scc = nullptr);
// The ground state with the charge loop when scc is in use (as the dense path:
// Mulliken populations of P, the chosen mixer, the tolerances and pass limits of
// elec_algo); returns the electronic energy (band energy with the double-counting
// term of the charges, less T S with smearing), eV.
double ls_ground_state(ls_state_type& ls, const hamiltonian_type& ham, ions_type& ions,
                       scc_type& scc, const elec_algo_type& elec_algo);
// The block density matrix 2 P (energy_weighted: -2 W) in ham's layout, on every
// process; dm_diag, when given, the diagonal of 2 P.
void ls_density_blocks(ls_state_type& ls, const hamiltonian_type& ham, bool energy_weighted,
                       farray<double, 2>& dm, farray<double, 1>* dm_diag);
// Forces (into ions.f) from the last ls_calc: the gradient blocks contracted with
// 2 P and -2 W.
void ls_forces(ls_state_type& ls, hamiltonian_type& ham, ions_type& ions, const box_type& box,
               double fboost, const scc_type* scc = nullptr);

// Band energies per ion (added into e_local) of the last ground state: the
// projections of 2W with S; without charges also the net Mulliken charges (into
// ions.qion) from 2P, with charges the double-counting term of each ion added.
void ls_local(ls_state_type& ls, const hamiltonian_type& ham, const scc_type& scc, ions_type& ions,
              farray<double, 1>& e_local);
// The electronic stress (into box.cell.sig, eV/Angstrom^3) from the last ls_calc:
// the strain gradients of H and S contracted with 2 P and -2 W.
void ls_stress(ls_state_type& ls, hamiltonian_type& ham, ions_type& ions, box_type& box,
               const scc_type* scc = nullptr);

} // namespace lyrt
