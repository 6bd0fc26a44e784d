// The kernel polynomial method: band energy, Fermi level and forces of an
// orthogonal tight-binding model from a damped Chebyshev expansion of the density
// of states at zero temperature, without eigenvectors.
//
// The Hamiltonian is scaled to H~ = (H - b) / a with its spectrum inside [-1, 1];
// the moments mu(n) = Tr T_n(H~) count states per spin. The energy and the electron
// count are linear forms in the moments at a fixed Fermi angle phi_f (the Fermi
// level is cos(phi_f) a + b), so the forces need only the gradients of the moments.
#pragma once

#include "base/farray.hpp"
#include "model/hamiltonian_module.hpp"
#include "parallel/pdist_module.hpp"

namespace lyrt {

struct kpm_state_type {
    int n = 0;                 // moments M
    farray<double, 1> mu;      // (0:ub) moments; mu(M+1) stays 0
    farray<double, 1> g;       // (0:ub) damping factors of the kernel
    farray<double, 1> c, cp;   // (0:ub) energy coefficients and their derivative in phi
    farray<double, 1> d, dp;   // (0:ub) electron-count coefficients and their derivative
    farray<double, 1> de_dmu;  // (0:ub) dE/dmu at a fixed electron count
    double phi_f = 0.0;        // Fermi level as an angle, arccos of the scaled energy
    double a = 0.0, b = 0.0;   // scale and centre of the spectrum, eV
    double e_min = 0.0;        // spectrum bounds, eV (keywords kpm_emin, kpm_emax)
    double e_max = 0.0;        //
    char kernel = 'J';         // J: Jackson, L: Lanczos-type
    int n_orb = 0;             // orbitals of the run
    int block_size = 2;        // ions per chunk of unit vectors
    double n_electrons = 0.0;  // electrons of the run
    double e_fermi = 0.0;      // Fermi level of the last energy, eV
    bool no_ex = false;        // scale with b S instead of b (non-orthogonal form)
    bool bounds_known = false; // the bounds were searched already
    pdist_type pdist;          // scalar distribution of the orbitals
    pdist_type blk_pdist;      // distribution of the ions (blocks)
    farray<int, 1> blk_dim;    // orbitals of each local ion
    farray<int, 1> blk_offset; // first local orbital of each local ion
};

// Allocates the coefficient arrays for n_moments moments; refuses 0 or fewer and
// counts beyond the table of 1/(n pi).
void kpm_state_alloc(kpm_state_type& ks, int n_moments);
void kpm_state_dealloc(kpm_state_type& ks);
void kpm_state_init(kpm_state_type& ks, const hamiltonian_type& h, char kernel, int n_orb,
                    double n_electrons, bool no_ex, int block_size, double e_min, double e_max);
// True for the kernel letters the method knows (J, L in either case).
bool kpm_kernel_known(char kernel);
// g(0..M) of the kernel; g beyond M stays 0.
void calc_gibbs_factors(char kernel, farray<double, 1>& g, int n_moments);

// Band energy (eV, both spins) and Fermi level (eV) of the present H, which is left
// as it was found.
void kpm_calc_energy(kpm_state_type& ks, hamiltonian_type& h, double& e_band, double& e_fermi);
// The Fermi angle at which the electron count per spin reaches target; phi is the
// result. The tolerance is relative to the count.
void kpm_find_phi_f(kpm_state_type& ks, double& phi, double target, double tol);
// States per spin below the angle phi, its derivative by phi, and the scaled
// energy per spin (the density times x damped: "sf"; the density damped: "sd").
double kpm_get_nelec_sf(double phi, const kpm_state_type& ks);
double kpm_get_nelec_sf_dphi(double phi, const kpm_state_type& ks);
double kpm_get_energy_sf(double phi, const kpm_state_type& ks);
double kpm_get_energy_sd(double phi, const kpm_state_type& ks);
// Coefficient arrays c, cp, d, dp at phi, damped as the sf or the sd forms.
void kpm_calc_sf_coeff(double phi, kpm_state_type& ks);
void kpm_calc_sd_coeff(double phi, kpm_state_type& ks);
double kpm_get_energy_c(const kpm_state_type& ks); // sum c(n) mu(n)
double kpm_get_nelec_c(const kpm_state_type& ks);  // sum d(n) mu(n)
void kpm_calc_de_dmu(kpm_state_type& ks);
// Forces (eV/Angstrom) from the gradient blocks of H at the positions of the last
// energy call; forces are overwritten.
void kpm_calc_forces(kpm_state_type& ks, hamiltonian_type& h, farray<double, 2>& forces);
// Energies at M' = m_start, m_start + m_step, ... up to M from one set of moments,
// against e_ref, one line per M' on unit.
void kpm_test_conv(kpm_state_type& ks, hamiltonian_type& h, int m_start, int m_step, double e_ref,
                   int unit);

} // namespace lyrt
