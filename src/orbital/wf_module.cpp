#include "orbital/wf_module.hpp"

#include "base/allocate_module.hpp"

namespace lyrt {

namespace {
constexpr const char* mod = "wf_module";
} // namespace

void wf_create(std::unique_ptr<wf_type>& wf, int n_1, int n_2, int& status) {
    status = 0;
    wf = std::make_unique<wf_type>();
    if (n_1 > 0 && n_2 > 0) {
        const long long bytes = 8LL * n_1 * n_2;
        if (!allocation_possible(bytes)) {
            status = 1;
            return;
        }
        wf_allocate(*wf, n_1, n_2);
    }
}

void wf_destroy(std::unique_ptr<wf_type>& wf, int& status) {
    status = wf ? 0 : 1;
    if (wf) wf_deallocate(*wf);
    wf.reset();
}

void wf_allocate(wf_type& wf, int n_1, int n_2) {
    wf_deallocate(wf);
    wf.n_1 = n_1;
    wf.n_2 = n_2;
    ca_real_2d(wf.mat, 1, n_1, 1, n_2, "wf%mat", "wf_allocate", mod);
}

void wf_deallocate(wf_type& wf) {
    if (wf.mat.allocated()) cd_real_2d(wf.mat, "wf%mat", "wf_deallocate", mod);
    wf.n_1 = 0;
    wf.n_2 = 0;
}

} // namespace lyrt
