#include "run_support.hpp"

#include "test_support.hpp"

#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>

namespace lyrt_test {

std::string poslyrt(const std::array<std::array<double, 3>, 3>& cell,
                    const std::vector<atom>& atoms, int n_species) {
    std::ostringstream f;
    f.precision(17);
    std::vector<int> count(static_cast<std::size_t>(n_species), 0);
    for (const atom& a : atoms) ++count[static_cast<std::size_t>(a.species - 1)];
    f << "number_of_ions =";
    for (int c : count) f << " " << c;
    f << "\n";
    for (int k = 0; k < 3; ++k)
        f << "a_" << k + 1 << " = " << cell[static_cast<std::size_t>(k)][0] << " "
          << cell[static_cast<std::size_t>(k)][1] << " " << cell[static_cast<std::size_t>(k)][2]
          << "\n";
    f << "positions = cartesian\n";
    for (const atom& a : atoms) f << a.species << " " << a.x << " " << a.y << " " << a.z << "\n";
    return f.str();
}

namespace {

std::vector<atom> crystal(const std::vector<std::array<double, 3>>& basis, double a, int n) {
    std::vector<atom> atoms;
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                for (const auto& b : basis)
                    atoms.push_back({1, a * (i + b[0]), a * (j + b[1]), a * (k + b[2])});
    return atoms;
}

} // namespace

std::vector<atom> diamond(double a, int n) {
    return crystal({{0, 0, 0},
                    {0, 0.5, 0.5},
                    {0.5, 0, 0.5},
                    {0.5, 0.5, 0},
                    {0.25, 0.25, 0.25},
                    {0.25, 0.75, 0.75},
                    {0.75, 0.25, 0.75},
                    {0.75, 0.75, 0.25}},
                   a, n);
}

std::vector<atom> fcc(double a, int n) {
    return crystal({{0, 0, 0}, {0, 0.5, 0.5}, {0.5, 0, 0.5}, {0.5, 0.5, 0}}, a, n);
}

std::string tbparam(const std::string& name) {
    return read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "tests/data" / (name + ".tbparam"));
}

