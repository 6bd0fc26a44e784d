// The result of a diagonalisation: eigenvalues and eigenvectors per k-point,
// occupations, Fermi level, band energy and gap, Mulliken charges and local
// energies, the eigenvector file, and the forces from the density matrix.
//
// Occupations are per spatial state (0..1); the spin factor 2 enters the band
// energy, the charges and the local energies.
#pragma once

#include "model/hamiltonian_module.hpp"
#include "model/scc_model_module.hpp"
#include "parallel/blacs_module.hpp"
#include "parallel/pdist_module.hpp"
#include "system/box_module.hpp"
#include "system/kpt_module.hpp"

#include <optional>
#include <string_view>
#include <vector>

namespace lyrt {

// The arrays of one extra thread of a k-point loop: H and S of a point (real or
// complex), the solver's vectors, eigenvalues and workspace, and the thread's
// share of the real-space density matrix. Thread 0 uses those of eig_state_type.
struct kpt_work_type {
    farray<double, 2> h_ij, s_ij, x;
    farray<double, 1> ework;
    farray<dcomplex, 2> zh, zs, zx;
    blacs_distr_type d;
    farray<double, 2> dm;
    farray<double, 1> dm_diag;
};

struct eig_state_type {
    int n_dim = 0;                 // order of the matrices
    int n_states = 0;              // states kept per k-point
    double n_el = 0.0;             // electrons
    int n_psi = 0;                 // psi(k) held in memory (below n_k: the file WFS holds them)
    const kpt_type* kpt = nullptr; // k-points, weights and the smearing width sigma
    farray<double, 2> psi;         // view of the current psi(k), n_dim x n_states
    std::vector<farray<double, 2>> psi_k; // eigenvectors of each k-point in columns
    double e_band = 0.0;                  // band energy, eV (spin included)
    double e_filled = 0.0;                // band sum over the filled states, eV
    double e_ts = 0.0;                    // sigma times the Fermi entropy (spin included), eV
    double e_fermi = 0.0;                 // Fermi level, eV
    double e_gap = 0.0;                   // gap, eV, never negative
    farray<double, 2> en_i;               // (n_states, n_k) eigenvalues, eV
    farray<double, 2> occ;                // (n_states, n_k) occupation of a spatial state
    farray<double, 2> docc;               // occ (occ - 1)
    farray<double, 2> alpha, beta;        // weights of the H and S derivatives
    double dn_sum = 0.0;                  // sum of weight docc
    double de_sum = 0.0;                  // sum of weight docc en, divided by sigma
    farray<double, 2> h_ij, s_ij;         // dense H and S (s_ij for a non-orthogonal model)
    farray<double, 1> ework;              // all eigenvalues of the solver
    farray<double, 2> x;                  // eigenvectors of the solver (when vectors are wanted)
    blacs_distr_type d;                   // solver workspace
    farray<double, 2> dm;                 // block density matrix of the forces (H's layout)
    farray<double, 1> dm_diag;            // its diagonal, for the on-site terms
    // Local pieces of the distributed H, S, eigenvectors and S times the eigenvectors.
    farray<double, 2> h_loc, s_loc, z_loc, sz_loc;
    pdist_type row_pdist; // basis functions
    pdist_type col_pdist; // states
    // The k-point path: dense complex H(k), S(k) and the solver's vectors, and the
    // states of every point (complex, n_dim x n_states) that this process solves.
    farray<dcomplex, 2> zh, zs, zx;
    std::vector<farray<dcomplex, 2>> zpsi_k;
    // When memory would not hold the states of all points of this process, they
    // live in the scratch file WFS (WFS.<process> beside others), one point at a
    // time in zpsi_buf; the loops over points then run in one thread.
    bool zpsi_on_file = false;
    farray<dcomplex, 2> zpsi_buf;
    std::vector<kpt_work_type> kwork; // threads 1, 2, ... of the k-point loops
};

void eig_state_allocate(eig_state_type& eig, int n_dim, int n_states, double n_el, int block_row,
                        int block_col, bool non_orth, char jobz, const kpt_type& kpt);
void eig_state_deallocate(eig_state_type& eig);
void eig_set_psi(eig_state_type& eig, int k); // makes psi(k) current (in memory)

void eig_calc_energy(eig_state_type& eig);
void eig_find_fermi_energy(eig_state_type& eig);
double fermi(double e, double e_f, double sigma);
int find_homo(const eig_state_type& eig, int k, double e_fermi); // 0..n_states

// Mulliken projections on the ions, added into q or e.
void eig_calc_qion(const hamiltonian_type& ham, const eig_state_type& eig, int k,
                   farray<double, 1>& q);
void eig_calc_elocal(const hamiltonian_type& ham, const eig_state_type& eig, int k,
                     farray<double, 1>& e);
void eig_calc_local_proj(const hamiltonian_type& ham, const eig_state_type& eig,
                         const farray<double, 1>& w, farray<double, 1>& out);

// The direct-access eigenvector file: record (k-1) n_states + i holds column i of
// psi(k), n_dim reals.
void eig_state_write(eig_state_type& eig, int unit, std::string_view file);
void eig_state_read(eig_state_type& eig, int unit, std::string_view file);
void eig_state_write_psi_k(eig_state_type& eig, int k, int unit, std::string_view file,
                           bool open_close);
void eig_state_read_psi_k(eig_state_type& eig, int k, int unit, std::string_view file,
                          bool open_close);
// b: the cell's inverse matrix, for the k-points in Cartesian units.
void eig_print_eigen_energies(const eig_state_type& eig, int unit,
                              std::optional<std::string_view> file = std::nullopt);

// The k-point path: whether point k is solved by this process (the points are
// dealt round the processes), and the real-space density matrix of the blocks,
// dm(block of ion i and entry (j, n)) = sum over k of Re[exp(2 pi i k.n) D_k(j, i)]
// with D_k = sum_s w(s, k) psi_s psi_s^H, summed over the processes; dm_diag the
// diagonal of the ion's own block. The weights w hold the k weights.
bool eig_kpt_mine(const eig_state_type& eig, int k);
// The states of point k (of this process): in memory, or read from the scratch
// file into the buffer. eig_kpt_slot is the array that point k is solved into, and
// eig_kpt_keep puts it in the file when the states live there.
const farray<dcomplex, 2>& eig_kpt_states(eig_state_type& eig, int k);
farray<dcomplex, 2>& eig_kpt_slot(eig_state_type& eig, int k);
void eig_kpt_keep(eig_state_type& eig, int k);
// Threads that the loops over the n_points points of this process use: one per
// point up to the threads there are, when the matrices are small enough to hold a
// copy per thread (each thread then solves whole points with a serial BLAS: many
// small solvers side by side outrun one threaded solver); else 1. Sets up the
// arrays of the extra threads (complex ones only when the run has complex points).
int eig_kpt_threads(eig_state_type& eig, int n_points, bool non_orth);
void eig_kpt_density(const hamiltonian_type& ham, const ions_type& ions, eig_state_type& eig,
                     const farray<double, 2>& w, farray<double, 2>& dm, farray<double, 1>* dm_diag);

// The levels along a path of k-points into the file `file`: a header, then per
// point its distance along the path (1/Angstrom), its label ("-" between corners)
// and its levels (eV).
void eig_write_bands(const eig_state_type& eig, std::string_view file);

// The block density matrix of the forces in the layout of ham's blocks; taken at
// set-up (a fresh array costs page faults at every step) and kept.
void eig_forces_reserve(eig_state_type& eig, const hamiltonian_type& ham);

// Hellmann-Feynman forces into ions.f through the block density matrix.
void eig_forces_dm(hamiltonian_type& ham, ions_type& ions, const box_type& box, eig_state_type& eig,
                   bool calc_stress, double fboost, const scc_type* scc);
// dm(block) = sum_j psi(a, j) w(j) psi(b, j) in the layout of ham's blocks; dm_diag(r)
// = sum_j psi(r, j)^2 w(j). The dense D is formed in ws's workspace (grown if
// needed) when ws is given, else in an array of its own.
void setup_dh_dm_r(const hamiltonian_type& ham, const farray<double, 2>& psi, const double* w,
                   farray<double, 2>& dm, farray<double, 1>* dm_diag,
                   blacs_distr_type* ws = nullptr);

// Three stress components of one k-point: the H gradients with the weights alpha
// (and the on-site gradients), the S gradients with beta for a non-orthogonal model.
void eig_stress_r(const hamiltonian_type& ham, const farray<double, 2>& psi_t, const double* alpha,
                  const double* beta, bool on_site, double* sig3);
// The electronic stress from the states and the strain gradients of H and S:
// the symmetric tensor into box.cell.sig, eV/Angstrom^3.
// With scc in use the charge term of H enters the strain derivative too.
void eig_stress(hamiltonian_type& ham, ions_type& ions, box_type& box, eig_state_type& eig,
                const scc_type* scc = nullptr);

} // namespace lyrt
