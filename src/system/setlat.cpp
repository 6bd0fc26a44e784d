#include "system/setlat.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/utility_module.hpp"

#include <cmath>

namespace lyrt {

namespace {

struct lattice_info {
    const char* title;
    int n_constants; // a; a, c; a, b, c
};

const lattice_info lattices[14] = {
    {"Arbitrary lattice", 0},
    {"fcc lattice", 1},
    {"bcc lattice", 1},
    {"hexagonal lattice", 2},
    {"simple cubic lattice", 1},
    {"tetragonal lattice", 2},
    {"body-centered tetragonal lattice", 2},
    {"orthorhombic lattice", 3},
    {"base-centered orthorhombic lattice", 3},
    {"rotated tetragonal lattice", 2},
    {"face-centered tetragonal lattice", 2},
    {"fcc-like face-centered tetragonal lattice", 2},
    {"rhombohedral lattice", 2},
    {"bcc-like bct lattice", 2},
};

// Below this cos(theta) the rhombohedral vectors become degenerate.
constexpr double rhombohedral_cos_limit = -0.5 + 1e-10;

// Rhombohedral shape for cos(theta) = x: diagonal 1 + w, off-diagonal w, volume 1 + 3w.
double rhombohedral_w(double x) {
    const double y = std::sqrt((1.0 + 2.0 * x) / (1.0 - x));
    return (y - 1.0) / 3.0;
}

// The primitive vectors (rows of v) of lattice `kind` from its constants a, b and c
// (the rhombohedral lattice from w and the scale s).
void lattice_vectors(int kind, double ca, double cb, double cc, double w, double s,
                     double v[3][3]) {
    const double h = 0.8660254037844386;
    auto set = [&](int i, double x, double y, double z) {
        v[i][0] = x;
        v[i][1] = y;
        v[i][2] = z;
    };
    switch (kind) {
    case 1:
        set(0, 0, ca / 2, ca / 2);
        set(1, ca / 2, 0, ca / 2);
        set(2, ca / 2, ca / 2, 0);
        break;
    case 2:
        set(0, -ca / 2, ca / 2, ca / 2);
        set(1, ca / 2, -ca / 2, ca / 2);
        set(2, ca / 2, ca / 2, -ca / 2);
        break;
    case 3:
        set(0, ca / 2, -h * ca, 0);
        set(1, ca / 2, h * ca, 0);
        set(2, 0, 0, cc);
        break;
    case 4:
        set(0, ca, 0, 0);
        set(1, 0, ca, 0);
        set(2, 0, 0, ca);
        break;
    case 5:
        set(0, ca, 0, 0);
        set(1, 0, ca, 0);
        set(2, 0, 0, cc);
        break;
    case 6:
        set(0, ca, 0, 0);
        set(1, 0, ca, 0);
        set(2, ca / 2, ca / 2, cc / 2);
        break;
    case 7:
        set(0, ca, 0, 0);
        set(1, 0, cb, 0);
        set(2, 0, 0, cc);
        break;
    case 8:
        set(0, ca / 2, -cb / 2, 0);
        set(1, ca / 2, cb / 2, 0);
        set(2, 0, 0, cc);
        break;
    case 9:
        set(0, ca / 2, -ca / 2, 0);
        set(1, ca / 2, ca / 2, 0);
        set(2, 0, 0, cc);
        break;
    case 10:
        set(0, ca / 2, -ca / 2, 0);
        set(1, ca / 2, ca / 2, 0);
        set(2, ca / 2, 0, cc / 2);
        break;
    case 11:
        set(0, 0, ca / 2, cc / 2);
        set(1, ca / 2, 0, cc / 2);
        set(2, ca / 2, ca / 2, 0);
        break;
    case 12: {
        const double pd = (1 + w) * s, q = w * s;
        set(0, pd, q, q);
        set(1, q, pd, q);
        set(2, q, q, pd);
        break;
    }
    case 13:
        set(0, -ca / 2, ca / 2, cc / 2);
        set(1, ca / 2, -ca / 2, cc / 2);
        set(2, ca / 2, ca / 2, -cc / 2);
        break;
    default: break;
    }
}

// Reads the constants of lattice `latnum` (the vectors themselves for type 0) and
// sets its primitive vectors; 1 on a read error.
int read_lattice(int latnum, int unit, int out_unit, double v[3][3]) {
    const int kind = std::abs(latnum);
    if (kind == 0) {
        for (int i = 0; i < 3; ++i) {
            if (read_free_reals(unit, std::span<double>(v[i], 3)) != 0) {
                write_free(out_unit, {"setlat:  error in lattice parameter input"});
                return 1;
            }
            write_fmt(out_unit, "('a(',i1,') = ',3f12.5)", {i + 1, v[i][0], v[i][1], v[i][2]});
        }
        double scale[3];
        if (read_free_reals(unit, scale) != 0) {
            write_free(out_unit, {"setlat:  error in lattice parameter input"});
            return 1;
        }
        write_fmt(out_unit, "('Scale factors = ',3f10.5)", {scale[0], scale[1], scale[2]});
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) v[i][j] *= scale[j];
    } else {
        const int n_read = kind == 12 ? 2 : lattices[kind].n_constants;
        double p[3] = {};
        if (read_free_reals(unit, std::span<double>(p, static_cast<std::size_t>(n_read))) != 0) {
            write_free(out_unit, {"setlat:  error in lattice parameter input"});
            return 1;
        }
        double ca = 0, cb = 0, cc = 0; // constants a, b, c
        double cos_theta = 0, w = 0, s = 0;
        if (kind == 12) {
            cos_theta = std::cos(p[1] * std::acos(-1.0) / 180.0);
            if (cos_theta < rhombohedral_cos_limit) plain_stop("Angle to large for lattice 12");
            w = rhombohedral_w(cos_theta);
            if (latnum > 0) {
                write_fmt(out_unit, "(' a = ',f12.5)", {p[0]});
                s = p[0] / std::sqrt((1 + w) * (1 + w) + 2 * w * w); // |a_i| = a
            } else {
                write_fmt(out_unit, "(' V = ',f12.5,' theta = ',f10.6)", {p[0], p[1]});
                s = std::cbrt(p[0] / (1.0 + 3.0 * w));
            }
        } else if (latnum > 0) {
            ca = p[0];
            if (lattices[kind].n_constants == 1) {
                write_fmt(out_unit, "(' a = ',f12.5)", {ca});
            } else if (lattices[kind].n_constants == 2) {
                cc = p[1];
                write_fmt(out_unit, "(' a = ',f12.5,' c = ',f12.5)", {ca, cc});
            } else {
                cb = p[1];
                cc = p[2];
                write_fmt(out_unit, "(' a = ',f12.5,' b = ',f12.5, ' c = ',f12.5)", {ca, cb, cc});
            }
        } else {
            const double vol = p[0];
            double boa = 1.0, coa = 1.0;
            if (lattices[kind].n_constants == 1) {
                write_fmt(out_unit, "(' V = ',f12.5)", {vol});
            } else if (lattices[kind].n_constants == 2) {
                coa = p[1];
                write_fmt(out_unit, "(' V = ',f12.5,' c/a = ',f10.6)", {vol, coa});
            } else {
                boa = p[1];
                coa = p[2];
                write_fmt(out_unit, "(' V = ',f12.5,' b/a = ',f10.6, ' c/a = ',f10.6)",
                          {vol, boa, coa});
            }
            // Volume per conventional cell over volume of the primitive cell.
            const double factor[14] = {0, 4, 2, 1.1547005383792517, 1, 1, 2, 1, 2, 2, 4, 4, 0, 2};
            ca = std::cbrt(factor[kind] * vol / (coa * boa));
            cb = boa * ca;
            cc = coa * ca;
        }
        lattice_vectors(kind, ca, cb, cc, w, s, v);
    }
    return 0;
}

// Reads the elastic strain (Voigt form) that follows the lattice; 1 on a read
// error, 3 for an unknown type.
int read_strain(int unit, int out_unit, double e[6]) {
    int strain_v[1];
    if (read_free_ints(unit, strain_v) != 0) {
        write_free(out_unit, {"setlat:  error in strain input"});
        return 1;
    }
    const int strain = strain_v[0];
    write_fmt(out_unit, "(/'Elastic strain field ',i5)", {strain});
    if (strain == 1) {
        if (read_free_reals(unit, std::span<double>(e, 6)) != 0) {
            write_free(out_unit, {"setlat:  error in strain input"});
            return 1;
        }
    } else if (strain != 0) {
        const bool known = (strain >= 2 && strain <= 6) || strain == 21;
        if (!known) {
            write_free(out_unit, {"Unknown strain type"});
            return 3;
        }
        double xv[1];
        if (read_free_reals(unit, xv) != 0) {
            write_free(out_unit, {"setlat:  error in strain input"});
            return 1;
        }
        const double x = xv[0];
        write_fmt(out_unit, "('x = ',f12.8)", {x});
        switch (strain) {
        case 2: // volume-conserving orthorhombic
            e[0] = x;
            e[1] = -x;
            e[2] = x * x / (1.0 - x * x);
            break;
        case 3: // volume-conserving monoclinic shear in the xy plane
            e[5] = x;
            e[2] = x * x / (4.0 - x * x);
            break;
        case 4: // volume-conserving tetragonal
            e[0] = x;
            e[1] = x;
            e[2] = 1.0 / ((1.0 + x) * (1.0 + x)) - 1.0;
            break;
        case 5: // uniform dilation
            e[0] = x;
            e[1] = x;
            e[2] = x;
            break;
        case 6: // trigonal shear along (111)
            e[3] = x;
            e[4] = x;
            e[5] = x;
            break;
        case 21: // volume-conserving stretch in the xy plane
            e[0] = std::sqrt((1.0 + x) / (1.0 - x)) - 1.0;
            e[1] = std::sqrt((1.0 - x) / (1.0 + x)) - 1.0;
            break;
        }
    }
    return 0;
}

} // namespace

