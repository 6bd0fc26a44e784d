// Dense symmetric eigenproblems H c = e c and H c = e S c, real and complex, with
// eigenvalues only or with eigenvectors; and two checks of matrices.
//
// The upper triangle is used. With vectors, h is copied to x, which returns the
// eigenvectors in columns (divide and conquer); values-only calls overwrite h.
// The generalised problems leave the Cholesky factor of s in s.
#pragma once

#include "base/farray.hpp"
#include "parallel/blacs_module.hpp"

namespace lyrt {

// Real workspace of at least lwork doubles and liwork integers in d, grown (and
// kept) when asked for more. Besides the solvers, the forces use it for the density
// matrices between two diagonalisations.
void diag_workspace(blacs_distr_type& d, int lwork, int liwork);
// The workspace the divide-and-conquer solver wants for the vectors of order n,
// taken at set-up with the other dense arrays rather than at the first solve.
void diag_reserve_vectors(blacs_distr_type& d, int n);

void calc_eigen_values_real(farray<double, 2>& h, int n, farray<double, 1>& en,
                            blacs_distr_type& d);
void calc_eigen_vectors_real(farray<double, 2>& h, int n, farray<double, 1>& en,
                             farray<double, 2>& x, blacs_distr_type& d);
void calc_gen_eigen_values_real(farray<double, 2>& h, farray<double, 2>& s, int n,
                                farray<double, 1>& en, blacs_distr_type& d);
void calc_gen_eigen_vectors_real(farray<double, 2>& h, farray<double, 2>& s, int n,
                                 farray<double, 1>& en, farray<double, 2>& x, blacs_distr_type& d);
// Drivers of the serial library; jobz "V"/"v" for vectors.
void calc_eigen_real_lp(char jobz, farray<double, 2>& h, int n, farray<double, 1>& en,
                        farray<double, 2>* x, blacs_distr_type& d);
void calc_gen_eigen_real_lp(char jobz, farray<double, 2>& h, farray<double, 2>& s, int n,
                            farray<double, 1>& en, farray<double, 2>* x, blacs_distr_type& d);

void calc_eigen_values_complex(farray<dcomplex, 2>& h, int n, farray<double, 1>& en,
                               blacs_distr_type& d);
void calc_eigen_vectors_complex(farray<dcomplex, 2>& h, int n, farray<double, 1>& en,
                                farray<dcomplex, 2>& x, blacs_distr_type& d);
void calc_gen_eigen_values_complex(farray<dcomplex, 2>& h, farray<dcomplex, 2>& s, int n,
                                   farray<double, 1>& en, blacs_distr_type& d);
void calc_gen_eigen_vectors_complex(farray<dcomplex, 2>& h, farray<dcomplex, 2>& s, int n,
                                    farray<double, 1>& en, farray<dcomplex, 2>& x,
                                    blacs_distr_type& d);
void calc_eigen_complex_lp(char jobz, farray<dcomplex, 2>& h, int n, farray<double, 1>& en,
                           farray<dcomplex, 2>* x, blacs_distr_type& d);
void calc_gen_eigen_complex_lp(char jobz, farray<dcomplex, 2>& h, farray<dcomplex, 2>& s, int n,
                               farray<double, 1>& en, farray<dcomplex, 2>* x, blacs_distr_type& d);

// The tests made on the results of a distributed solve: status info, eigenvalues
// found m, eigenvectors found nz. A solve for the lowest n_wanted states (0: all n)
// succeeds with m = nz = n_wanted.
struct slp_status_type {
    int info = 0, m = 0, nz = 0;
    double abstol = 0.0;
};
void calc_eigen_real_slp(int n, slp_status_type& st, int n_wanted = 0);
void calc_gen_eigen_real_slp(int n, slp_status_type& st, int n_wanted = 0);
void calc_eigen_complex_slp(int n, slp_status_type& st, int n_wanted = 0);
void calc_gen_eigen_complex_slp(int n, slp_status_type& st, int n_wanted = 0);
void diagnostic_error(int n, int n2, double abstol, int m, int nz, const int* ifail, int n_ifail,
                      const double* gap, const int* iclustr, int info);
void diagnostic_reset();

void check_symmetry(int n, const farray<double, 2>& a);
// bad: 1 if s is not positive definite (without it the run stops), else 0.
void check_defpos(int n, const farray<double, 2>& s, int* bad = nullptr);

} // namespace lyrt
