// Building model systems for the tests: parameter files composed from the
// published sets, and a ready box, neighbour lists and hamiltonian.
#pragma once

#include "diag/electrons_module.hpp"
#include "model/tb_hs_module.hpp"
#include "neighbours/pbc_module.hpp"
#include "system/kpt_module.hpp"

#include <array>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace lyrt_test {

// The numbers of one species of a one-species parameter file, by section.
struct species_set {
    std::string token;
    std::string r0_l0;
    int count = 0;
    std::string mass;
    std::string electrons;
    std::vector<std::string> onsite; // lambda, then a b c d of s, p, d_t3g, d_eg
    std::vector<std::string> h, s;   // 40 each: a b c d of sss sps pps ppp sds pds pdp dds ddp ddd
};

species_set read_species_set(const std::string& name); // "Si" or "Cu" from tests/data
// A one-species file from a set (orbital count and token may be changed).
std::string one_species_file(const species_set& a, int count = 0, const std::string& token = "");
// Two species; the cross pair (1,2) takes the H and S coefficients `cross` (40 + 16
// extras as written in the file, each a b c d) and the on-site values of each
// diagonal pair without their a.
std::string two_species_file(const species_set& a, const species_set& b,
                             const std::vector<double>& cross_h, const std::vector<double>& cross_s,
                             const std::string& token = "NN00000");
// The 56 values of the cross pair that make species 2 behave as species 1 when
// both are copies of one set: the 40 of the set and the extras with the signs of
// the format.
std::vector<double> copy_cross(const std::vector<std::string>& forty);
void zero_onsite_density(species_set& a); // b, c, d of the on-site terms = 0

struct model_system {
    lyrt::box_type box;
    lyrt::tb_model_type model;
    lyrt::pdist_type pd;
    lyrt::hamiltonian_type ham;
};

// Writes POSLYRT and TBPARAM into dir, reads them and builds box, lists and H.
void build_system(model_system& s, const std::filesystem::path& dir, const std::string& poslyrt,
                  const std::string& tbparam, double r_cut = -1.0);
// Refreshes lists and H after positions or the cell changed.
void rebuild(model_system& s);
// One k-point, Gamma, of weight 1, with the smearing sigma (eV).
void gamma_point(lyrt::kpt_type& kpt, double sigma = 0.0);

// The electronic records of a ground state of a model system, as a run sets them up.
struct electronic_records {
    lyrt::kpt_type kpt;
    lyrt::eig_state_type eig;
    lyrt::scc_type scc;
    lyrt::elec_state_type elec;
    lyrt::elec_algo_type ea;
    lyrt::ions_state_type st;
};
// Gamma (or the points already in r.kpt) with smearing sigma; n_states states (0: half the
// electrons without smearing, every basis function with it) for the neutral electron count; the
// charge record, with the charge loop (multisecant mixer, tight tolerances, charges from zero) when
// `charges`; the ion state on the system.
void electronic_records_init(electronic_records& r, model_system& s, double sigma,
                             bool charges = false, int n_states = 0);
void electronic_records_free(electronic_records& r);
// Minus the derivative of energy() by coordinate x of ion i, by central differences
// of step h (Angstrom): energy() runs after each displaced geometry is rebuilt; the
// positions are restored and rebuilt at the end.
double minus_central_difference(model_system& s, int i, int x, double h,
                                const std::function<double()>& energy);
// Dense H and S.
void dense(model_system& s, lyrt::farray<double, 2>& h, lyrt::farray<double, 2>& sm);
std::vector<double> symmetric_eigenvalues(const lyrt::farray<double, 2>& m);

} // namespace lyrt_test
