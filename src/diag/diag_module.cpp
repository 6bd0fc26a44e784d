#include "diag/diag_module.hpp"

#include "numerics/lapack_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "base/timing_module.hpp"
#include "parallel/mpi_module.hpp"

#include <vector>

#include <algorithm>

namespace lyrt {

namespace {

constexpr const char* mod = "diag_module";

bool wants_vectors(char jobz) {
    return jobz == 'V' || jobz == 'v';
}

void copy_upper(const farray<double, 2>& h, farray<double, 2>& x, int n) {
    for (int j = 1; j <= n; ++j)
        for (int i = 1; i <= n; ++i) x(i, j) = h(i, j);
}

} // namespace

void diag_workspace(blacs_distr_type& d, int lwork, int liwork) {
    const char* proc = "diag_workspace";
    if (!d.work.allocated() || d.work.extent(0) < lwork) {
        if (d.work.allocated()) cd_real_1d(d.work, "d%work", proc, mod);
        ca_real_1d(d.work, 1, lwork, "d%work", proc, mod);
    }
    d.lwork = static_cast<int>(d.work.extent(0));
    if (liwork > 0 && (!d.iwork.allocated() || d.iwork.extent(0) < liwork)) {
        if (d.iwork.allocated()) cd_integer_1d(d.iwork, "d%iwork", proc, mod);
        ca_integer_1d(d.iwork, 1, liwork, "d%iwork", proc, mod);
    }
    if (d.iwork.allocated()) d.liwork = static_cast<int>(d.iwork.extent(0));
}

void diag_reserve_vectors(blacs_distr_type& d, int n) {
    double wq = 0;
    int iq = 0, query = -1, info = 0;
    double dummy = 0.0;
    dsyevd_("V", "U", &n, &dummy, &n, &dummy, &wq, &query, &iq, &query, &info);
    if (info == 0) diag_workspace(d, static_cast<int>(wq) + 1, iq);
}

void calc_eigen_real_lp(char jobz, farray<double, 2>& h, int n, farray<double, 1>& en,
                        farray<double, 2>* x, blacs_distr_type& d) {
    const char* proc = "calc_eigen_real_lp";
    const phase_timer wall(phase_eigen);
    int info = 0;
    if (wants_vectors(jobz)) {
        copy_upper(h, *x, n);
        double wq = 0;
        int iq = 0, query = -1;
        dsyevd_("V", "U", &n, x->data(), &n, en.data(), &wq, &query, &iq, &query, &info);
        diag_workspace(d, static_cast<int>(wq) + 1, iq);
        dsyevd_("V", "U", &n, x->data(), &n, en.data(), d.work.data(), &d.lwork, d.iwork.data(),
                &d.liwork, &info);
    } else {
        diag_workspace(d, std::max(1, 3 * n), 0);
        dsyev_("N", "U", &n, h.data(), &n, en.data(), d.work.data(), &d.lwork, &info);
    }
    if (info != 0) fatal_error("error occured in Xsyev", info, proc, mod);
}

void calc_gen_eigen_real_lp(char jobz, farray<double, 2>& h, farray<double, 2>& s, int n,
                            farray<double, 1>& en, farray<double, 2>* x, blacs_distr_type& d) {
    const char* proc = "calc_gen_eigen_real_lp";
    const phase_timer wall(phase_eigen);
    const int itype = 1;
    int info = 0;
    if (wants_vectors(jobz)) {
        // The stages of the generalized solver, with the back-transformation for the
        // vectors the caller wants only: S = U^T U, the standard problem
        // U^-T H U^-1 y = e y (all eigenvalues), x = U^-1 y for the first k columns.
        copy_upper(h, *x, n);
        dpotrf_("U", &n, s.data(), &n, &info);
        if (info != 0) {
            // Numbered as the one-call solver numbers it: the order of the failed minor plus n.
            info += n;
        } else {
            dsygst_(&itype, "U", &n, x->data(), &n, s.data(), &n, &info);
            double wq = 0;
            int iq = 0, query = -1;
            if (info == 0)
                dsyevd_("V", "U", &n, x->data(), &n, en.data(), &wq, &query, &iq, &query, &info);
            if (info == 0) {
                diag_workspace(d, static_cast<int>(wq) + 1, iq);
                dsyevd_("V", "U", &n, x->data(), &n, en.data(), d.work.data(), &d.lwork,
                        d.iwork.data(), &d.liwork, &info);
            }
            if (info == 0) {
                const int k = d.n_vectors > 0 && d.n_vectors < n ? d.n_vectors : n;
                const double one = 1.0;
                dtrsm_("L", "U", "N", "N", &n, &k, &one, s.data(), &n, x->data(), &n);
            }
        }
    } else {
        diag_workspace(d, std::max(1, 3 * n), 0);
        dsygv_(&itype, "N", "U", &n, h.data(), &n, s.data(), &n, en.data(), d.work.data(), &d.lwork,
               &info);
    }
    if (info > n)
        // The Cholesky factor of the overlap failed: S is not positive definite.
        fatal_error("error occured in Xsygv: the overlap is not positive definite" +
                        (d.failure_hint.empty() ? std::string() : "; " + d.failure_hint),
                    info, proc, mod);
    if (info != 0) fatal_error("error occured in Xsygv", info, proc, mod);
}

void calc_eigen_values_real(farray<double, 2>& h, int n, farray<double, 1>& en,
                            blacs_distr_type& d) {
    const trace_guard trace("calc_eigen_values_real", mod);
    calc_eigen_real_lp('N', h, n, en, nullptr, d);
}

void calc_eigen_vectors_real(farray<double, 2>& h, int n, farray<double, 1>& en,
                             farray<double, 2>& x, blacs_distr_type& d) {
    const trace_guard trace("calc_eigen_vectors_real", mod);
    calc_eigen_real_lp('V', h, n, en, &x, d);
}

void calc_gen_eigen_values_real(farray<double, 2>& h, farray<double, 2>& s, int n,
                                farray<double, 1>& en, blacs_distr_type& d) {
    const trace_guard trace("calc_gen_eigen_values_real", mod);
    calc_gen_eigen_real_lp('N', h, s, n, en, nullptr, d);
}

void calc_gen_eigen_vectors_real(farray<double, 2>& h, farray<double, 2>& s, int n,
                                 farray<double, 1>& en, farray<double, 2>& x, blacs_distr_type& d) {
    const trace_guard trace("calc_gen_eigen_vectors_real", mod);
    calc_gen_eigen_real_lp('V', h, s, n, en, &x, d);
}

namespace {

// Complex workspace: 2n - 1 complex and 3n - 2 real values at least.
void complex_workspace(blacs_distr_type& d, int n, std::vector<double>& rwork) {
    const int need = std::max(1, 2 * n);
    if (!d.cwork.allocated() || d.cwork.extent(0) < need) {
        if (d.cwork.allocated()) cd_complex_1d(d.cwork, "d%cwork", "complex_workspace", mod);
        ca_complex_1d(d.cwork, 1, need, "d%cwork", "complex_workspace", mod);
    }
    d.lcwork = static_cast<int>(d.cwork.extent(0));
    rwork.assign(static_cast<std::size_t>(std::max(1, 3 * n)), 0.0);
}

} // namespace

namespace {

// The matrix that the solver overwrites: x, holding a copy of h, when vectors are
// wanted (they come back in it); h itself otherwise.
farray<dcomplex, 2>& solver_operand(char jobz, farray<dcomplex, 2>& h, farray<dcomplex, 2>* x,
                                    int n) {
    if (!wants_vectors(jobz)) return h;
    for (int j = 1; j <= n; ++j)
        for (int i = 1; i <= n; ++i) (*x)(i, j) = h(i, j);
    return *x;
}

} // namespace

namespace {

// zheevd with vectors on a, its workspace grown in d (complex, real and integer).
void zheevd_vectors(farray<dcomplex, 2>& a, int n, farray<double, 1>& en, blacs_distr_type& d,
                    int& info) {
    dcomplex cq = 0;
    double rq = 0;
    int iq = 0, query = -1;
    zheevd_("V", "U", &n, a.data(), &n, en.data(), &cq, &query, &rq, &query, &iq, &query, &info);
    if (info != 0) return;
    const int lc = static_cast<int>(cq.real()) + 1;
    if (!d.cwork.allocated() || d.cwork.extent(0) < lc) {
        if (d.cwork.allocated()) cd_complex_1d(d.cwork, "d%cwork", "zheevd_vectors", mod);
        ca_complex_1d(d.cwork, 1, lc, "d%cwork", "zheevd_vectors", mod);
    }
    d.lcwork = static_cast<int>(d.cwork.extent(0));
    diag_workspace(d, static_cast<int>(rq) + 1, iq);
    zheevd_("V", "U", &n, a.data(), &n, en.data(), d.cwork.data(), &d.lcwork, d.work.data(),
            &d.lwork, d.iwork.data(), &d.liwork, &info);
}

} // namespace

void calc_eigen_complex_lp(char jobz, farray<dcomplex, 2>& h, int n, farray<double, 1>& en,
                           farray<dcomplex, 2>* x, blacs_distr_type& d) {
    const phase_timer wall(phase_eigen);
    int info = 0;
    farray<dcomplex, 2>& a = solver_operand(jobz, h, x, n);
    if (wants_vectors(jobz)) {
        zheevd_vectors(a, n, en, d, info);
    } else {
        std::vector<double> rwork;
        complex_workspace(d, n, rwork);
        zheev_("N", "U", &n, a.data(), &n, en.data(), d.cwork.data(), &d.lcwork, rwork.data(),
               &info);
    }
    if (info != 0) fatal_error("error occured in Xsyev", info, "calc_eigen_complex_lp", mod);
}

void calc_gen_eigen_complex_lp(char jobz, farray<dcomplex, 2>& h, farray<dcomplex, 2>& s, int n,
                               farray<double, 1>& en, farray<dcomplex, 2>* x, blacs_distr_type& d) {
    const char* proc = "calc_gen_eigen_complex_lp";
    const phase_timer wall(phase_eigen);
    const int itype = 1;
    int info = 0;
    farray<dcomplex, 2>& a = solver_operand(jobz, h, x, n);
    if (wants_vectors(jobz)) {
        // The stages of the real solver: S = U^H U, the standard problem of
        // U^-H H U^-1 (all eigenvalues), x = U^-1 y for the columns the caller keeps.
        zpotrf_("U", &n, s.data(), &n, &info);
        if (info != 0) {
            info += n;
        } else {
            zhegst_(&itype, "U", &n, a.data(), &n, s.data(), &n, &info);
            if (info == 0) zheevd_vectors(a, n, en, d, info);
            if (info == 0) {
                const int k = d.n_vectors > 0 && d.n_vectors < n ? d.n_vectors : n;
                const dcomplex one = 1.0;
                ztrsm_("L", "U", "N", "N", &n, &k, &one, s.data(), &n, a.data(), &n);
            }
        }
    } else {
        std::vector<double> rwork;
        complex_workspace(d, n, rwork);
        zhegv_(&itype, "N", "U", &n, a.data(), &n, s.data(), &n, en.data(), d.cwork.data(),
               &d.lcwork, rwork.data(), &info);
    }
    if (info > n)
        fatal_error("error occured in Xsygv: the overlap is not positive definite" +
                        (d.failure_hint.empty() ? std::string() : "; " + d.failure_hint),
                    info, proc, mod);
    if (info != 0) fatal_error("error occured in Xsygv", info, proc, mod);
}

void calc_eigen_values_complex(farray<dcomplex, 2>& h, int n, farray<double, 1>& en,
                               blacs_distr_type& d) {
    calc_eigen_complex_lp('N', h, n, en, nullptr, d);
}
void calc_eigen_vectors_complex(farray<dcomplex, 2>& h, int n, farray<double, 1>& en,
                                farray<dcomplex, 2>& x, blacs_distr_type& d) {
    calc_eigen_complex_lp('V', h, n, en, &x, d);
}
void calc_gen_eigen_values_complex(farray<dcomplex, 2>& h, farray<dcomplex, 2>& s, int n,
                                   farray<double, 1>& en, blacs_distr_type& d) {
    calc_gen_eigen_complex_lp('N', h, s, n, en, nullptr, d);
}
void calc_gen_eigen_vectors_complex(farray<dcomplex, 2>& h, farray<dcomplex, 2>& s, int n,
                                    farray<double, 1>& en, farray<dcomplex, 2>& x,
                                    blacs_distr_type& d) {
    calc_gen_eigen_complex_lp('V', h, s, n, en, &x, d);
}

// ---- distributed skeleton ---------------------------------------------------------

namespace {

bool cluster_reported = false;

void slp_test(int n, int n_wanted, slp_status_type& st, const char* text, const char* proc) {
    const int want = n_wanted > 0 ? n_wanted : n;
    if (st.info == 0 && st.m == want && st.nz == want) return;
    const int none[1] = {0};
    const double gap[1] = {0.0};
    diagnostic_error(want, n, st.abstol, st.m, st.nz, none, 1, gap, none, st.info);
    if (st.m == want && st.info >= 0 && st.info <= n && st.nz == want) return;
    fatal_error(text, st.info, proc, mod);
}

} // namespace

void calc_eigen_real_slp(int n, slp_status_type& st, int n_wanted) {
    slp_test(n, n_wanted, st, "an error occured in call to pXheevx", "calc_eigen_real_slp");
}
void calc_gen_eigen_real_slp(int n, slp_status_type& st, int n_wanted) {
    slp_test(n, n_wanted, st, "an error occured in call to pXsygvx", "calc_gen_eigen_real_slp");
}
void calc_eigen_complex_slp(int n, slp_status_type& st, int n_wanted) {
    slp_test(n, n_wanted, st, "an error occured in call to pXheevx", "calc_eigen_complex_slp");
}
void calc_gen_eigen_complex_slp(int n, slp_status_type& st, int n_wanted) {
    slp_test(n, n_wanted, st, "an error occured in call to pXsygvx", "calc_gen_eigen_complex_slp");
}

void diagnostic_reset() {
    cluster_reported = false;
}

void diagnostic_error(int n, int /*n2*/, double abstol, int m, int nz, const int* ifail,
                      int n_ifail, const double* gap, const int* iclustr, int info) {
    if (!i_am_master) return;
    const int u = error_unit;
    write_free(u, {"info=", info});
    fitem_list fail{"fail="};
    for (int k = 0; k < n_ifail; ++k) fail.emplace_back(ifail[k]);
    write_free(u, fail);
    write_free(u, {"abstol=", abstol});
    write_free(u, {gap[0], "(", 1, ")", iclustr[0], "(", 1, ")"});
    if (info < 0) {
        write_free(u, {"Bad news, parameter number ", info, "is incorrect."});
        write_free(u, {"Send e-mail to", "the keeper of lyrt (see README.md)"});
        return;
    }
    write_free(u, {"mod(info,2)=", info % 2});
    write_free(u, {"mod(info/2,2)=", (info / 2) % 2});
    write_free(u, {"mod(info/4,2)=", (info / 4) % 2});
    write_free(u, {"mod(info/8,2)=", (info / 8) % 2});
    write_free(u, {"mod(info/16,2)=", (info / 16) % 2});
    write_free(u, {"The following diagnostic messages are from the"});
    write_free(u, {"Scalapack manual pages, they are shown here to"});
    write_free(u, {"help the diagnostic of the problem ..."});
    if (info % 2 == 1) {
        write_free(u, {"One or more eignvectors failed to converge."});
        write_free(u, {"Their indices are stored in ifail."});
    }
    if ((info / 2) % 2 == 1 && !cluster_reported) {
        for (const char* t :
             {"Eigenvectors corresponding", "to one or more clusters of eigenvalues could not be",
              "reorthogonalized because of insufficient workspace.",
              "If this happens every now and then you can ignore", "the problem."})
            write_free(u, {t});
        write_free(u, {"# of eigenvalues  :", m, " out of ", n});
        write_free(u, {"# of eigenvectors :", nz, " out of ", n});
        cluster_reported = true;
        return;
    }
    if ((info / 4) % 2 == 1) {
        for (const char* t :
             {"Space limitations prevented", "PSSYGVX from computing all of the eigenvectors",
              "between vl and vu.  The number of eigenvectors", "computed is returned in nZ."})
            write_free(u, {t});
    } else if ((info / 8) % 2 == 1) {
        write_free(u, {"PSSTEBZ failed to compute eigenvalues."});
    } else if ((info / 16) % 2 == 1) {
        for (const char* t : {"The overlap matrix was not positive",
                              "definite.  ifail(1) indicates the order of the",
                              "smallest minor which is not positive definite.",
                              "Possible problems (check OUTLYRT) :",
                              " * Some inter-atomic distances are too small ",
                              " * The TB parameters have not been read correctly."})
            write_free(u, {t});
    } else {
        write_free(u, {"Unknown error ..."});
    }
}

void check_symmetry(int n, const farray<double, 2>& a) {
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) write_free(stdout_unit, {i, j, a(i, j), a(j, i)});
    bool bad = false;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j)
            if (a(i, j) != a(j, i)) {
                write_free(stdout_unit, {"element i,j=", i, j, " is not symetric"});
                write_free(stdout_unit, {"element i,j=", a(i, j), "!=", a(j, i)});
                bad = true;
            }
    if (bad) plain_stop("");
    write_free(stdout_unit, {"matrix is symmetric"});
}

void check_defpos(int n, const farray<double, 2>& s, int* bad) {
    farray<double, 2> a = s.copy();
    std::vector<double> work(static_cast<std::size_t>(std::max(1, 5 * n))),
        e(static_cast<std::size_t>(n));
    const int lwork = static_cast<int>(work.size());
    int info = 0;
    dsyev_("N", "U", &n, a.data(), &n, e.data(), work.data(), &lwork, &info);
    const bool negative = std::any_of(e.begin(), e.end(), [](double v) { return v < 0.0; });
    write_free(stdout_unit, {"overlap matrix eigenvalue range : ", e.front(), e.back()});
    if (negative) {
        write_free(stdout_unit, {"matrix s is not definite positive ..."});
        for (double v : e) write_free(stdout_unit, {v});
        if (bad == nullptr) plain_stop("");
        *bad = 1;
        return;
    }
    write_free(stdout_unit, {"matrix s is definite positive ..."});
    if (bad != nullptr) *bad = 0;
}

} // namespace lyrt
