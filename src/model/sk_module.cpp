#include "model/sk_module.hpp"

namespace lyrt {

namespace {

// A value with its partial derivatives in l, m and n: evaluating the table with
// it gives the exact derivative blocks from the same written-out entries.
struct dual3 {
    double v = 0.0;
    double d[3] = {0.0, 0.0, 0.0};
    dual3() = default;
    dual3(double x) : v(x) {} // a constant
    dual3(double x, int k) : v(x) { d[k] = 1.0; }
};

inline dual3 operator+(const dual3& a, const dual3& b) {
    dual3 r(a.v + b.v);
    for (int k = 0; k < 3; ++k) r.d[k] = a.d[k] + b.d[k];
    return r;
}
inline dual3 operator-(const dual3& a, const dual3& b) {
    dual3 r(a.v - b.v);
    for (int k = 0; k < 3; ++k) r.d[k] = a.d[k] - b.d[k];
    return r;
}
inline dual3 operator-(const dual3& a) {
    dual3 r(-a.v);
    for (int k = 0; k < 3; ++k) r.d[k] = -a.d[k];
    return r;
}
inline dual3 operator*(const dual3& a, const dual3& b) {
    dual3 r(a.v * b.v);
    for (int k = 0; k < 3; ++k) r.d[k] = a.d[k] * b.v + a.v * b.d[k];
    return r;
}
inline dual3 operator+(const dual3& a, double b) {
    return a + dual3(b);
}
inline dual3 operator+(double a, const dual3& b) {
    return dual3(a) + b;
}
inline dual3 operator-(const dual3& a, double b) {
    return a - dual3(b);
}
inline dual3 operator-(double a, const dual3& b) {
    return dual3(a) - b;
}
inline dual3 operator*(const dual3& a, double b) {
    dual3 r(a.v * b);
    for (int k = 0; k < 3; ++k) r.d[k] = a.d[k] * b;
    return r;
}
inline dual3 operator*(double a, const dual3& b) {
    return b * a;
}

constexpr double half = 0.5;
constexpr double sqrt3_half = 0.8660254037844386; // sqrt(3)/2
constexpr double quarter = 0.25;

// The p-d entries E(p, d) for integrals pds, pdp, as in Table I of Slater and
// Koster; e[p][d] with p = x, y, z and d = xy, yz, zx, x2-y2, 3z2-r2.
template <class T>
void pd_entries(const T& l, const T& m, const T& n, double pds, double pdp, T (&e)[3][5]) {
    const double r3 = 2.0 * sqrt3_half;
    const T ll = l * l, mm = m * m, nn = n * n, lmn = l * m * n;
    const T l2m2 = ll - mm;
    const T z2 = nn - half * (ll + mm);
    e[0][0] = r3 * ll * m * pds + m * (1.0 - 2.0 * ll) * pdp;
    e[0][1] = r3 * lmn * pds - 2.0 * lmn * pdp;
    e[0][2] = r3 * ll * n * pds + n * (1.0 - 2.0 * ll) * pdp;
    e[0][3] = sqrt3_half * l * l2m2 * pds + l * (1.0 - l2m2) * pdp;
    e[0][4] = l * z2 * pds - r3 * l * nn * pdp;
    e[1][0] = r3 * mm * l * pds + l * (1.0 - 2.0 * mm) * pdp;
    e[1][1] = r3 * mm * n * pds + n * (1.0 - 2.0 * mm) * pdp;
    e[1][2] = r3 * lmn * pds - 2.0 * lmn * pdp;
    e[1][3] = sqrt3_half * m * l2m2 * pds - m * (1.0 + l2m2) * pdp;
    e[1][4] = m * z2 * pds - r3 * m * nn * pdp;
    e[2][0] = r3 * lmn * pds - 2.0 * lmn * pdp;
    e[2][1] = r3 * nn * m * pds + m * (1.0 - 2.0 * nn) * pdp;
    e[2][2] = r3 * nn * l * pds + l * (1.0 - 2.0 * nn) * pdp;
    e[2][3] = sqrt3_half * n * l2m2 * pds - n * l2m2 * pdp;
    e[2][4] = n * z2 * pds + r3 * n * (ll + mm) * pdp;
}

// The whole table for one pair; put(row, col, value) stores an element.
template <class T, class Put>
void sk_table(const T& l, const T& m, const T& n, const double* sk, const ao_type& a1,
              const ao_type& a2, bool different, Put&& put) {
    const int* p1 = a1.pos;
    const int* p2 = a2.pos;
    const bool s1 = ao_has_s(a1), pp1 = ao_has_p(a1), d1 = ao_has_d(a1);
    const bool s2 = ao_has_s(a2), pp2 = ao_has_p(a2), d2 = ao_has_d(a2);
    const int px[3] = {orb_px, orb_py, orb_pz};
    const int dd[5] = {orb_dxy, orb_dyz, orb_dzx, orb_dx2y2, orb_d3z2r2};
    const double r3 = 2.0 * sqrt3_half;
    const T ll = l * l, mm = m * m, nn = n * n;

    if (s1 && s2) put(p1[orb_s], p2[orb_s], T(sk[sk_sss]));

    if (s1 && pp2) {
        const double sps = sk[sk_sps];
        put(p1[orb_s], p2[orb_px], l * sps);
        put(p1[orb_s], p2[orb_py], m * sps);
        put(p1[orb_s], p2[orb_pz], n * sps);
    }
    if (pp1 && s2) {
        // Odd parity: the mirror changes sign.
        const double pss = different ? sk[sk_pss] : sk[sk_sps];
        put(p1[orb_px], p2[orb_s], -(l * pss));
        put(p1[orb_py], p2[orb_s], -(m * pss));
        put(p1[orb_pz], p2[orb_s], -(n * pss));
    }

    if (pp1 && pp2) {
        const double pps = sk[sk_pps], ppp = sk[sk_ppp];
        const T xx = ll * pps + (1.0 - ll) * ppp;
        const T yy = mm * pps + (1.0 - mm) * ppp;
        const T zz = nn * pps + (1.0 - nn) * ppp;
        const T xy = l * m * (pps - ppp);
        const T yz = m * n * (pps - ppp);
        const T zx = n * l * (pps - ppp);
        put(p1[orb_px], p2[orb_px], xx);
        put(p1[orb_py], p2[orb_py], yy);
        put(p1[orb_pz], p2[orb_pz], zz);
        put(p1[orb_px], p2[orb_py], xy);
        put(p1[orb_py], p2[orb_px], xy);
        put(p1[orb_py], p2[orb_pz], yz);
        put(p1[orb_pz], p2[orb_py], yz);
        put(p1[orb_px], p2[orb_pz], zx);
        put(p1[orb_pz], p2[orb_px], zx);
    }

    if ((s1 && d2) || (d1 && s2)) {
        T e[5];
        auto fill = [&](double sds) {
            e[0] = r3 * l * m * sds;
            e[1] = r3 * m * n * sds;
            e[2] = r3 * n * l * sds;
            e[3] = sqrt3_half * (ll - mm) * sds;
            e[4] = (nn - half * (ll + mm)) * sds;
        };
        if (s1 && d2) {
            fill(sk[sk_sds]);
            for (int k = 0; k < 5; ++k) put(p1[orb_s], p2[dd[k]], e[k]);
        }
        if (d1 && s2) {
            // Even parity: the mirror keeps its sign.
            fill(different ? sk[sk_dss] : sk[sk_sds]);
            for (int k = 0; k < 5; ++k) put(p1[dd[k]], p2[orb_s], e[k]);
        }
    }

    if (pp1 && d2) {
        T e[3][5];
        pd_entries(l, m, n, sk[sk_pds], sk[sk_pdp], e);
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 5; ++b) put(p1[px[a]], p2[dd[b]], e[a][b]);
    }
    if (d1 && pp2) {
        T e[3][5];
        if (different)
            pd_entries(l, m, n, sk[sk_dps], sk[sk_dpp], e);
        else
            pd_entries(l, m, n, sk[sk_pds], sk[sk_pdp], e);
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 5; ++b) put(p1[dd[b]], p2[px[a]], -e[a][b]);
    }

