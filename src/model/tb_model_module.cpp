#include "model/tb_model_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "parallel/mpi_module.hpp"
#include "system/constants_module.hpp"
#include "system/ions_module.hpp"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <type_traits>

namespace lyrt {

namespace {

constexpr const char* mod = "tb_model_module";
constexpr double bohr = 0.529177;               // Angstrom per Bohr
constexpr double ry = 13.6058;                  // eV per Rydberg
constexpr double inv_bohr = 1.8897268777743552; // 1/0.529177
constexpr double inv_bohr2 = 3.5710676725828128;
constexpr double inv_bohr3 = 6.748342563230852;
constexpr double sqrt_inv_bohr = 1.3746733713047457;
constexpr double ry_inv_bohr = 25.711245953622324;
constexpr double ry_inv_bohr2 = 48.58723253962724;

// Letter 6 of the format token: the pair potential; kept here for correct_units.
bool pair_pot_flag = false;

// The ten integrals of the file, in file order, and their places in the record.
constexpr int file_integral[10] = {sk_sss, sk_sps, sk_pps, sk_ppp, sk_sds,
                                   sk_pds, sk_pdp, sk_dds, sk_ddp, sk_ddd};
constexpr const char* file_integral_name[10] = {"sss", "sps", "pps", "ppp", "sds",
                                                "pds", "pdp", "dds", "ddp", "ddd"};

farray<double, 3> rho;     // (n_species, n_ions, 1)
farray<double, 3> drho;    // (3, n_species + ub_n_nn + 1, n_ions)
farray<double, 3> sig_rho; // (6, n_species, n_ions)

// Reading of the parameter file: every failure names the file and the item.
struct param_reader {
    int unit;
    std::string file;