int run_lyrt_mpi_in(const std::filesystem::path& dir, int n_processes) {
    // Oversubscribed (more processes than cores), one thread each; mpirun refuses
    // the root user unless told.
    const std::string cmd = "cd '" + dir.string() +
                            "' && OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 "
                            "OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=1 mpirun --oversubscribe -np " +
                            std::to_string(n_processes) +
                            " '" LYRT_BINARY "' >stdout.txt 2>stderr.txt";
    const int status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

run_result run_case(const std::filesystem::path& dir, const std::string& pos,
                    const std::string& inlyrt, const std::string& param, int n_processes) {
    std::filesystem::create_directories(dir);
    write_text(dir / "POSLYRT", pos);
    write_text(dir / "INLYRT", inlyrt);
    write_text(dir / "TBPARAM", param);
    run_result r;
    r.status = n_processes > 0 ? run_lyrt_mpi_in(dir, n_processes) : run_lyrt_in(dir);
    r.report = read_text(dir / "OUTLYRT");
    auto lines = read_lines(dir / "OUTLYRT");
    for (std::size_t k = 0; k < lines.size(); ++k) {
        const std::string& l = lines[k];
        if (l.rfind("  Potential       Energy =", 0) == 0 ||
            l.rfind("  Potential     Energy =", 0) == 0)
            r.e_pot = std::stod(l.substr(l.find('=') + 1));
        if (l.rfind("  Atomic        Energy =", 0) == 0)
            r.e_atoms = std::stod(l.substr(l.find('=') + 1));
        if (l.rfind("  Fermi         Energy =", 0) == 0)
            r.e_fermi = std::stod(l.substr(l.find('=') + 1));
        if (l.rfind("K-point #     1", 0) == 0) {
            r.eigenvalues.clear();
            for (std::size_t m = k + 1; m < lines.size(); ++m) {
                std::istringstream in(lines[m]);
                int index;
                double e;
                if (!(in >> index >> e) || index != static_cast<int>(r.eigenvalues.size()) + 1)
                    break;
                r.eigenvalues.push_back(e);
            }
        }
        if (l.rfind(" Type      Cartesian Coordinates                Forces", 0) == 0) {
            r.force.clear();
            for (std::size_t m = k + 1; m < lines.size() && lines[m].rfind("----", 0) != 0; ++m) {
                std::istringstream in(lines[m]);
                int type;
                double x, y, z;
                std::array<double, 3> f{};
                in >> type >> x >> y >> z >> f[0] >> f[1] >> f[2];
                r.force.push_back(f);
            }
        }
    }
    return r;
}

std::vector<double> json_numbers(const std::string& json, const std::string& key) {
    std::vector<double> out;
    const std::string quoted = "\"" + key + "\"";
    std::size_t p = json.find(quoted);
    if (p == std::string::npos) return out;
    p = json.find(':', p + quoted.size());
    if (p == std::string::npos) return out;
    int depth = 0;
    for (++p; p < json.size(); ++p) {
        const char c = json[p];
        if (c == '[') {
            ++depth;
        } else if (c == ']') {
            if (--depth <= 0) break;
        } else if (c == '-' || c == '+' || c == '.' || (c >= '0' && c <= '9')) {
            std::size_t used = 0;
            out.push_back(std::stod(json.substr(p), &used));
            p += used - 1;
            if (depth == 0) break;
        } else if ((c == ',' || c == '}') && depth == 0) {
            break;
        }
    }
    return out;
}

run_result run_folder(const std::filesystem::path& dir, const std::filesystem::path& from) {
    return run_case(dir, read_text(from / "POSLYRT"), read_text(from / "INLYRT"),
                    read_text(from / "TBPARAM"));
}

cell3 cube(double a) {
    return {{{a, 0, 0}, {0, a, 0}, {0, 0, a}}};
}

std::vector<atom> shaken(std::vector<atom> atoms, double amount) {
    for (std::size_t i = 0; i < atoms.size(); ++i) {
        const double s = static_cast<double>(i) + 1.0;
        atoms[i].x += amount * std::sin(1.3 * s);
        atoms[i].y += amount * std::cos(2.1 * s);
        atoms[i].z += amount * std::sin(0.7 * s + 1.0);
    }
    return atoms;
}
void check_forces(const std::filesystem::path& dir, const std::string& name, const cell3& cell,
                  const std::vector<atom>& atoms, int n_species, const std::string& input,
                  const std::string& param, int ion, double tol) {
    const run_result base =
        run_case(dir / (name + "0"), poslyrt(cell, atoms, n_species), input, param);
    ASSERT_EQ(base.status, 0) << name;
    ASSERT_EQ(base.force.size(), atoms.size());
    const double delta = 1e-4;
    for (int k = 0; k < 3; ++k) {
        std::vector<atom> plus = atoms, minus = atoms;
        double* pp = k == 0 ? &plus[static_cast<std::size_t>(ion)].x
                            : (k == 1 ? &plus[static_cast<std::size_t>(ion)].y
                                      : &plus[static_cast<std::size_t>(ion)].z);
        double* pm = k == 0 ? &minus[static_cast<std::size_t>(ion)].x
                            : (k == 1 ? &minus[static_cast<std::size_t>(ion)].y
                                      : &minus[static_cast<std::size_t>(ion)].z);
        *pp += delta;
        *pm -= delta;
        const run_result rp = run_case(dir / (name + "p" + std::to_string(k)),
                                       poslyrt(cell, plus, n_species), input, param);
        const run_result rm = run_case(dir / (name + "m" + std::to_string(k)),
                                       poslyrt(cell, minus, n_species), input, param);
        const double fd = -(rp.e_pot - rm.e_pot) / (2 * delta);
        EXPECT_NEAR(base.force[static_cast<std::size_t>(ion)][static_cast<std::size_t>(k)], fd, tol)
            << name << " direction " << k;
    }
    // The forces of all ions sum to zero.
    for (int k = 0; k < 3; ++k) {
        double s = 0.0;
        for (const auto& f : base.force) s += f[static_cast<std::size_t>(k)];
        EXPECT_NEAR(s, 0.0, 1e-7) << name;
    }
}

std::string example(const std::string& name, const std::string& file) {
    return read_text(std::filesystem::path(LYRT_SOURCE_DIR) / "examples" / name / file);
}

std::string with_hubbard(const std::string& name, const std::vector<double>& u) {
    std::istringstream in(tbparam(name));
    std::ostringstream out;
    // The electron line is the third of each species block (three lines a species),
    // which starts after the cut-off lines (one per pair: 1 or 3).
    const int first = u.size() == 1 ? 6 : 8;
    std::size_t k = 0;
    int line = 0;
    for (std::string l; std::getline(in, l); ++line) {
        if (k < u.size() && line == first + 3 * static_cast<int>(k))
            l += " " + std::to_string(u[k++]);
        out << l << "\n";
    }
    return out.str();
}

std::vector<ene_row> read_ene(const std::filesystem::path& dir) {
    std::vector<ene_row> rows;
    for (const auto& line : read_lines(dir / "ENE")) {
        if (line.empty() || line[0] == '#') continue;
        // Fixed columns (I9,E13.6,F10.2,3E20.12).
        auto field = [&](std::size_t at, std::size_t width) {
            const std::string f = line.substr(at, width);
            return f.find('*') != std::string::npos ? std::nan("") : std::stod(f);
        };
        ene_row r{static_cast<int>(field(0, 9)),
                  field(9, 13),
                  field(22, 10),
                  field(32, 20),
                  field(52, 20),
                  field(72, 20)};
        if (line.size() >= 132) {
            r.volume = field(92, 20);
            r.pressure = field(112, 20);
        }
        rows.push_back(r);
    }
    return rows;
}

cell3 cell_of(const std::filesystem::path& poscont) {
    cell3 a{};
    const auto lines = read_lines(poscont);
    for (std::size_t k = 0; k < 3 && k < lines.size(); ++k) {
        std::istringstream in(lines[k].substr(lines[k].find('=') + 1));
        in >> a[k][0] >> a[k][1] >> a[k][2];
    }
    return a;
}

double dot3(const std::array<double, 3>& x, const std::array<double, 3>& y) {
    return x[0] * y[0] + x[1] * y[1] + x[2] * y[2];
}

line_fit fit_total_energy(const std::vector<ene_row>& rows, std::size_t from) {
    double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (std::size_t i = from; i < rows.size(); ++i) {
        n += 1;
        sx += rows[i].time;
        sy += rows[i].e_tot;
        sxx += rows[i].time * rows[i].time;
        sxy += rows[i].time * rows[i].e_tot;
    }
    line_fit f;
    f.slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    const double a = f.intercept = (sy - f.slope * sx) / n;
    double ss = 0;
    for (std::size_t i = from; i < rows.size(); ++i) {
        const double r = rows[i].e_tot - a - f.slope * rows[i].time;
        ss += r * r;
    }
    f.rms = std::sqrt(ss / n);
    return f;
}

double mean_temperature(const std::vector<ene_row>& rows, double from_time) {
    double s = 0, n = 0;
    for (const auto& r : rows)
        if (r.time >= from_time) {
            s += r.temperature;
            n += 1;
        }
    return n > 0 ? s / n : 0.0;
}

double last_value(const std::string& text, const std::string& label) {
    const auto p = text.rfind(label);
    return p == std::string::npos ? std::nan("") : std::stod(text.substr(p + label.size()));
}

int count_of(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
    return n;
}

} // namespace lyrt_test
