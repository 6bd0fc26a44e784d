// Prototypes of the BLAS and LAPACK routines the program calls, in one place.
// Fortran convention: every argument by address, character arguments as a
// pointer to their first letter, matrices column-major with a leading dimension.
#pragma once

#include <complex>

extern "C" {

// ---- BLAS ----------------------------------------------------------------------
double ddot_(const int* n, const double* x, const int* incx, const double* y, const int* incy);
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc);
void dsyrk_(const char* uplo, const char* trans, const int* n, const int* k, const double* alpha,
            const double* a, const int* lda, const double* beta, double* c, const int* ldc);
void dtrsm_(const char* side, const char* uplo, const char* transa, const char* diag, const int* m,
            const int* n, const double* alpha, const double* a, const int* lda, double* b,
            const int* ldb);
void zgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const std::complex<double>* alpha, const std::complex<double>* a, const int* lda,
            const std::complex<double>* b, const int* ldb, const std::complex<double>* beta,
            std::complex<double>* c, const int* ldc);
void zherk_(const char* uplo, const char* trans, const int* n, const int* k, const double* alpha,
            const std::complex<double>* a, const int* lda, const double* beta,
            std::complex<double>* c, const int* ldc);
void ztrsm_(const char* side, const char* uplo, const char* transa, const char* diag, const int* m,
            const int* n, const std::complex<double>* alpha, const std::complex<double>* a,
            const int* lda, std::complex<double>* b, const int* ldb);
void dtrsv_(const char* uplo, const char* trans, const char* diag, const int* n, const double* a,
            const int* lda, double* x, const int* incx);

// ---- LAPACK: symmetric and Hermitian eigenproblems -------------------------------
void dsyev_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
            double* work, const int* lwork, int* info);
void dsyevd_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
             double* work, const int* lwork, int* iwork, const int* liwork, int* info);
void dsygv_(const int* itype, const char* jobz, const char* uplo, const int* n, double* a,
            const int* lda, double* b, const int* ldb, double* w, double* work, const int* lwork,
            int* info);
void dsygvd_(const int* itype, const char* jobz, const char* uplo, const int* n, double* a,
             const int* lda, double* b, const int* ldb, double* w, double* work, const int* lwork,
             int* iwork, const int* liwork, int* info);
void zheev_(const char* jobz, const char* uplo, const int* n, std::complex<double>* a,
            const int* lda, double* w, std::complex<double>* work, const int* lwork, double* rwork,
            int* info);
void zhegv_(const int* itype, const char* jobz, const char* uplo, const int* n,
            std::complex<double>* a, const int* lda, std::complex<double>* b, const int* ldb,
            double* w, std::complex<double>* work, const int* lwork, double* rwork, int* info);
void zheevd_(const char* jobz, const char* uplo, const int* n, std::complex<double>* a,
             const int* lda, double* w, std::complex<double>* work, const int* lwork, double* rwork,
             const int* lrwork, int* iwork, const int* liwork, int* info);
void zhegvd_(const int* itype, const char* jobz, const char* uplo, const int* n,
             std::complex<double>* a, const int* lda, std::complex<double>* b, const int* ldb,
             double* w, std::complex<double>* work, const int* lwork, double* rwork,
             const int* lrwork, int* iwork, const int* liwork, int* info);
void zpotrf_(const char* uplo, const int* n, std::complex<double>* a, const int* lda, int* info);
void zhegst_(const int* itype, const char* uplo, const int* n, std::complex<double>* a,
             const int* lda, const std::complex<double>* b, const int* ldb, int* info);
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info);
void dsygst_(const int* itype, const char* uplo, const int* n, double* a, const int* lda,
             const double* b, const int* ldb, int* info);
void dsterf_(const int* n, double* d, double* e, int* info);
void dstev_(const char* jobz, const int* n, double* d, double* e, double* z, const int* ldz,
            double* work, int* info);
}
