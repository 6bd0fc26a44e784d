// Fuzz target: TBPARAM through the parameter reader, for one and for two species
// in the positions (the reader stops when the file disagrees).
#include "fuzz_support.hpp"
#include "model/tb_model_module.hpp"
#include "system/atomic_type_module.hpp"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (const int n_species : {1, 2})
        lyrt_fuzz::read_as("TBPARAM", data, size, [n_species] {
            std::vector<lyrt::atomic_type> species(static_cast<std::size_t>(n_species));
            lyrt::tb_model_type model;
            lyrt::tb_model_read_param(species, model, "TBPARAM", n_species);
        });
    return 0;
}
