// Fuzz target: INLYRT through the keyword reader and the input parameters.
#include "fuzz_support.hpp"
#include "run/input_module.hpp"
#include "run/system_def_module.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    lyrt_fuzz::read_as("INLYRT", data, size, [] {
        lyrt::elec_algo_type elec_algo;
        lyrt::i_algo_type i_algo;
        lyrt::tb_model_type tb_model;
        lyrt::kpt_type kpt;
        std::string system_name;
        double n_electrons = -1.0;
        int n_states = -1, n_h_dup = 1;
        lyrt::read_input("INLYRT", elec_algo, i_algo, tb_model, kpt, system_name, n_electrons,
                         n_states, n_h_dup);
    });
    return 0;
}
