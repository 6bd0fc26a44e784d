// The keyword file INLYRT: run parameters of the electrons and of the ions.
#pragma once

#include "base/algo_module.hpp"
#include "model/tb_model_module.hpp"
#include "system/kpt_module.hpp"

#include <string>
#include <string_view>

namespace lyrt {

// Reads the keyword file into the records and globals; the model's r_cut and
// pair_pot_used serve as defaults and are overridden by their keywords.
void read_input(std::string_view file_name, elec_algo_type& elec_algo, i_algo_type& i_algo,
                tb_model_type& tb_model, kpt_type& kpt, std::string& system_name,
                double& n_electrons, int& n_states, int& n_h_dup);

// Sets i_algo%save_to_file and the data file names from the keyword's occurrences.
void save_to_file(int unit, std::string_view file_name, i_algo_type& i_algo);

} // namespace lyrt