    if (d1 && d2) {
        const double dds = sk[sk_dds], ddp = sk[sk_ddp], ddd = sk[sk_ddd];
        const double big_a = 3.0 * dds - 4.0 * ddp + ddd;
        const T lm = l * m, mn = m * n, nl = n * l;
        const T l2m2 = ll - mm;
        const T z2 = nn - half * (ll + mm);
        T e[5][5];
        e[0][0] = ll * mm * big_a + (ll + mm) * ddp + nn * ddd;
        e[1][1] = mm * nn * big_a + (mm + nn) * ddp + ll * ddd;
        e[2][2] = nn * ll * big_a + (nn + ll) * ddp + mm * ddd;
        e[0][1] = (mm * big_a + ddp - ddd) * nl;
        e[0][2] = (ll * big_a + ddp - ddd) * mn;
        e[1][2] = (nn * big_a + ddp - ddd) * lm;
        e[0][3] = lm * l2m2 * (1.5 * dds - 2.0 * ddp + half * ddd);
        e[1][3] = mn * (1.5 * l2m2 * dds - (1.0 + 2.0 * l2m2) * ddp + (1.0 + half * l2m2) * ddd);
        e[2][3] = nl * (1.5 * l2m2 * dds + (1.0 - 2.0 * l2m2) * ddp - (1.0 - half * l2m2) * ddd);
        e[0][4] = r3 * (lm * z2 * dds - 2.0 * lm * nn * ddp + half * lm * (1.0 + nn) * ddd);
        e[1][4] = r3 * (mn * z2 * dds + mn * (ll + mm - nn) * ddp - half * mn * (ll + mm) * ddd);
        e[2][4] = r3 * (nl * z2 * dds + nl * (ll + mm - nn) * ddp - half * nl * (ll + mm) * ddd);
        e[3][3] = 3.0 * quarter * l2m2 * l2m2 * dds + (ll + mm - l2m2 * l2m2) * ddp +
                  (nn + quarter * l2m2 * l2m2) * ddd;
        e[3][4] = r3 * (half * l2m2 * z2 * dds + nn * (mm - ll) * ddp +
                        quarter * (1.0 + nn) * l2m2 * ddd);
        e[4][4] = z2 * z2 * dds + 3.0 * nn * (ll + mm) * ddp +
                  3.0 * quarter * (ll + mm) * (ll + mm) * ddd;
        for (int a = 0; a < 5; ++a)
            for (int b = a; b < 5; ++b) {
                put(p1[dd[a]], p2[dd[b]], e[a][b]);
                if (b != a) put(p1[dd[b]], p2[dd[a]], e[a][b]);
            }
    }
}

} // namespace

