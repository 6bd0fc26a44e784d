#include "parallel/pdist_module.hpp"

#include "base/allocate_module.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"

#include <algorithm>
#include <cctype>
#include <vector>

namespace lyrt {

namespace {

constexpr const char* mod = "pdist_module";

void check_l_n(const pdist_type& pd, const char* proc) {
    if (pd.l_n_on_pe(pd.my_proc) != pd.l_n) {
        write_free(error_unit, {pd.l_n_on_pe(pd.my_proc), pd.l_n});
        fatal_error("Calculation of l_n is wrong", pd.l_n, proc, mod);
    }
}

void check_pe_map(const pdist_type& pd, const char* proc) {
    for (int i = 1; i <= pd.l_n; ++i)
        if (pd.pe_map(pd.l2g(i)) != pd.my_proc)
            fatal_error("pdist%pe_map is incorrect", i, proc, mod);
}

void set_max_l_n(pdist_type& pd) {
    pd.max_l_n = 0;
    for (int p = 0; p < pd.n_proc; ++p) pd.max_l_n = std::max(pd.max_l_n, pd.l_n_on_pe(p));
}

void allocate_maps(pdist_type& pd, const char* proc) {
    ca_integer_1d(pd.l2g, 1, pd.l_n, "pdist%l2g", proc, mod);
    ca_integer_1d(pd.pe_map, 1, pd.n, "pdist%pe_map", proc, mod);
    ca_integer_1d(pd.g2l, 1, pd.n, "pdist%g2l", proc, mod);
    ca_integer_1d(pd.map, 1, pd.n, "pdist%map", proc, mod);
    ca_integer_2d(pd.l2g_on_pe, 1, pd.max_l_n, 0, pd.n_proc - 1, "pdist%l2g_on_pe", proc, mod);
}

void compute_offsets(const pdist_type& pd, farray<int, 1>& offset_on_pe) {
    offset_on_pe(0) = 1;
    for (int p = 1; p < pd.n_proc; ++p) offset_on_pe(p) = offset_on_pe(p - 1) + pd.l_n_on_pe(p - 1);
}

// Reads l2g_on_pe out of map and sets pe_map from it.
void finish_maps(pdist_type& pd, farray<int, 1>& offset_on_pe) {
    compute_offsets(pd, offset_on_pe);
    for (int p = 0; p < pd.n_proc; ++p)
        for (int k = 1; k <= pd.l_n_on_pe(p); ++k) {
            pd.l2g_on_pe(k, p) = pd.map(offset_on_pe(p) + k - 1);
            pd.pe_map(pd.l2g_on_pe(k, p)) = p;
        }
}

} // namespace

void pdist_init(pdist_type& pd, int n, int block_size, int n_parts, int my_part,
                std::string_view method) {
    const char* proc = "pdist_init";
    const trace_guard trace(proc, mod);
    pd.n_proc = n_parts;
    pd.my_proc = my_part;
    pd.n = n;
    farray<int, 1> offset_on_pe;
    ca_integer_1d(offset_on_pe, 0, n_parts - 1, "offset_on_pe", proc, mod);
    ca_integer_1d(pd.l_n_on_pe, 0, n_parts - 1, "pdist%l_n_on_pe", proc, mod);
    pd.l_n_on_pe.fill(0);

    const int n_full = block_size > 0 ? (n / block_size) * block_size : 0;
    const int n_rest = n - n_full;
    const int n_blocks = block_size > 0 ? (n_full + block_size - 1) / block_size : 0;
    pd.l_n = 0;
    if (n_parts < 2) {
        pd.l_n = n;
        for (int p = 0; p < n_parts; ++p) pd.l_n_on_pe(p) = n;
    } else {
        int p = 0;
        for (int b = 0; b < n_blocks; ++b) {
            pd.l_n_on_pe(p) += block_size;
            if (p == my_part) pd.l_n += block_size;
            p = (p + 1) % n_parts;
        }
        if (n_rest > 0) {
            pd.l_n_on_pe(p) += n_rest;
            if (p == my_part) pd.l_n += n_rest;
        }
    }
    check_l_n(pd, proc);
    set_max_l_n(pd);
    allocate_maps(pd, proc);
    pd.method = std::string(method.substr(0, 2));
    for (char& c : pd.method) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    compute_offsets(pd, offset_on_pe);
    pd.g2l.fill(0);

    if (pd.method == "BC") {
        int p = 0, l = 1, g = 1;
        auto deal = [&](int size) {
            for (int k = 0; k < size; ++k, ++g) {
                pd.map(offset_on_pe(p) + k) = g;
                if (p == my_part) {
                    pd.l2g(l) = g;
                    pd.g2l(g) = l;
                    ++l;
                }
            }
            offset_on_pe(p) += size;
            p = (p + 1) % n_parts;
        };
        for (int b = 0; b < n_blocks; ++b) deal(block_size);
        if (n_rest > 0) deal(n_rest);
    } else {
        int g = 1;
        for (int p = 0; p < n_parts; ++p)
            for (int k = 1; k <= pd.l_n_on_pe(p); ++k, ++g) {
                pd.map(g) = g;
                if (p == my_part) {
                    pd.l2g(k) = g;
                    pd.g2l(g) = k;
                }
            }
    }
    finish_maps(pd, offset_on_pe);
    check_pe_map(pd, proc);
    cd_integer_1d(offset_on_pe, "offset_on_pe", proc, mod);
}

namespace {

// Shared body of pdist_generate and pdist_generate_indexed: first(b) is the
// global index of the first scalar of block b.
void generate(pdist_type& pd, const pdist_type& blk_pd, const farray<int, 1>& dim,
              const std::vector<int>& first, farray<int, 1>* blk_offset, farray<int, 1>* blk_dim,
              const char* proc) {
    pd.n_proc = blk_pd.n_proc;
    pd.my_proc = blk_pd.my_proc;
    pd.n = 0;
    for (int b = 1; b <= blk_pd.n; ++b) pd.n += dim(b);
    ca_integer_1d(pd.l_n_on_pe, 0, pd.n_proc - 1, "pdist%l_n_on_pe", proc, mod);
    pd.l_n = 0;
    for (int i = 1; i <= blk_pd.l_n; ++i) pd.l_n += dim(blk_pd.l2g(i));
    for (int p = 0; p < pd.n_proc; ++p) {
        pd.l_n_on_pe(p) = 0;
        for (int k = 1; k <= blk_pd.l_n_on_pe(p); ++k)
            pd.l_n_on_pe(p) += dim(blk_pd.l2g_on_pe(k, p));
    }
    check_l_n(pd, proc);
    set_max_l_n(pd);
    allocate_maps(pd, proc);
    pd.method = blk_pd.method;
    pd.g2l.fill(0);

    farray<int, 1> offset_on_pe;
    ca_integer_1d(offset_on_pe, 0, pd.n_proc - 1, "offset_on_pe", proc, mod);
    int pos = 1;
    for (int p = 0; p < pd.n_proc; ++p)
        for (int k = 1; k <= blk_pd.l_n_on_pe(p); ++k) {
            const int b = blk_pd.l2g_on_pe(k, p);
            for (int s = 0; s < dim(b); ++s) pd.map(pos++) = first[static_cast<std::size_t>(b)] + s;
        }
    int l = 1;
    for (int i = 1; i <= blk_pd.l_n; ++i) {
        const int b = blk_pd.l2g(i);
        if (blk_offset != nullptr) (*blk_offset)(i) = l;
        if (blk_dim != nullptr) (*blk_dim)(i) = dim(b);
        for (int s = 0; s < dim(b); ++s, ++l) {
            pd.l2g(l) = first[static_cast<std::size_t>(b)] + s;
            pd.g2l(pd.l2g(l)) = l;
        }
    }
    finish_maps(pd, offset_on_pe);
    check_pe_map(pd, proc);
    cd_integer_1d(offset_on_pe, "offset_on_pe", proc, mod);
}

} // namespace

void pdist_generate(pdist_type& pd, const pdist_type& blk_pd, const farray<int, 1>& dim,
                    farray<int, 1>* blk_offset, farray<int, 1>* blk_dim) {
    const char* proc = "pdist_generate";
    const trace_guard trace(proc, mod);
    std::vector<int> first(static_cast<std::size_t>(blk_pd.n) + 1, 1);
    for (int b = 2; b <= blk_pd.n; ++b)
        first[static_cast<std::size_t>(b)] = first[static_cast<std::size_t>(b - 1)] + dim(b - 1);
    generate(pd, blk_pd, dim, first, blk_offset, blk_dim, proc);
}

void pdist_generate_indexed(pdist_type& pd, const pdist_type& blk_pd, const farray<int, 1>& dim,
                            const farray<int, 1>& index, farray<int, 1>* blk_offset,
                            farray<int, 1>* blk_dim) {
    const char* proc = "pdist_generate_indexed";
    const trace_guard trace(proc, mod);
    std::vector<int> order(index.begin(), index.end());
    std::sort(order.begin(), order.end());
    std::vector<int> first(static_cast<std::size_t>(blk_pd.n) + 1, 1);
    int running = 1;
    for (int b : order) {
        first[static_cast<std::size_t>(b)] = running;
        running += dim(b);
    }
    generate(pd, blk_pd, dim, first, blk_offset, blk_dim, proc);
}

void pdist_dist_index(const pdist_type& pd, const farray<int, 1>& index, farray<int, 1>& l_index,
                      farray<int, 1>* index_map) {
    if (index_map != nullptr)
        for (int j = 1; j <= pd.n; ++j) (*index_map)(j) = index(pd.map(j));
    for (int i = 1; i <= pd.l_n; ++i) l_index(i) = index(pd.l2g(i));
}

void pdist_deallocate(pdist_type& pd) {
    const char* proc = "pdist_deallocate";
    if (pd.l_n_on_pe.allocated()) cd_integer_1d(pd.l_n_on_pe, "pdist%l_n_on_pe", proc, mod);
    if (pd.l2g.allocated()) cd_integer_1d(pd.l2g, "pdist%l2g", proc, mod);
    if (pd.map.allocated()) cd_integer_1d(pd.map, "pdist%map", proc, mod);
    if (pd.g2l.allocated()) cd_integer_1d(pd.g2l, "pdist%g2l", proc, mod);
    if (pd.l2g_on_pe.allocated()) cd_integer_2d(pd.l2g_on_pe, "pdist%l2g_on_pe", proc, mod);
    if (pd.pe_map.allocated()) cd_integer_1d(pd.pe_map, "pdist%pe_map", proc, mod);
}

void pdist_print(const pdist_type& pd, int unit) {
    auto with_values = [&](const char* label, const farray<int, 1>& a, int from, int to) {
        fitem_list items{label};
        for (int i = from; i <= to; ++i) items.emplace_back(a(i));
        write_free(unit, items);
    };
    write_fmt(unit, "(40('-'))", {});
    write_free(unit, {"pdist%n_proc  = ", pd.n_proc});
    write_free(unit, {"pdist%my_proc = ", pd.my_proc});
    write_free(unit, {"pdist%method  = ", pd.method});
    write_free(unit, {"pdist%n   = ", pd.n});
    write_free(unit, {"pdist%l_n = ", pd.l_n});
    with_values("pdist%l2g = ", pd.l2g, 1, pd.l_n);
    with_values("pdist%map = ", pd.map, 1, pd.n);
    with_values("pdist%pe_map = ", pd.pe_map, 1, pd.n);
    with_values("pdist%g2l =", pd.g2l, 1, pd.n);
    for (int p = 0; p < pd.n_proc; ++p) {
        write_free(unit, {"pdist%l_n_on_pe(", p, ") = ", pd.l_n_on_pe(p)});
        fitem_list items{"pdist%l2g_on_pe(", p, ") = "};
        for (int k = 1; k <= pd.l_n_on_pe(p); ++k) items.emplace_back(pd.l2g_on_pe(k, p));
        write_free(unit, items);
    }
    write_fmt(unit, "(40('-'))", {});
}

void pdist_test_module(int unit) {
    const int sizes[] = {1, 5, 8, 13};
    for (const char* method : {"bc", "bl"})
        for (int n : sizes)
            for (int np : {1, 2, 3}) {
                pdist_type pd;
                pdist_init(pd, n, 2, np, np - 1, method);
                pdist_print(pd, unit);
                pdist_deallocate(pd);
            }
}

} // namespace lyrt
