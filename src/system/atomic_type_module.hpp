// The periodic table: one record per chemical species, built from an atomic
// number, a symbol or a mass.
#pragma once

#include <string>
#include <string_view>

namespace lyrt {

constexpr int n_elements = 105;
// amu to the internal mass unit that makes eV, Angstrom and fs consistent.
constexpr double amu_to_internal = 103.6437626;

struct atomic_type {
    double mass = 0.0;         // internal units: amu x 103.6437626
    double elec_occ[3] = {};   // valence electrons in s, p, d
    int atomic_number = 0;     // 1..105
    double n_val_elec = 0.0;   // sum of the three occupations
    std::string symbol = "  "; // two characters, second lower case or blank
    double hubbard_u = 0.0;    // Hubbard parameter U, eV (fourth value of the electron line)
};

void atomic_type_init_num(atomic_type& type, int number);
void atomic_type_init_sym(atomic_type& type, std::string_view symbol);
void atomic_type_init_mass(atomic_type& type, double mass); // mass in amu
int atomic_name_to_num(std::string_view name);              // -1 when unknown
// Occupations s, p, d of an element; elements with f electrons stop the run.
void atomic_elec_struct(double* s, int number);
void atomic_type_print(const atomic_type& type, int unit);

// Table entries, by atomic number 1..105.
const char* atomic_symbol(int number);
const char* atomic_name(int number);
double atomic_mass_amu(int number);

} // namespace lyrt