void sk_param_map_p2a(const double* p, double* a) {
    a[0] = p[0];
    a[1] = p[1];
    a[2] = p[5];
    a[3] = p[2];
    a[4] = p[3];
    a[5] = p[4];
    a[6] = p[7];
    a[7] = p[8];
    a[8] = p[6];
    for (int k = 9; k < 14; ++k) a[k] = p[k];
}

void sk_param_map_a2p(const double* a, double* p) {
    p[0] = a[0];
    p[1] = a[1];
    p[5] = a[2];
    p[2] = a[3];
    p[3] = a[4];
    p[4] = a[5];
    p[7] = a[6];
    p[8] = a[7];
    p[6] = a[8];
    for (int k = 9; k < 14; ++k) p[k] = a[k];
}

void sk_param_set(sk_param_type& p, double x) {
    for (double& v : p.v) v = x;
}

void sk_param_scale(sk_param_type& p, double x) {
    for (double& v : p.v) v *= x;
}

void sk_param_square(sk_param_type& p) {
    for (double& v : p.v) v *= v;
}

void calc_sk_block(const double* lmn, const double* sk, double* block, int ld, const ao_type& ao1,
                   const ao_type& ao2, bool different) {
    sk_table(lmn[0], lmn[1], lmn[2], sk, ao1, ao2, different,
             [&](int r, int c, double v) { block[(r - 1) + ld * (c - 1)] = v; });
}

void calc_sk_block_derivatives(const double* lmn, const double* sk, double* bl, double* bm,
                               double* bn, int ld, const ao_type& ao1, const ao_type& ao2,
                               bool different) {
    sk_table(dual3(lmn[0], 0), dual3(lmn[1], 1), dual3(lmn[2], 2), sk, ao1, ao2, different,
             [&](int r, int c, const dual3& v) {
                 const int at = (r - 1) + ld * (c - 1);
                 bl[at] = v.d[0];
                 bm[at] = v.d[1];
                 bn[at] = v.d[2];
             });
}

namespace {

void one_derivative(int k, const double* lmn, const double* sk, double* block, int ld,
                    const ao_type& ao1, const ao_type& ao2, bool different) {
    sk_table(dual3(lmn[0], 0), dual3(lmn[1], 1), dual3(lmn[2], 2), sk, ao1, ao2, different,
             [&](int r, int c, const dual3& v) { block[(r - 1) + ld * (c - 1)] = v.d[k]; });
}

} // namespace

void calc_sk_block_derivative_l(const double* lmn, const double* sk, double* block, int ld,
                                const ao_type& ao1, const ao_type& ao2, bool different) {
    one_derivative(0, lmn, sk, block, ld, ao1, ao2, different);
}

void calc_sk_block_derivative_m(const double* lmn, const double* sk, double* block, int ld,
                                const ao_type& ao1, const ao_type& ao2, bool different) {
    one_derivative(1, lmn, sk, block, ld, ao1, ao2, different);
}

void calc_sk_block_derivative_n(const double* lmn, const double* sk, double* block, int ld,
                                const ao_type& ao1, const ao_type& ao2, bool different) {
    one_derivative(2, lmn, sk, block, ld, ao1, ao2, different);
}

} // namespace lyrt
