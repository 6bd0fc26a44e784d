#include "parallel/mpi_module.hpp"

namespace lyrt {

int n_proc = 1;
int my_proc = 0;
bool i_am_master = true;

void init_mpi() {
    n_proc = 1;
    my_proc = 0;
    i_am_master = my_proc == 0;
}

void close_mpi() {}

} // namespace lyrt