    [[noreturn]] void fail(int ios, const std::string& what) const {
        fatal_error("error reading parameter file " + file + ": " + what +
                        (ios < 0 ? " (the file ends early)" : " (not a number)"),
                    ios, "tb_model_read_param", mod);
    }
    void reals(std::span<double> v, const std::string& what) const {
        const int ios = read_free_reals(unit, v);
        if (ios != 0) fail(ios, what);
    }
    double real(const std::string& what) const {
        double v[1];
        reals(v, what);
        return v[0];
    }
    int integer(const std::string& what) const {
        int v[1];
        const int ios = read_free_ints(unit, v);
        if (ios != 0) fail(ios, what);
        return v[0];
    }
    std::string line(const std::string& what) const {
        std::string r;
        const int ios = unit_read(unit, r);
        if (ios != 0) fail(ios, what);
        if (r.size() > 80) r.resize(80);
        return r;
    }
};

std::string pair_name(int a, int b) {
    return std::to_string(a) + "-" + std::to_string(b);
}

// Fills pair_index in file order: diagonal, upper triangle, lower triangle.
void init_tables(tb_model_type& m, int n_species) {
    m.n_species = n_species;
    m.n_pairs = n_species * n_species;
    if (m.pair_index.allocated())
        cd_integer_2d(m.pair_index, "tb_model%pair_index", "init_tables", mod);
    ca_integer_2d(m.pair_index, 1, n_species, 1, n_species, "tb_model%pair_index", "init_tables",
                  mod);
    int p = 0;
    for (int i = 1; i <= n_species; ++i) m.pair_index(i, i) = ++p;
    for (int i = 1; i <= n_species; ++i)
        for (int j = i + 1; j <= n_species; ++j) m.pair_index(i, j) = ++p;
    for (int i = 1; i <= n_species; ++i)
        for (int j = i + 1; j <= n_species; ++j) m.pair_index(j, i) = ++p;
    m.param.assign(static_cast<std::size_t>(m.n_pairs), offsite_param_type{});
}

// Species pair of each place in param.
void pair_of(const tb_model_type& m, int p, int& a, int& b) {
    for (int i = 1; i <= m.n_species; ++i)
        for (int j = 1; j <= m.n_species; ++j)
            if (m.pair_index(i, j) == p) {
                a = i;
                b = j;
                return;
            }
}

// One section of 40 (and for a < b 16 more) coefficients into four records.
void read_sk_section(const param_reader& rd, tb_model_type& m, bool overlap) {
    for (int p = 1; p <= m.n_pairs; ++p) {
        int a = 0, b = 0;
        pair_of(m, p, a, b);
        offsite_param_type& pp = m.param[static_cast<std::size_t>(p - 1)];
        sk_param_type* rec = overlap ? &pp.s_a : &pp.h_a;
        const std::string section = overlap ? "S section" : "H section";
        if (a > b) {
            // The record of (b, a) with the two atoms exchanged.
            const offsite_param_type& q = pair_param(m, b, a);
            const sk_param_type* src = overlap ? &q.s_a : &q.h_a;
            for (int c = 0; c < 4; ++c) {
                rec[c] = src[c];
                std::swap(rec[c].v[sk_sps], rec[c].v[sk_pss]);
                std::swap(rec[c].v[sk_sds], rec[c].v[sk_dss]);
                std::swap(rec[c].v[sk_pds], rec[c].v[sk_dps]);
                std::swap(rec[c].v[sk_pdp], rec[c].v[sk_dpp]);
            }
            continue;
        }
        double table[40] = {};
        int counter = 0;
        for (int t = 1; t <= 10; ++t)
            for (int c = 1; c <= 4; ++c) {
                const int idx = c + 4 * (t - 1);
                if (idx != ++counter)
                    fatal_error("CHECK FAILED(" + std::to_string(idx) + ")", counter,
                                "tb_model_read_param", mod);
                table[idx - 1] =
                    rd.real(section + " of pair " + pair_name(a, b) + ", " +
                            file_integral_name[t - 1] + " coefficient " + std::to_string(c));
            }
        for (int c = 0; c < 4; ++c) {
            sk_param_set(rec[c], 0.0);
            for (int t = 0; t < 10; ++t) rec[c].v[file_integral[t]] = table[c + 4 * t];
            rec[c].v[sk_pss] = rec[c].v[sk_sps];
            rec[c].v[sk_dss] = rec[c].v[sk_sds];
            rec[c].v[sk_dps] = rec[c].v[sk_pds];
            rec[c].v[sk_dpp] = rec[c].v[sk_pdp];
        }
        if (a < b) {
            // The mirrored integrals of different species, with the signs of the format.
            const int extra[4] = {sk_pss, sk_dss, sk_dps, sk_dpp};
            const double sign[4] = {-1.0, 1.0, -1.0, -1.0};
            const char* names[4] = {"pss", "dss", "dps", "dpp"};
            for (int t = 0; t < 4; ++t)
                for (int c = 0; c < 4; ++c)
                    rec[c].v[extra[t]] =
                        sign[t] * rd.real(section + " of pair " + pair_name(a, b) + ", " +
                                          names[t] + " coefficient " + std::to_string(c + 1));
        }
    }
}

void read_onsite_abcd(const param_reader& rd, onsite_abcd_type& o, bool with_a,
                      const std::string& what) {
    if (with_a)
        o.a = rd.real(what + " a");
    else
        o.a = 0.0;
    o.b = rd.real(what + " b");
    o.c = rd.real(what + " c");
    o.d = rd.real(what + " d");
}

// Values at the front of a line that read as numbers, at most five.
int leading_numbers(const std::string& line, double* values) {
    int m = 0;
    for (const std::string& item : free_form_items(line)) {
        if (m == 5) break;
        std::string t = item;
        for (char& c : t)
            if (c == 'd' || c == 'D') c = 'E';
        char* end = nullptr;
        const double v = std::strtod(t.c_str(), &end);
        if (end == nullptr || *end != '\0' || t.empty() || !std::isfinite(v)) break;
        values[m++] = v;
    }
    return m;
}

double density_term(const offsite_param_type& p, double d) {
    return f_cut(d, p.r0, p.l0) * std::exp(-p.lambda2 * d);
}

} // namespace

// ---- parameter file -------------------------------------------------------------------

void tb_model_read_param(std::vector<atomic_type>& species, tb_model_type& tb_model,
                         std::string_view file_name, int n_species_of_ions) {
    const char* proc = "tb_model_read_param";
    const trace_guard trace(proc, mod);
    const std::string name(file_name);
    if (i_am_master) {
        param_reader rd{next_free_unit(), name};
        const int ios = unit_open(rd.unit, name, "old");
        if (ios != 0) fatal_error("problems opening file " + name + "iostat=", ios, proc, mod);

        // Header: format token and title.
        std::string token = rd.line("format token");
        for (char& c : token) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        rd.line("title");
        const std::string head = token.substr(0, 2);
        if (head != "NN" && head != "ON" && head != "NM" && head != "OM")
            fatal_error("unrecognised format for the parameter file " + name, -1, proc, mod);
        if (head[1] == 'M')
            fatal_error(name + " contains spin polarized parameters." +
                            "Trying to run spin-polarized calculation with" +
                            " non-spin polarized version. Recompile code with -DSPIN.",
                        -1, proc, mod);
        const std::string trimmed = token.substr(0, token.find_last_not_of(' ') + 1);
        tb_model.non_orthogonal = token[0] != 'O';
        pair_pot_flag = trimmed.size() >= 6 && trimmed[5] == '1';
        const bool insul_flag = trimmed.size() >= 7 && trimmed[6] == '1';
        if (pair_pot_flag)
            write_free(report_unit, {"Using pair potential for core-repulsion hack!!!"});
        if (trimmed.size() <= 2)
            write_free(report_unit,
                       {"parameter file " + name + " assumed to be in the new numbered format."});

        const int n_species = rd.integer("number of species");
        if (n_species != n_species_of_ions)
            fatal_error("# of species in TBPARAM inconsistent with POSLYRT", n_species, proc, mod);
        init_tables(tb_model, n_species);

        // Reach and width of the cut-off (diagonal and upper triangle), then core radii.
        std::vector<std::pair<int, int>> upper;
        for (int i = 1; i <= n_species; ++i) upper.emplace_back(i, i);
        for (int i = 1; i <= n_species; ++i)
            for (int j = i + 1; j <= n_species; ++j) upper.emplace_back(i, j);
        for (const auto& [i, j] : upper) {
            double v[2];
            rd.reals(v, "r0 and l0 of pair " + pair_name(i, j));
            for (offsite_param_type* p :
                 {&pair_param(tb_model, i, j), &pair_param(tb_model, j, i)}) {
                p->r0 = v[0];
                p->l0 = v[1];
            }
        }
        if (pair_pot_flag)
            for (const auto& [i, j] : upper) {
                double v[2];
                rd.reals(v, "core radii of pair " + pair_name(i, j));
                for (offsite_param_type* p :
                     {&pair_param(tb_model, i, j), &pair_param(tb_model, j, i)}) {
                    p->core_ri = v[0];
                    p->core_ro = v[1];
                }
            }

        // Species blocks: orbitals, mass, electron counts.
        std::vector<ao_type> aos(static_cast<std::size_t>(n_species));
        species.resize(static_cast<std::size_t>(n_species));
        double electrons[5] = {0, 0, 0, 0, 0}; // kept from one species to the next
        for (int i = 1; i <= n_species; ++i) {
            const std::string sp = "species " + std::to_string(i);
            const int count = rd.integer("orbital count of " + sp);
            const int mask = ao_no_to_ao(count);
            if (mask == 0)
                fatal_error("orbital count " + std::to_string(count) + " of " + sp + " in " + name +
                                " is not one of 1, 3, 4, 5, 6, 8, 9",
                            count, proc, mod);
            ao_init(aos[static_cast<std::size_t>(i - 1)], mask);
            const double mass = rd.real("mass of " + sp);
            atomic_type& at = species[static_cast<std::size_t>(i - 1)];
            atomic_type_init_mass(at, mass);
            write_free(report_unit, {"Element : ", std::string(atomic_name(at.atomic_number))});
            const std::string line = rd.line("electron counts of " + sp);
            const int m = leading_numbers(line, electrons);
            if (m == 0) rd.fail(1, "electron counts of " + sp);
            if (m == 3) electrons[3] = 0.0;
            if (electrons[0] != at.elec_occ[0] || electrons[1] != at.elec_occ[1] ||
                electrons[2] != at.elec_occ[2])
                warning_error("Inconsistency in elec struct", proc, mod);
            for (int k = 0; k < 3; ++k) at.elec_occ[k] = electrons[k];
            at.n_val_elec = electrons[0] + electrons[1] + electrons[2];
            at.hubbard_u = electrons[3];
        }

        // preinit_param: orbital sets and flags of every pair.
        for (int a = 1; a <= n_species; ++a)
            for (int b = 1; b <= n_species; ++b) {
                offsite_param_type& p = pair_param(tb_model, a, b);
                p.ao1 = aos[static_cast<std::size_t>(a - 1)];
                p.ao2 = aos[static_cast<std::size_t>(b - 1)];
                p.type1 = a;
                p.type2 = b;
                p.spin = 1;
                p.insul = (a == b && insul_flag) ? 1 : 0;
            }
        tb_model.pair_pot = pair_pot_flag;
        tb_model.classical = false;
        tb_model.on_site_env = true;

        // On-site section, both triangles in pair order.
        for (int pidx = 1; pidx <= tb_model.n_pairs; ++pidx) {
            int a = 0, b = 0;
            pair_of(tb_model, pidx, a, b);
            offsite_param_type& p = tb_model.param[static_cast<std::size_t>(pidx - 1)];
            const std::string what = "on-site section of pair " + pair_name(a, b) + ", ";
            if (a == b)
                p.lambda = rd.real(what + "lambda");
            else
                p.lambda = tb_model.param[static_cast<std::size_t>(b - 1)].lambda;
            read_onsite_abcd(rd, p.s, a == b, what + "s");
            read_onsite_abcd(rd, p.p, a == b, what + "p");
            read_onsite_abcd(rd, p.d_t3g, a == b, what + "d_t3g");
            read_onsite_abcd(rd, p.d_eg, a == b, what + "d_eg");
        }
        read_sk_section(rd, tb_model, false);
        if (tb_model.non_orthogonal) {
            read_sk_section(rd, tb_model, true);
        } else {
            for (offsite_param_type& p : tb_model.param)
                for (sk_param_type* s : {&p.s_a, &p.s_b, &p.s_c, &p.s_d}) sk_param_set(*s, 0.0);
        }
        tb_model.atomic = &species;
        init_model(tb_model);
        unit_close(rd.unit);
    }
    barrier();
    tb_model.atomic = &species;
    tb_model_bcast(tb_model);
    tb_model.pair_pot_used = tb_model.pair_pot;
    tb_init_atm_energies(tb_model);
}

void correct_units(offsite_param_type& p) {
    sk_param_square(p.h_d);
    sk_param_square(p.s_d);
    p.r0 *= bohr;
    p.l0 *= bohr;
    p.r_cut *= bohr;
    if (pair_pot_flag) {
        p.core_ri *= bohr;
        p.core_ro *= bohr;
    }
    p.lambda *= sqrt_inv_bohr;
    p.lambda2 = p.lambda * p.lambda;
    for (onsite_abcd_type* o : {&p.s, &p.p, &p.d_t3g, &p.d_eg}) {
        o->a *= ry;
        o->b *= ry;
        o->c *= ry;
        o->d *= ry;
    }
    sk_param_scale(p.h_a, ry);
    sk_param_scale(p.h_b, ry_inv_bohr);
    sk_param_scale(p.h_c, ry_inv_bohr2);
    sk_param_scale(p.h_d, inv_bohr);
    if (p.insul != 1) {
        sk_param_scale(p.s_b, inv_bohr);
        sk_param_scale(p.s_c, inv_bohr2);
        sk_param_scale(p.s_d, inv_bohr);
    } else {
        sk_param_scale(p.s_a, inv_bohr);
        sk_param_scale(p.s_b, inv_bohr2);
        sk_param_scale(p.s_c, inv_bohr3);
        sk_param_scale(p.s_d, inv_bohr);
    }
}

void init_model(tb_model_type& tb_model) {
    tb_model.max_no = ao_get_no_type(tb_model.param[0].ao1);
    for (const offsite_param_type& p : tb_model.param)
        tb_model.max_no = std::max({tb_model.max_no, ao_get_no_type(p.ao1), ao_get_no_type(p.ao2)});
    tb_model.same_orbitals = true;
    for (const offsite_param_type& p : tb_model.param)
        if (ao_get_no_type(p.ao1) != tb_model.max_no || ao_get_no_type(p.ao2) != tb_model.max_no)
            tb_model.same_orbitals = false;
    tb_model.r_cut = 0.0;
    for (offsite_param_type& p : tb_model.param) {
        p.r_cut = p.r0;
        correct_units(p);
        tb_model.r_cut = std::max(tb_model.r_cut, p.r_cut);
        p.r0 -= 5.0 * p.l0;
    }
}

void tb_init_atm_energies(tb_model_type& tb_model) {
    if (tb_model.e_atom.allocated())
        cd_real_1d(tb_model.e_atom, "tb_model%e_atom", "tb_init_atm_energies", mod);
    ca_real_1d(tb_model.e_atom, 1, tb_model.n_species, "tb_model%e_atom", "tb_init_atm_energies",
               mod);
    for (int i = 1; i <= tb_model.n_species; ++i) {
        const offsite_param_type& pp = pair_param(tb_model, i, i);
        const atomic_type& at = (*tb_model.atomic)[static_cast<std::size_t>(i - 1)];
        const double ns = at.elec_occ[0], np = at.elec_occ[1], nd = at.elec_occ[2];
        tb_model.e_atom(i) = ns * pp.s.a + np * pp.p.a + 0.2 * (3.0 * nd) * pp.d_t3g.a +
                             0.2 * (2.0 * nd) * pp.d_eg.a;
    }
}

void tb_model_print_param(const tb_model_type& tb_model, int unit) {
    const char* labels[14] = {
        "  sss :", "  sps :", "  sds :", "  pss :", "  pps :", "  ppp :", "  pds :",
        "  pdp :", "  dss :", "  dps :", "  dpp :", "  dds :", "  ddp :", "  ddd :"};
    for (int a = 1; a <= tb_model.n_species; ++a)
        for (int b = 1; b <= tb_model.n_species; ++b) {
            const offsite_param_type& p = pair_param(tb_model, a, b);
            const std::string n1 =
                atomic_name((*tb_model.atomic)[static_cast<std::size_t>(a - 1)].atomic_number);
            const std::string n2 =
                atomic_name((*tb_model.atomic)[static_cast<std::size_t>(b - 1)].atomic_number);
            if (a == b)
                write_fmt(unit, "(A,E15.6,A)", {"Atomic energy of ", tb_model.e_atom(a), " eV"});
            write_fmt(unit, "(A)",
                      {"On-site terms parameters for " + n1 + "-" + n2 + " interactions"});
            write_fmt(unit, "(A,F8.4)", {"lambda  = ", p.lambda});
            const std::pair<const char*, const onsite_abcd_type*> ons[4] = {
                {"s     ", &p.s}, {"p     ", &p.p}, {"d_t3g ", &p.d_t3g}, {"d_eg  ", &p.d_eg}};
            for (const auto& [label, o] : ons)
                write_fmt(unit, "(A,4E15.6)",
                          {std::string(label) + " : On-site ", o->a, o->b, o->c, o->d});
            write_fmt(unit, "(A,F8.4)", {"r0      = ", p.r0});
            write_fmt(unit, "(A,F8.4)", {"l0      = ", p.l0});
            write_fmt(unit, "(A,F8.4)", {"core_ri = ", p.core_ri});
            write_fmt(unit, "(A,F8.4)", {"core_ro = ", p.core_ro});
            // Integrals of the pair's orbitals only, in atom order.
            bool has[14];
            const ao_type &o1 = p.ao1, &o2 = p.ao2;
            const bool flags[9] = {ao_has_s_s(o1, o2), ao_has_s_p(o1, o2), ao_has_s_d(o1, o2),
                                   ao_has_p_s(o1, o2), ao_has_p_p(o1, o2), ao_has_p_d(o1, o2),
                                   ao_has_d_s(o1, o2), ao_has_d_p(o1, o2), ao_has_d_d(o1, o2)};
            const int groups[14] = {0, 1, 2, 3, 4, 4, 5, 5, 6, 7, 7, 8, 8, 8};
            for (int k = 0; k < 14; ++k) has[k] = flags[groups[k]];
            auto print_set = [&](const char* title, const sk_param_type* rec) {
                write_fmt(unit, "(A)", {title});
                double at[4][14];
                for (int c = 0; c < 4; ++c) sk_param_map_p2a(rec[c].v, at[c]);
                for (int k = 0; k < 14; ++k)
                    if (has[k])
                        write_fmt(unit, "(A,5E15.6)",
                                  {labels[k], at[0][k], at[1][k], at[2][k], at[3][k]});
            };
            print_set("Hamiltonian off-site parameters ", &p.h_a);
            if (tb_model.non_orthogonal) print_set("Overlap off-site parameters ", &p.s_a);
        }
}

namespace {

// The packed message of the model: process 0 writes the record into bytes, every
// other process reads it back in the same order.
struct model_packet {
    std::vector<char> bytes;
    std::size_t at = 0;
    bool writing = true;

