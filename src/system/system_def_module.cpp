#include "system/system_def_module.hpp"

namespace lyrt {

ions_type* ions = nullptr;
box_type box;
ions_state_type ions_state;
tb_model_type tb_model;
kpt_type kpt;
int n_states = 0;
int n_basis = 0;
int n_h_dup = 1;
pdist_type ions_pdist;
pdist_type states_pdist;
elec_algo_type elec_algo;
i_algo_type i_algo;
std::string system_name;
double n_electrons = 0.0;

} // namespace lyrt
