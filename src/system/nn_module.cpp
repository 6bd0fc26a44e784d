#include "system/nn_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "parallel/mpi_module.hpp"

namespace lyrt {

namespace {

constexpr const char* mod = "nn_module";
constexpr int nn_growth = 5; // first length and growth step of a list

void release_main(nn_list_type& list, const char* proc) {
    const std::string& p = list.name;
    if (list.index.allocated()) {
        if (list.index.owner())
            cd_integer_1d(list.index, p + "%index", proc, mod);
        else
            list.index.deallocate();
    }
    if (list.dist.allocated()) {
        if (list.dist.owner())
            cd_real_1d(list.dist, p + "%dist", proc, mod);
        else
            list.dist.deallocate();
    }
    if (list.r_ij.allocated()) {
        if (list.r_ij.owner())
            cd_real_2d(list.r_ij, p + "%r_ij", proc, mod);
        else
            list.r_ij.deallocate();
    }
    if (list.trans.allocated()) {
        if (list.trans.owner())
            cd_integer_2d(list.trans, p + "%trans", proc, mod);
        else
            list.trans.deallocate();
    }
}

// Regrows the main arrays to length n, keeping the first `keep` entries.
void grow_main(nn_list_type& list, int n, int keep, const char* proc) {
    farray<int, 1> index;
    farray<double, 1> dist;
    farray<double, 2> r_ij;
    farray<int, 2> trans;
    const std::string& p = list.name;
    ca_integer_1d(index, 1, n, p + "%index", proc, mod);
    ca_real_1d(dist, 1, n, p + "%dist", proc, mod);
    ca_real_2d(r_ij, 1, 3, 1, n, p + "%r_ij", proc, mod);
    ca_integer_2d(trans, 1, 3, 1, n, p + "%trans", proc, mod);
    for (int m = 1; m <= keep; ++m) {
        index(m) = list.index(m);
        dist(m) = list.dist(m);
        for (int k = 1; k <= 3; ++k) {
            r_ij(k, m) = list.r_ij(k, m);
            trans(k, m) = list.trans(k, m);
        }
    }
    release_main(list, proc);
    list.index = std::move(index);
    list.dist = std::move(dist);
    list.r_ij = std::move(r_ij);
    list.trans = std::move(trans);
}

void grow_os(nn_list_type& list, int n, int keep, const char* proc) {
    farray<int, 1> os;
    ca_integer_1d(os, 1, n, list.name + "%index_os", proc, mod);
    for (int m = 1; m <= keep; ++m) os(m) = list.index_os(m);
    if (list.index_os.allocated()) {
        if (list.index_os.owner())
            cd_integer_1d(list.index_os, list.name + "%index_os", proc, mod);
        else
            list.index_os.deallocate();
    }
    list.index_os = std::move(os);
}

} // namespace

void nn_allocate(nn_list_type& list, int n, std::string_view name) {
    const char* proc = "nn_allocate";
    list.name = std::string(name);
    list.n_nn = 0;
    list.n_os = 0;
    const std::string& p = list.name;
    ca_integer_1d(list.index, 1, n, p + "%index", proc, mod);
    ca_integer_1d(list.index_os, 1, n, p + "%index_os", proc, mod);
    ca_real_1d(list.dist, 1, n, p + "%dist", proc, mod);
    ca_real_2d(list.r_ij, 1, 3, 1, n, p + "%r_ij", proc, mod);
    ca_integer_2d(list.trans, 1, 3, 1, n, p + "%trans", proc, mod);
}

void nn_deallocate(nn_list_type& list) {
    const char* proc = "nn_deallocate";
    release_main(list, proc);
    if (list.index_os.allocated()) {
        if (list.index_os.owner())
            cd_integer_1d(list.index_os, list.name + "%index_os", proc, mod);
        else
            list.index_os.deallocate();
    }
    list.n_nn = 0;
    list.n_os = 0;
}

void nn_reset(nn_list_type& list) {
    list.n_nn = 0;
    list.n_os = 0;
}

void nn_reset_null(nn_list_type& list) {
    list.index = farray<int, 1>();
    list.index_os = farray<int, 1>();
    list.dist = farray<double, 1>();
    list.r_ij = farray<double, 2>();
    list.trans = farray<int, 2>();
    list.n_nn = 0;
    list.n_os = 0;
}

void nn_set(nn_list_type& list, farray<int, 1>* index, farray<double, 1>* dist,
            farray<double, 2>* r_ij, farray<int, 2>* trans, farray<int, 1>* index_os,
            const int* n_nn) {
    if (index != nullptr) list.index = index->view();
    if (dist != nullptr) list.dist = dist->view();
    if (r_ij != nullptr) list.r_ij = r_ij->view();
    if (trans != nullptr) list.trans = trans->view();
    if (index_os != nullptr) list.index_os = index_os->view();
    if (n_nn != nullptr) list.n_nn = *n_nn;
}

void nn_add_is(nn_list_type& list, int index, double dist, const double* r_ij, const int* trans) {
    const char* proc = "nn_add_is";
    if (list.name.empty()) list.name = "nn_list";
    if (!list.index.allocated()) grow_main(list, nn_growth, 0, proc);
    ++list.n_nn;
    if (list.n_nn > nn_length(list)) grow_main(list, list.n_nn + nn_growth, list.n_nn - 1, proc);
    const int m = list.n_nn;
    list.index(m) = index;
    list.dist(m) = dist;
    for (int k = 1; k <= 3; ++k) {
        list.r_ij(k, m) = r_ij[k - 1];
        list.trans(k, m) = trans[k - 1];
    }
}

void nn_add_os(nn_list_type& list, int index) {
    const char* proc = "nn_add_os";
    if (list.name.empty()) list.name = "nn_list";
    if (!list.index_os.allocated()) grow_os(list, nn_growth, 0, proc);
    ++list.n_os;
    if (list.n_os > static_cast<int>(list.index_os.extent(0)))
        grow_os(list, list.n_os + nn_growth, list.n_os - 1, proc);
    list.index_os(list.n_os) = index;
}

void nn_list_copy(nn_list_type& dst, const nn_list_type& src) {
    const std::string name = dst.name.empty() ? std::string("nn_list") : dst.name;
    nn_deallocate(dst);
    nn_allocate(dst, src.n_nn, name);
    dst.n_nn = src.n_nn;
    for (int m = 1; m <= src.n_nn; ++m) {
        dst.index(m) = src.index(m);
        dst.dist(m) = src.dist(m);
        for (int k = 1; k <= 3; ++k) {
            dst.r_ij(k, m) = src.r_ij(k, m);
            dst.trans(k, m) = src.trans(k, m);
        }
    }
    const int n_os = std::min(src.n_os, src.n_nn);
    for (int m = 1; m <= n_os; ++m) dst.index_os(m) = src.index_os(m);
    dst.n_os = n_os;
    for (int m = n_os + 1; m <= src.n_os; ++m) nn_add_os(dst, src.index_os(m));
}

void nn_bcast(nn_list_type& list, int root) {
    // One process holds every list already; a receiver would first check the
    // lengths and regrow ("n > l_n, reallocating nn_list arrays").
    bcast_int(list.n_nn, root);
    bcast_int(list.n_os, root);
}

} // namespace lyrt