    template <class T>
    void item(T& x) {
        static_assert(std::is_trivially_copyable_v<T>);
        if (writing) {
            const char* p = reinterpret_cast<const char*>(&x);
            bytes.insert(bytes.end(), p, p + sizeof(T));
        } else {
            if (at + sizeof(T) > bytes.size())
                fatal_error("the broadcast model is shorter than its record", -1, "tb_model_bcast",
                            mod);
            std::memcpy(&x, bytes.data() + at, sizeof(T));
            at += sizeof(T);
        }
    }
    void text(std::string& x) {
        int n = static_cast<int>(x.size());
        item(n);
        if (writing) {
            bytes.insert(bytes.end(), x.begin(), x.end());
        } else {
            x.assign(bytes.data() + at, static_cast<std::size_t>(n));
            at += static_cast<std::size_t>(n);
        }
    }
};

void pack_model(model_packet& pk, tb_model_type& m) {
    pk.item(m.max_no);
    pk.item(m.non_orthogonal);
    pk.item(m.pair_pot);
    pk.item(m.classical);
    pk.item(m.same_orbitals);
    pk.item(m.on_site_env);
    pk.item(m.n_species);
    pk.item(m.n_pairs);
    pk.item(m.r_cut);
    pk.item(pair_pot_flag);
    if (!pk.writing) init_tables(m, m.n_species);
    for (int j = 1; j <= m.n_species; ++j)
        for (int i = 1; i <= m.n_species; ++i) pk.item(m.pair_index(i, j));
    // A pair's record holds numbers only.
    for (offsite_param_type& p : m.param) pk.item(p);
    // The species records that the file completed.
    int n_atomic = m.atomic != nullptr ? static_cast<int>(m.atomic->size()) : 0;
    pk.item(n_atomic);
    if (!pk.writing && m.atomic != nullptr) m.atomic->resize(static_cast<std::size_t>(n_atomic));
    if (m.atomic != nullptr)
        for (atomic_type& a : *m.atomic) {
            pk.item(a.mass);
            pk.item(a.elec_occ);
            pk.item(a.atomic_number);
            pk.item(a.n_val_elec);
            pk.text(a.symbol);
            pk.item(a.hubbard_u);
        }
}

} // namespace

void tb_model_bcast(tb_model_type& tb_model) {
    // Process 0 read the file; the others receive the whole record and the species.
    if (n_proc < 2) return;
    model_packet pk;
    pk.writing = i_am_master;
    if (pk.writing) pack_model(pk, tb_model);
    bcast_bytes(pk.bytes);
    if (!pk.writing) pack_model(pk, tb_model);
}

// ---- model functions ------------------------------------------------------------------

double f_cut_smooth(double r, double r0, double l) {
    const double r1 = r0 + 4.0 * l, r2 = r0 + 5.0 * l;
    if (r < r1) return 1.0;
    if (r > r2) return 0.0;
    return 1.0 - 0.5 * (1.0 - std::cos(std::numbers::pi * (r - r1) / (r2 - r1)));
}

double f_cut_smooth_and_d(double r, double r0, double l, double& d) {
    const double r1 = r0 + 4.0 * l, r2 = r0 + 5.0 * l;
    if (r < r1) {
        d = 0.0;
        return 1.0;
    }
    if (r > r2) {
        d = 0.0;
        return 0.0;
    }
    const double x = std::numbers::pi * (r - r1) / (r2 - r1);
    d = -(std::numbers::pi / (2.0 * (r2 - r1))) * std::sin(x);
    return 1.0 - 0.5 * (1.0 - std::cos(x));
}

double f_cut(double r, double r0, double l) {
    return f_cut_smooth(r, r0, l) / (1.0 + std::exp((r - r0) / l));
}

double df_cut(double r, double r0, double l) {
    double d;
    const double s = f_cut_smooth_and_d(r, r0, l, d);
    // At and beyond the pair's reach the cut-off is 0, and so is its product with
    // this derivative in every caller: return 0 there instead of 0/0, so that a
    // pair reaching less far than the neighbour search adds nothing to gradients.
    if (s == 0.0) return 0.0;
    return 1.0 / (l * (1.0 + std::exp((r0 - r) / l))) - d / s;
}

double sk_param_of_r(double a, double b, double c, double d, double r0, double l, double r) {
    return f_cut(r, r0, l) * (a + b * r + c * r * r) * std::exp(-d * r);
}

double sk_param_of_r_insul(double delta, double a, double b, double c, double d, double r0,
                           double l, double r) {
    return f_cut(r, r0, l) * (delta + a * r + b * r * r + c * r * r * r) * std::exp(-d * r);
}

double bsk_param_of_r(double a, double b, double c, double d, double r0, double l, double r) {
    const double e = std::exp(-d * r), poly = a + b * r + c * r * r, fc = f_cut(r, r0, l);
    const double result = fc * poly * e;
    write_free(stdout_unit, {"r=", r, std::exp(-d * r)});
    write_free(stdout_unit, {"poly", poly});
    write_free(stdout_unit, {"fcut=", fc, result});
    return result;
}

double pair_pot(const offsite_param_type& p, double r) {
    const double a = p.core_ri, b = p.core_ro, c = b - a;
    if (r >= b - 1e-05) return 0.0;
    return std::exp(c / (r - b) + c / (r - a));
}

double pair_pot_derivative(const offsite_param_type& p, double r) {
    const double a = p.core_ri, b = p.core_ro, c = b - a;
    if (r >= b - 1e-05) return 0.0;
    return (-c / ((r - a) * (r - a)) - c / ((r - b) * (r - b))) *
           std::exp(c / (r - b) + c / (r - a));
}

double sum_pair_pot(double /*x*/, double sum) {
    return 0.5 * sum;
}
double sum_pair_pot_derivative() {
    return 0.5;
}

namespace {

// Which integrals a pair of orbital sets has.
template <class F>
void for_integrals(const ao_type& ao1, const ao_type& ao2, F&& f) {
    if (ao_has_s_s(ao1, ao2)) f(sk_sss);
    if (ao_has_s_p(ao1, ao2)) f(sk_sps);
    if (ao_has_s_d(ao1, ao2)) f(sk_sds);
    if (ao_has_p_s(ao1, ao2)) f(sk_pss);
    if (ao_has_p_p(ao1, ao2)) {
        f(sk_pps);
        f(sk_ppp);
    }
    if (ao_has_p_d(ao1, ao2)) {
        f(sk_pds);
        f(sk_pdp);
    }
    if (ao_has_d_s(ao1, ao2)) f(sk_dss);
    if (ao_has_d_p(ao1, ao2)) {
        f(sk_dps);
        f(sk_dpp);
    }
    if (ao_has_d_d(ao1, ao2)) {
        f(sk_dds);
        f(sk_ddp);
        f(sk_ddd);
    }
}

// The constant term of the overlap form: 1 within a shell, 0 between shells.
double insul_delta(int t) {
    return (t == sk_sss || t == sk_pps || t == sk_ppp || t == sk_dds || t == sk_ddp || t == sk_ddd)
               ? 1.0
               : 0.0;
}

} // namespace

void calc_x_ij_sk_param(double* x, const sk_param_type* a, double r0, double l, double r,
                        const ao_type& ao1, const ao_type& ao2) {
    for_integrals(ao1, ao2, [&](int t) {
        x[t] = sk_param_of_r(a[0].v[t], a[1].v[t], a[2].v[t], a[3].v[t], r0, l, r);
    });
}

void calc_x_ij_sk_param_insul(double* x, const sk_param_type* a, double r0, double l, double r,
                              const ao_type& ao1, const ao_type& ao2) {
    for_integrals(ao1, ao2, [&](int t) {
        x[t] = sk_param_of_r_insul(insul_delta(t), a[0].v[t], a[1].v[t], a[2].v[t], a[3].v[t], r0,
                                   l, r);
    });
}

void calc_dx_ij_sk_param(double* dx, const sk_param_type* a, double r0, double l, double r,
                         const ao_type& ao1, const ao_type& ao2) {
    const double dc = df_cut(r, r0, l);
    for_integrals(ao1, ao2, [&](int t) {
        const double ca = a[0].v[t], cb = a[1].v[t], cc = a[2].v[t], d = a[3].v[t];
        const double g = d + dc;
        dx[t] = sk_param_of_r(cb - ca * g, 2.0 * cc - cb * g, -cc * g, d, r0, l, r);
    });
}

void calc_dx_ij_sk_param_insul(double* dx, const sk_param_type* a, double r0, double l, double r,
                               const ao_type& ao1, const ao_type& ao2) {
    const double dc = df_cut(r, r0, l);
    for_integrals(ao1, ao2, [&](int t) {
        const double delta = insul_delta(t);
        const double ca = a[0].v[t], cb = a[1].v[t], cc = a[2].v[t], d = a[3].v[t];
        const double g = d + dc;
        dx[t] = sk_param_of_r_insul(ca - delta * g, 2.0 * cb - ca * g, 3.0 * cc - cb * g, -cc * g,
                                    d, r0, l, r);
    });
}

void calc_h_ij_sk_param(const offsite_param_type& p, double* x, double r) {
    calc_x_ij_sk_param(x, &p.h_a, p.r0, p.l0, r, p.ao1, p.ao2);
}

void calc_s_ij_sk_param(const offsite_param_type& p, double* x, double r) {
    if (p.insul != 0)
        calc_x_ij_sk_param_insul(x, &p.s_a, p.r0, p.l0, r, p.ao1, p.ao2);
    else
        calc_x_ij_sk_param(x, &p.s_a, p.r0, p.l0, r, p.ao1, p.ao2);
}

void calc_dh_ij_sk_param(const offsite_param_type& p, double* dx, double r) {
    calc_dx_ij_sk_param(dx, &p.h_a, p.r0, p.l0, r, p.ao1, p.ao2);
}

void calc_ds_ij_sk_param(const offsite_param_type& p, double* dx, double r) {
    if (p.insul != 0)
        calc_dx_ij_sk_param_insul(dx, &p.s_a, p.r0, p.l0, r, p.ao1, p.ao2);
    else
        calc_dx_ij_sk_param(dx, &p.s_a, p.r0, p.l0, r, p.ao1, p.ao2);
}

// ---- on-site terms -------------------------------------------------------------------

void init_on_site(const tb_model_type& tb_model, const ions_type& ions, const nn_list_type& ic_list,
                  double r_cut) {
    const int ns = tb_model.n_species, n = ions.total_n_ions;
    // Sized for the system at hand (a new system in the same process gets new arrays).
    if (rho.allocated() && (rho.extent(0) != ns || rho.extent(1) != n)) on_site_reset();
    if (!rho.allocated()) ca_real_3d(rho, 1, ns, 1, n, 1, 1, "rho", "init_on_site", mod);
    const double r2 = r_cut * r_cut;
    for (int i = 1; i <= n; ++i) {
        const int a = ions.type(i);
        for (int b = 1; b <= ns; ++b) rho(b, i, 1) = 0.0;
        const nn_list_type& nl = ions_nn_list(ions, i);
        const offsite_param_type& paa = pair_param(tb_model, a, a);
        for (int ic = 1; ic <= ic_list.n_nn; ++ic) {
            const double* rr = &ic_list.r_ij(1, ic);
            const double d2 = rr[0] * rr[0] + rr[1] * rr[1] + rr[2] * rr[2];
            if (r2 >= d2 && d2 > self_image_min) rho(a, i, 1) += density_term(paa, std::sqrt(d2));
            for (int jn = 1; jn <= nl.n_nn; ++jn) {
                const int b = ions.type(nl.index(jn));
                const double v[3] = {rr[0] + nl.r_ij(1, jn), rr[1] + nl.r_ij(2, jn),
                                     rr[2] + nl.r_ij(3, jn)};
                const double v2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                if (r2 >= v2)
                    rho(b, i, 1) += density_term(pair_param(tb_model, a, b), std::sqrt(v2));
            }
        }
    }
}

void init_on_site_grad(const tb_model_type& tb_model, const ions_type& ions,
                       const nn_list_type& ic_list, double r_cut) {
    const char* proc = "init_on_site_grad";
    const int ns = tb_model.n_species, n = ions.total_n_ions;
    const int width = ns + ions.ub_n_nn + 1;
    if (drho.allocated() && (drho.extent(2) != n || sig_rho.extent(1) != ns)) {
        cd_real_3d(drho, "drho", proc, mod);
        cd_real_3d(sig_rho, "sig_rho", proc, mod);
    }
    if (drho.allocated() && width > drho.extent(1)) {
        cd_real_3d(drho, "drho", proc, mod);
        cd_real_3d(sig_rho, "sig_rho", proc, mod);
        warning_error("drho and sig_rho have been reallocated", proc, mod);
    }
    if (!drho.allocated()) {
        ca_real_3d(drho, 1, 3, 1, width, 1, n, "drho", proc, mod);
        ca_real_3d(sig_rho, 1, 6, 1, ns, 1, n, "sig_rho", proc, mod);
    }
    drho.fill(0.0);
    sig_rho.fill(0.0);
    const double r2 = r_cut * r_cut;
    // g(d) = -(d/dd) t(d) of one density term.
    auto g_of = [](const offsite_param_type& p, double d) {
        return (p.lambda2 + df_cut(d, p.r0, p.l0)) * density_term(p, d);
    };
    // The six strain products u_a g v_b: xx, yy, zz, xy, yz, xz.
    auto add_strain = [&](int b, int i, const double* u, double g, const double* v) {
        sig_rho(1, b, i) += u[0] * g * v[0];
        sig_rho(2, b, i) += u[1] * g * v[1];
        sig_rho(3, b, i) += u[2] * g * v[2];
        sig_rho(4, b, i) += u[0] * g * v[1];
        sig_rho(5, b, i) += u[1] * g * v[2];
        sig_rho(6, b, i) += u[0] * g * v[2];
    };
    for (int i = 1; i <= n; ++i) {
        const int a = ions.type(i);
        const nn_list_type& nl = ions_nn_list(ions, i);
        const offsite_param_type& paa = pair_param(tb_model, a, a);
        for (int ic = 1; ic <= ic_list.n_nn; ++ic) {
            const double* rr = &ic_list.r_ij(1, ic);
            const double d2 = rr[0] * rr[0] + rr[1] * rr[1] + rr[2] * rr[2];
            if (r2 >= d2 && d2 > self_image_min) {
                const double d = std::sqrt(d2);
                const double u[3] = {rr[0] / d, rr[1] / d, rr[2] / d};
                add_strain(a, i, u, g_of(paa, d), rr);
            }
            for (int jn = 1; jn <= nl.n_nn; ++jn) {
                const int b = ions.type(nl.index(jn));
                const double* rij = &nl.r_ij(1, jn);
                const double v[3] = {rr[0] + rij[0], rr[1] + rij[1], rr[2] + rij[2]};
                const double v2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
                if (r2 >= v2) {
                    const double d = std::sqrt(v2);
                    const double u[3] = {v[0] / d, v[1] / d, v[2] / d};
                    const double g = g_of(pair_param(tb_model, a, b), d);
                    for (int k = 1; k <= 3; ++k) drho(k, b, i) += u[k - 1] * g;
                    add_strain(b, i, u, g, v);
                }
                // The density that ion i creates at its neighbour through this image.
                const double w[3] = {rr[0] - rij[0], rr[1] - rij[1], rr[2] - rij[2]};
                const double w2 = w[0] * w[0] + w[1] * w[1] + w[2] * w[2];
                if (r2 >= w2) {
                    const double d = std::sqrt(w2);
                    const double g = g_of(pair_param(tb_model, b, a), d);
                    for (int k = 1; k <= 3; ++k) drho(k, ns + jn, i) -= w[k - 1] / d * g;
                }
            }
        }
    }
}

namespace {

// Adds f(o) for each orbital class to the orbitals of the class present in ao.
template <class F>
void for_classes(const offsite_param_type& p, F&& add) {
    const ao_type& ao = p.ao1;
    if (ao.pos[orb_s] > 0) add(p.s, ao.pos[orb_s]);
    for (int k : {orb_px, orb_py, orb_pz})
        if (ao.pos[k] > 0) add(p.p, ao.pos[k]);
    for (int k : {orb_dxy, orb_dyz, orb_dzx})
        if (ao.pos[k] > 0) add(p.d_t3g, ao.pos[k]);
    for (int k : {orb_dx2y2, orb_d3z2r2})
        if (ao.pos[k] > 0) add(p.d_eg, ao.pos[k]);
}

} // namespace

void calc_h_ii_sk_param(const offsite_param_type& p, double* h_diag, int i) {
    const double x = rho(p.type2, i, 1);
    const double x1 = std::pow(x, 0.6666666666666666), x2 = x1 * x1, x3 = x * x;
    const bool same = p.type1 == p.type2;
    for_classes(p, [&](const onsite_abcd_type& o, int at) {
        h_diag[at - 1] += o.b * x1 + o.c * x2 + o.d * x3 + (same ? o.a : 0.0);
    });
}

void calc_dh_ii_sk_param(const offsite_param_type& p, double* dh_diag, int ld, int i, int j,
                         int k) {
    const int b = p.type2;
    const int ns = static_cast<int>(sig_rho.extent(1));
    double x;
    const double* dv;
    if (k < 0) {
        x = rho(b, i, 1);
        dv = &sig_rho(-k, b, i);
    } else if (k > 0) {
        // Entry k of ion i's list, which may be an image of i itself.
        x = rho(b, j, 1);
        dv = &drho(1, ns + k, i);
    } else {
        x = rho(b, i, 1);
        dv = &drho(1, b, i);
    }
    if (x <= 0.0) return;
    const double y = std::pow(x, 0.3333333333333333);
    for_classes(p, [&](const onsite_abcd_type& o, int at) {
        const double f = (2.0 * o.b / y + 4.0 * o.c * y + 6.0 * o.d * x) * 0.3333333333333333;
        for (int m = 0; m < 3; ++m) dh_diag[(at - 1) + ld * m] += f * dv[m];
    });
}

void calc_on_site_density() {}

const farray<double, 3>& on_site_rho() {
    return rho;
}
const farray<double, 3>& on_site_drho() {
    return drho;
}
const farray<double, 3>& on_site_sig_rho() {
    return sig_rho;
}

void on_site_reset() {
    const char* proc = "on_site_reset";
    if (rho.allocated()) cd_real_3d(rho, "rho", proc, mod);
    if (drho.allocated()) cd_real_3d(drho, "drho", proc, mod);
    if (sig_rho.allocated()) cd_real_3d(sig_rho, "sig_rho", proc, mod);
}

} // namespace lyrt