void setlat(farray<double, 2>& a, double& volume, int unit, int out_unit, int& status) {
    status = 0;
    int latnum_v[1];
    if (read_free_ints(unit, latnum_v) != 0) {
        write_free(out_unit, {"setlat:  error in latnum input"});
        status = 1;
        return;
    }
    const int latnum = latnum_v[0];
    write_fmt(out_unit, "(/'Lattice type ',i5)", {latnum});
    const int kind = std::abs(latnum);
    if (kind > 13) {
        write_free(out_unit, {"Unknown lattice type"});
        write_free(out_unit, {"setlat:  bad lattice"});
        status = 2;
        return;
    }
    double v[3][3] = {}; // v[i][j]: vector i, component j
    write_fmt(out_unit, "(A)", {lattices[kind].title});
    if ((status = read_lattice(latnum, unit, out_unit, v)) != 0) return;
    double e[6] = {};
    if ((status = read_strain(unit, out_unit, e)) != 0) return;
    write_fmt(out_unit, "('e_i = ',6f10.6)", {e[0], e[1], e[2], e[3], e[4], e[5]});
    const double d[3][3] = {{1 + e[0], e[5] / 2, e[4] / 2},
                            {e[5] / 2, 1 + e[1], e[3] / 2},
                            {e[4] / 2, e[3] / 2, 1 + e[2]}};
    for (int i = 0; i < 3; ++i) {
        double t[3] = {};
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) t[j] += d[j][k] * v[i][k];
        for (int j = 0; j < 3; ++j) a(i + 1, j + 1) = t[j];
    }
    double m[9];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i + 3 * j] = a(i + 1, j + 1);
    volume = std::fabs(det_3by3(m));
    if (volume == 0.0) write_free(out_unit, {"Zero Volume"});
}

} // namespace lyrt
