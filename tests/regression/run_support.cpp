#include "run_support.hpp"

#include "test_support.hpp"

#include <sstream>

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

run_result run_case(const std::filesystem::path& dir, const std::string& pos,
                    const std::string& inlyrt, const std::string& param) {
    std::filesystem::create_directories(dir);
    write_text(dir / "POSLYRT", pos);
    write_text(dir / "INLYRT", inlyrt);
    write_text(dir / "TBPARAM", param);
    run_result r;
    r.status = run_lyrt_in(dir);
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

} // namespace lyrt_test
