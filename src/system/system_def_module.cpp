#include "system/system_def_module.hpp"

#include "neighbours/pbc_module.hpp"
#include "numerics/random_module.hpp"
#include "parallel/mpi_module.hpp"
#include "run/error_module.hpp"
#include "run/io_module.hpp"
#include "system/constants_module.hpp"

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

void init_system_ions() {
    const char* proc = "init_system_ions";
    const char* mod = "system_def_module";
    if (debug > 0) trace_in(proc, mod);
    ions = &box.ions;
    ions_state.ions = &box.ions;
    ions_state.box = &box;
    init_random();
    constants_init();
    box_init(box, tb_model.r_cut, elec_algo.lo_rad);
    box_calc_ic_list(box);
    box_init_sb_list(box);
    box_ions_fill_sb(box);
    pdist_init(ions_pdist, ions->total_n_ions, 1, n_proc, my_proc, "bl");
    ions_init(ions_state, i_algo);
    pbc_calc_max_nn(box);
    write_free(stdout_unit, {"After pbc_calc_max_nn, max_n_nn=", ions->max_n_nn});
    pbc_calc_nn_lists(box, std::min(2 * ions->max_n_nn, ions->total_n_ions));
    if (debug > 0) trace_out(proc, mod);
}

} // namespace lyrt
