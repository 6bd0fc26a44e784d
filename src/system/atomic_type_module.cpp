#include "system/atomic_type_module.hpp"

#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "system/constants_module.hpp"

#include <cctype>
#include <cmath>

namespace lyrt {

namespace {

struct element_entry {
    const char* symbol;
    const char* name;
    double mass; // standard atomic weight, amu
};

const element_entry elements[n_elements] = {
    {"H", "Hydrogen", 1.00794},
    {"He", "Helium", 4.002602},
    {"Li", "Lithium", 6.941},
    {"Be", "Beryllium", 9.012182},
    {"B", "Boron", 10.811},
    {"C", "Carbon", 12.0107},
    {"N", "Nitrogen", 14.0067},
    {"O", "Oxygen", 15.9994},
    {"F", "Fluorine", 18.9984032},
    {"Ne", "Neon", 20.1797},
    {"Na", "Sodium", 22.98977},
    {"Mg", "Magnesium", 24.305},
    {"Al", "Aluminium", 26.981538},
    {"Si", "Silicon", 28.0855},
    {"P", "Phosphorus", 30.973761},
    {"S", "Sulfur", 32.065},
    {"Cl", "Chlorine", 35.453},
    {"Ar", "Argon", 39.948},
    {"K", "Potassium", 39.0983},
    {"Ca", "Calcium", 40.078},
    {"Sc", "Scandium", 44.95591},
    {"Ti", "Titanium", 47.867},
    {"V", "Vanadium", 50.9415},
    {"Cr", "Chromium", 51.9961},
    {"Mn", "Manganese", 54.938049},
    {"Fe", "Iron", 55.845},
    {"Co", "Cobalt", 58.9332},
    {"Ni", "Nickel", 58.6934},
    {"Cu", "Copper", 63.546},
    {"Zn", "Zinc", 65.409},
    {"Ga", "Gallium", 69.723},
    {"Ge", "Germanium", 72.64},
    {"As", "Arsenic", 74.9216},
    {"Se", "Selenium", 78.96},
    {"Br", "Bromine", 79.904},
    {"Kr", "Krypton", 83.798},
    {"Rb", "Rubidium", 85.4678},
    {"Sr", "Strontium", 87.62},
    {"Y", "Yttrium", 88.90585},
    {"Zr", "Zirconium", 91.224},
    {"Nb", "Niobium", 92.90638},
    {"Mo", "Molybdenum", 95.94},
    {"Tc", "Technetium", 98.0},
    {"Ru", "Ruthenium", 101.07},
    {"Rh", "Rhodium", 102.9055},
    {"Pd", "Palladium", 106.42},
    {"Ag", "Silver", 107.8682},
    {"Cd", "Cadmium", 112.411},
    {"In", "Indium", 114.818},
    {"Sn", "Tin", 118.71},
    {"Sb", "Antimony", 121.76},
    {"Te", "Tellurium", 127.6},
    {"I", "Iodine", 126.90447},
    {"Xe", "Xenon", 131.293},
    {"Cs", "Caesium", 132.90545},
    {"Ba", "Barium", 137.327},
    {"La", "Lanthanum", 138.9055},
    {"Ce", "Cerium", 140.116},
    {"Pr", "Praseodymium", 140.90765},
    {"Nd", "Neodymium", 144.24},
    {"Pm", "Promethium", 145.0},
    {"Sm", "Samarium", 150.36},
    {"Eu", "Europium", 151.964},
    {"Gd", "Gadolinium", 157.25},
    {"Tb", "Terbium", 158.92534},
    {"Dy", "Dysprosium", 162.5},
    {"Ho", "Holmium", 164.93032},
    {"Er", "Erbium", 167.259},
    {"Tm", "Thulium", 168.93421},
    {"Yb", "Ytterbium", 173.04},
    {"Lu", "Lutetium", 174.967},
    {"Hf", "Hafnium", 178.49},
    {"Ta", "Tantalum", 180.9479},
    {"W", "Tungsten", 183.84},
    {"Re", "Rhenium", 186.207},
    {"Os", "Osmium", 190.23},
    {"Ir", "Iridium", 192.217},
    {"Pt", "Platinum", 195.078},
    {"Au", "Gold", 196.96655},
    {"Hg", "Mercury", 200.59},
    {"Tl", "Thallium", 204.3833},
    {"Pb", "Lead", 207.2},
    {"Bi", "Bismuth", 208.98038},
    {"Po", "Polonium", 209.0},
    {"At", "Astatine", 210.0},
    {"Rn", "Radon", 222.0},
    {"Fr", "Francium", 223.0},
    {"Ra", "Radium", 226.0},
    {"Ac", "Actinium", 227.0},
    {"Th", "Thorium", 232.0381},
    {"Pa", "Protactinium", 231.03588},
    {"U", "Uranium", 238.02891},
    {"Np", "Neptunium", 237.0},
    {"Pu", "Plutonium", 244.0},
    {"Am", "Americium", 243.0},
    {"Cm", "Curium", 247.0},
    {"Bk", "Berkelium", 247.0},
    {"Cf", "Californium", 251.0},
    {"Es", "Einsteinium", 252.0},
    {"Fm", "Fermium", 257.0},
    {"Md", "Mendelevium", 258.0},
    {"No", "Nobelium", 259.0},
    {"Lr", "Lawrencium", 262.0},
    {"Rf", "Rutherfordium", 261.0},
    {"Db", "Dubnium", 262.0},
};

// Valence occupations s, p, d by atomic number; f-electron elements have none.
struct occupation_row {
    double s, p, d;
    int numbers[8];
};

const occupation_row occupation_table[] = {
    {1, 0, 0, {1, 3, 11, 19, 37, 55, 87}},
    {2, 0, 0, {4, 12, 20, 38, 56, 88}},
    {2, 1, 0, {5, 13, 31, 49, 81}},
    {2, 2, 0, {6, 14, 32, 50, 82}},
    {2, 3, 0, {7, 15, 33, 51, 83}},
    {2, 4, 0, {8, 16, 34, 52, 84}},
    {2, 5, 0, {9, 17, 35, 53, 85}},
    {2, 6, 0, {2, 10, 18, 36, 54, 86}}, // helium counts as a noble gas with a filled p shell
    {2, 0, 1, {21, 39, 57, 89}},
    {2, 0, 2, {22, 40, 72}},
    {2, 0, 3, {23, 73}},
    {1, 0, 4, {41}},
    {1, 0, 5, {24, 42}},
    {2, 0, 4, {74}},
    {2, 0, 5, {25, 43, 75}},
    {2, 0, 6, {26, 76}},
    {1, 0, 7, {44}},
    {2, 0, 7, {27, 77}},
    {1, 0, 8, {45}},
    {2, 0, 8, {28}},
    {0, 0, 10, {46}},
    {1, 0, 9, {78}},
    {1, 0, 10, {29, 47, 79}},
    {2, 0, 10, {30, 48, 80}},
};

const element_entry& entry(int number) {
    if (number < 1 || number > n_elements) number = n_elements;
    return elements[number - 1];
}

} // namespace

const char* atomic_symbol(int number) {
    return entry(number).symbol;
}
const char* atomic_name(int number) {
    return entry(number).name;
}
double atomic_mass_amu(int number) {
    return entry(number).mass;
}

void atomic_elec_struct(double* s, int number) {
    for (const auto& row : occupation_table)
        for (int n : row.numbers)
            if (n != 0 && n == number) {
                s[0] = row.s;
                s[1] = row.p;
                s[2] = row.d;
                return;
            }
    fatal_error("Elements 58-17 and 90-105 require f electrons !!!", number, "atomic_elec_struct",
                "atomic_type_module");
}

void atomic_type_init_num(atomic_type& type, int number) {
    const element_entry& e = entry(number);
    type.atomic_number = number;
    type.symbol = e.symbol;
    type.symbol.resize(2, ' ');
    type.mass = e.mass * amu_to_internal;
    atomic_elec_struct(type.elec_occ, number);
    type.n_val_elec = type.elec_occ[0] + type.elec_occ[1] + type.elec_occ[2];
}

void atomic_type_init_sym(atomic_type& type, std::string_view symbol) {
    std::string s(symbol.substr(0, 2));
    s.resize(2, ' ');
    s[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
    s[1] = static_cast<char>(std::tolower(static_cast<unsigned char>(s[1])));
    int number = n_elements;
    for (int z = 1; z <= n_elements; ++z) {
        std::string t = elements[z - 1].symbol;
        t.resize(2, ' ');
        if (t == s) {
            number = z;
            break;
        }
    }
    atomic_type_init_num(type, number);
}

void atomic_type_init_mass(atomic_type& type, double mass) {
    const double tolerance = single_0_1; // amu
    int number = n_elements;
    for (int z = 1; z <= n_elements; ++z)
        if (std::fabs(elements[z - 1].mass - mass) < tolerance) {
            number = z;
            break;
        }
    atomic_type_init_num(type, number);
}

int atomic_name_to_num(std::string_view name) {
    auto head4 = [](std::string_view s) {
        std::string h(s.substr(0, 4));
        h.resize(4, ' ');
        for (char& c : h) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return h;
    };
    const std::string key = head4(name);
    for (int z = 1; z <= n_elements; ++z)
        if (head4(elements[z - 1].name) == key) return z;
    return -1;
}

void atomic_type_print(const atomic_type& type, int unit) {
    write_fmt(unit, "(A,I3)", {"Atomic Number : ", type.atomic_number});
    write_fmt(unit, "(A,A2)", {"Symbol        : ", type.symbol});
    write_fmt(unit, "(A,E10.3,A,F8.3,A)",
              {"Mass   : ", type.mass, " (", type.mass / amu_to_internal, " amu)"});
    write_fmt(unit, "(A,3(A,F4.1))",
              {"Valence Atomic Structure : ", "s", type.elec_occ[0], ":p", type.elec_occ[1], ":d",
               type.elec_occ[2]});
}

} // namespace lyrt
