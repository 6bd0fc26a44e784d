#include "system/ions_module.hpp"

#include "base/allocate_module.hpp"
#include "base/dlexlib.hpp"
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "numerics/random_module.hpp"
#include "numerics/utility_module.hpp"
#include "parallel/mpi_module.hpp"
#include "system/box_module.hpp"
#include "system/constants_module.hpp"
#include "system/setlat.hpp"

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>

namespace lyrt {

namespace {

constexpr const char* mod = "ions_module";
constexpr double tolerance = single_1e_6;

// Whether the positions file had a velocities block (decides the velocity start).
bool velocities_read = false;

void bind_views(ions_type& ions) {
    ions.r = ions.r_of_t.slice_last(1);
    ions.v = ions.v_of_t.slice_last(1);
    ions.f = ions.f_of_t.slice_last(1);
}

void check_input_error(int status, std::string_view key, std::string_view file) {
    if (status == kw_ok || status == kw_not_found) return;
    fatal_error("error reading keyword " + std::string(key) + " from file " + std::string(file) +
                    " error number " + std::to_string(status),
                status, "check_input_error", mod);
}

// Number of unfrozen ions per coordinate; their sum must equal dof.
void count_free(const ions_type& ions, int* n_free, const char* proc) {
    n_free[0] = n_free[1] = n_free[2] = 0;
    for (int i = 1; i <= ions.total_n_ions; ++i)
        for (int k = 1; k <= 3; ++k)
            if (!ions.frozen(k, i)) ++n_free[k - 1];
    if (n_free[0] + n_free[1] + n_free[2] != ions.dof)
        fatal_error("Wrong # of degrees of freedom", -1, proc, mod);
}

double kinetic_energy(const ions_type& ions, int slot) {
    double e = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double m = ions.mass(ions.type(i));
        for (int k = 1; k <= 3; ++k) e += m * ions.v_of_t(k, i, slot) * ions.v_of_t(k, i, slot);
    }
    return 0.5 * e;
}

// Sum of m v.v over the free coordinates of a slot.
double free_mvv(const ions_type& ions, int slot) {
    double e = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double m = ions.mass(ions.type(i));
        for (int k = 1; k <= 3; ++k)
            if (!ions.frozen(k, i)) e += m * ions.v_of_t(k, i, slot) * ions.v_of_t(k, i, slot);
    }
    return e;
}

void scale_free(ions_type& ions, int slot, double s) {
    for (int i = 1; i <= ions.total_n_ions; ++i)
        for (int k = 1; k <= 3; ++k)
            if (!ions.frozen(k, i)) ions.v_of_t(k, i, slot) *= s;
}

// Removes the momentum p (per free coordinate) of a slot.
void remove_momentum(ions_type& ions, int slot, const double* p, const int* n_free) {
    double mean[3];
    for (int k = 0; k < 3; ++k) mean[k] = n_free[k] > 0 ? p[k] / n_free[k] : 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double inv_m = ions.inv_mass(ions.type(i));
        for (int k = 1; k <= 3; ++k)
            if (!ions.frozen(k, i)) ions.v_of_t(k, i, slot) -= mean[k - 1] * inv_m;
    }
}

// Reduced coordinates b x of a Cartesian vector.
void to_reduced(double* out, const cell_type& cell, int slot, const double* x) {
    for (int a = 1; a <= 3; ++a) {
        out[a - 1] = 0.0;
        for (int b = 1; b <= 3; ++b) out[a - 1] += cell.b_of_t(a, b, slot) * x[b - 1];
    }
}

void save_cell(int unit, const cell_type& cell, int slot, std::string_view suffix) {
    const char* names[3] = {"a_1", "a_2", "a_3"};
    for (int j = 1; j <= 3; ++j)
        write_fmt(unit, "(a,3E25.16)",
                  {std::string(names[j - 1]) + std::string(suffix) + " =", cell.a_of_t(1, j, slot),
                   cell.a_of_t(2, j, slot), cell.a_of_t(3, j, slot)});
}

// A coordinate block in reduced units; with species for positions.
void save_coord(int unit, const ions_type& ions, const cell_type& cell, const farray<double, 3>& x,
                int slot, int cell_slot, std::string_view key, bool with_species) {
    write_fmt(unit, "(a)", {std::string(key) + " = unit"});
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double c[3] = {x(1, i, slot), x(2, i, slot), x(3, i, slot)};
        double rp[3];
        to_reduced(rp, cell, cell_slot, c);
        if (with_species)
            write_fmt(unit, "(I4,3E25.16)", {ions.type(i), rp[0], rp[1], rp[2]});
        else
            write_fmt(unit, "(3E25.16)", {rp[0], rp[1], rp[2]});
    }
}

// Reads n values per ion after a header, one record per ion.
template <class T, class Reader>
void read_per_ion(int unit, int n_ions, int per_ion, Reader reader, T* out, const char* message) {
    for (int i = 0; i < n_ions; ++i) {
        const int ios = reader(unit, std::span<T>(out + static_cast<std::ptrdiff_t>(i) * per_ion,
                                                  static_cast<std::size_t>(per_ion)));
        if (ios != 0) fatal_error(message, ios, "ions_read_file", mod);
    }
}

} // namespace

// ---- store ----------------------------------------------------------------------

void ions_allocate_simple(ions_type& ions, int n) {
    ions.total_n_ions = n;
    ions.n_t = 1;
    ca_real_3d(ions.r_of_t, 1, 3, 1, n, 1, 1, "ions%r_of_t", "ions_allocate_simple", mod);
    ions.r = ions.r_of_t.slice_last(1);
}

void ions_allocate_physical(ions_type& ions, int n, int n_species, farray<double, 2>* rd,
                            farray<double, 2>* vd, farray<double, 2>* fd) {
    const char* proc = "ions_allocate_physical";
    ions.n_t = 3;
    ions.total_n_ions = n;
    ions.n_species = n_species;
    ions.species.assign(static_cast<std::size_t>(n_species), atomic_type{});
    ca_integer_1d(ions.n_ions, 1, n_species, "ions%n_ions", proc, mod);
    ca_real_1d(ions.mass, 1, n_species, "ions%mass", proc, mod);
    ca_real_1d(ions.inv_mass, 1, n_species, "ions%inv_mass", proc, mod);
    ca_integer_1d(ions.type, 1, n, "ions%type", proc, mod);
    ca_real_3d(ions.r_of_t, 1, 3, 1, n, 1, ions.n_t, "ions%r_of_t", proc, mod);
    ca_real_3d(ions.v_of_t, 1, 3, 1, n, 1, ions.n_t, "ions%v_of_t", proc, mod);
    ca_real_3d(ions.f_of_t, 1, 3, 1, n, 1, ions.n_t, "ions%f_of_t", proc, mod);
    ca_logical_2d(ions.frozen, 1, 3, 1, n, "ions%frozen", proc, mod);
    ca_real_1d(ions.e_local, 1, n, "ions%e_local", proc, mod);
    ca_real_1d(ions.qion, 1, n, "ions%qion", proc, mod);
    ca_logical_1d(ions.boost, 1, n, "ions%boost", proc, mod);
    bind_views(ions);
    if (rd != nullptr) ions.r = rd->view();
    if (vd != nullptr) ions.v = vd->view();
    if (fd != nullptr) ions.f = fd->view();
    ions.nn_list.clear();
    ions.nn_list.resize(static_cast<std::size_t>(n));
    ions.nn_hi_list.clear();
    ions.nn_hi_list.resize(static_cast<std::size_t>(n));
    ions.max_n_nn = 0;
    ions.ub_n_nn = 0;
}

void ions_deallocate(ions_type& ions) {
    const char* proc = "ions_deallocate";
    ions.r.deallocate();
    ions.v.deallocate();
    ions.f.deallocate();
    if (ions.n_ions.allocated()) cd_integer_1d(ions.n_ions, "ions%n_ions", proc, mod);
    if (ions.mass.allocated()) cd_real_1d(ions.mass, "ions%mass", proc, mod);
    if (ions.inv_mass.allocated()) cd_real_1d(ions.inv_mass, "ions%inv_mass", proc, mod);
    if (ions.type.allocated()) cd_integer_1d(ions.type, "ions%type", proc, mod);
    if (ions.r_of_t.allocated()) cd_real_3d(ions.r_of_t, "ions%r_of_t", proc, mod);
    if (ions.v_of_t.allocated()) cd_real_3d(ions.v_of_t, "ions%v_of_t", proc, mod);
    if (ions.f_of_t.allocated()) cd_real_3d(ions.f_of_t, "ions%f_of_t", proc, mod);
    if (ions.frozen.allocated()) cd_logical_2d(ions.frozen, "ions%frozen", proc, mod);
    if (ions.e_local.allocated()) cd_real_1d(ions.e_local, "ions%e_local", proc, mod);
    if (ions.qion.allocated()) cd_real_1d(ions.qion, "ions%qion", proc, mod);
    if (ions.boost.allocated()) cd_logical_1d(ions.boost, "ions%boost", proc, mod);
    for (auto& l : ions.nn_list) nn_deallocate(l);
    for (auto& l : ions.nn_hi_list) nn_deallocate(l);
    ions.nn_list.clear();
    ions.nn_hi_list.clear();
    ions.species.clear();
    ions.total_n_ions = 0;
    ions.n_species = 0;
}

void ions_reset(ions_type& ions) {
    for (auto& l : ions.nn_list) nn_reset(l);
    for (auto& l : ions.nn_hi_list) nn_reset(l);
}

void ions_roll(ions_type& ions) {
    for (farray<double, 3>* h : {&ions.r_of_t, &ions.v_of_t, &ions.f_of_t})
        for (int t = ions.n_t; t >= 2; --t)
            for (int i = 1; i <= ions.total_n_ions; ++i)
                for (int k = 1; k <= 3; ++k) (*h)(k, i, t) = (*h)(k, i, t - 1);
}

void ions_change_nt(ions_type& ions, int n_t) {
    if (n_t == ions.n_t) return;
    const char* proc = "ions_change_nt";
    const int n = ions.total_n_ions;
    const int common = std::min(n_t, ions.n_t);
    const char* names[3] = {"ions%r_of_t", "ions%v_of_t", "ions%f_of_t"};
    farray<double, 3>* hist[3] = {&ions.r_of_t, &ions.v_of_t, &ions.f_of_t};
    ions.r.deallocate();
    ions.v.deallocate();
    ions.f.deallocate();
    for (int h = 0; h < 3; ++h) {
        farray<double, 3> fresh;
        ca_real_3d(fresh, 1, 3, 1, n, 1, n_t, names[h], proc, mod);
        for (int t = 1; t <= common; ++t)
            for (int i = 1; i <= n; ++i)
                for (int k = 1; k <= 3; ++k) fresh(k, i, t) = (*hist[h])(k, i, t);
        cd_real_3d(*hist[h], names[h], proc, mod);
        *hist[h] = std::move(fresh);
    }
    ions.n_t = n_t;
    bind_views(ions);
}

void ions_copy(ions_type& dest, const ions_type& source) {
    if (dest.total_n_ions != source.total_n_ions || dest.n_species != source.n_species ||
        dest.n_t != source.n_t)
        fatal_error("ions_copy: the two ion stores differ in size", source.total_n_ions,
                    "ions_copy", mod);
    auto copy_all = [](auto& d, const auto& s) { std::copy(s.begin(), s.end(), d.begin()); };
    dest.species = source.species;
    copy_all(dest.type, source.type);
    copy_all(dest.n_ions, source.n_ions);
    copy_all(dest.inv_mass, source.inv_mass);
    copy_all(dest.mass, source.mass);
    copy_all(dest.r_of_t, source.r_of_t);
    copy_all(dest.v_of_t, source.v_of_t);
    copy_all(dest.f_of_t, source.f_of_t);
    copy_all(dest.frozen, source.frozen);
    copy_all(dest.boost, source.boost);
    copy_all(dest.e_local, source.e_local);
    copy_all(dest.qion, source.qion);
    dest.max_n_nn = source.max_n_nn;
    dest.ub_n_nn = source.ub_n_nn;
    dest.dof = source.dof;
    dest.n_frozen = source.n_frozen;
}

void ions_bcast_ions(ions_type& ions) {
    int total = ions.total_n_ions, n_species = ions.n_species;
    bcast_int(total);
    bcast_int(n_species);
    if (total != ions.total_n_ions)
        fatal_error("bcasted  ions%total_n_ions is different on local node", total,
                    "ions_bcast_ions", mod);
    if (n_species != ions.n_species)
        fatal_error("bcasted  ions%n_species is different on local node", n_species,
                    "ions_bcast_ions", mod);
    bcast_real_ten(ions.r_of_t);
    bcast_real_ten(ions.v_of_t);
    bcast_real_ten(ions.f_of_t);
}

void ions_bcast_state(ions_state_type& ions_state) {
    bcast_real(ions_state.e_kin);
    bcast_int(ions_state.step);
}

// ---- position files ---------------------------------------------------------------

void read_cell(cell_type& cell, int unit, std::string_view file, std::string_view suffix) {
    const char* proc = "read_cell";
    const std::string sfx(suffix);
    int n = 0, status = 0;
    get_keyword(false, file, unit, "lattice" + sfx, '=', '!', ';', 'K', {}, n, 0, status);
    if (status == kw_ok) {
        farray<double, 2> a;
        a.allocate({1, 1}, {3, 3});
        double volume = 0.0;
        int set_status = 0;
        setlat(a, volume, unit, stdout_unit, set_status);
        if (set_status != 0)
            fatal_error("error reading file " + std::string(file) + ": lattice block", set_status,
                        proc, mod);
        cell_init_cell(cell, a);
        return;
    }
    double scale[1] = {1.0};
    get_keyword(false, file, unit, "a0" + sfx, '=', '!', ';', 'F', {.real_values = scale}, n, 1,
                status);
    check_input_error(status, "a0" + sfx, file);
    double v[3][3];
    const char* keys[3] = {"a_1", "a_2", "a_3"};
    for (int j = 0; j < 3; ++j) {
        const std::string key = keys[j] + sfx;
        get_keyword(false, file, unit, key, '=', '!', ';', 'F',
                    {.real_values = std::span<double>(v[j], 3)}, n, 3, status);
        if (status == kw_not_found || (status == kw_ok && n < 3))
            fatal_error("error reading file " + std::string(file) + ": lattice vector " + key +
                            " not found !",
                        -1, proc, mod);
        check_input_error(status, key, file);
        for (double& x : v[j]) x *= scale[0];
    }
    cell_init_a(cell, v[0], v[1], v[2]);
}

void ions_read_coord(farray<double, 2>& x, farray<int, 1>* type, int n, std::string_view key,
                     int unit, std::string_view file, const cell_type& cell, int& status) {
    const char* proc = "ions_read_coord";
    int n_found = 0;
    get_keyword(false, file, unit, key, '=', '!', ';', 'K', {}, n_found, 0, status);
    check_input_error(status, key, file);
    if (status == kw_not_found) return;
    std::string value;
    int s_status = 0;
    get_keyword(false, file, unit, key, '=', '!', ';', 'S', {.string_value = &value}, n_found, 40,
                s_status);
    char letter = 'u';
    if (s_status == kw_ok && n_found > 0) {
        auto p = value.find_first_not_of(' ');
        if (p != std::string::npos) letter = value[p];
    }
    // The first data line decides between 3 and 4 items.
    get_keyword(false, file, unit, key, '=', '!', ';', 'K', {}, n_found, 0, status);
    std::string record, work;
    if (unit_read(unit, record) != 0) record.clear();
    for (char& c : record)
        if (c == ',' || c == '\t') c = ' ';
    strip(record, 'B');
    const int items = nitems(record, work, false, 'A');
    if (items != 3 && items != 4)
        fatal_error("coordinates faulty, only 3 or 4 enrties expected ...", items, proc, mod);
    get_keyword(false, file, unit, key, '=', '!', ';', 'K', {}, n_found, 0, status);
    for (int i = 1; i <= n; ++i) {
        double vals[4];
        const int ios =
            read_free_reals(unit, std::span<double>(vals, static_cast<std::size_t>(items)));
        if (ios != 0)
            fatal_error("an error occured while reading ionic coordinates iostat=", ios, proc, mod);
        const double* c = items == 4 ? vals + 1 : vals;
        if (items == 4 && type != nullptr) (*type)(i) = static_cast<int>(vals[0]);
        if (letter == 'u' || letter == 'U') {
            for (int a = 1; a <= 3; ++a)
                x(a, i) = cell.a(a, 1) * c[0] + cell.a(a, 2) * c[1] + cell.a(a, 3) * c[2];
        } else {
            for (int a = 1; a <= 3; ++a) x(a, i) = c[a - 1];
        }
    }
    status = kw_ok;
}

namespace {

// Non-blank records after the line of `key` to the end of the file; -1 without key.
long long lines_after_keyword(int unit, const std::string& name, std::string_view key) {
    int n = 0, status = 0;
    get_keyword(false, name, unit, key, '=', '!', ';', 'K', {}, n, 0, status);
    if (status != kw_ok) return -1;
    long long count = 0;
    std::string record;
    while (unit_read(unit, record) == 0)
        if (record.find_first_not_of(" \t\r") != std::string::npos) ++count;
    return count;
}

// Reads POSLYRT on the master; returns the basis count, the grid and whether it was given.
void ions_read_file(box_type& box, ions_type& ions, std::string_view file, int* grid,
                    bool& grid_found, int& n_basis) {
    const char* proc = "ions_read_file";
    const std::string name(file);
    const int unit = next_free_unit();
    const int ios = unit_open(unit, name, "old");
    if (ios != 0) fatal_error("Problems opening file " + name + " iostat=", ios, proc, mod);

    int counts[max_species] = {};
    int n_species = 0, status = 0;
    get_keyword(false, name, unit, "number_of_ions", '=', '!', ';', 'I', {.int_values = counts},
                n_species, max_species, status);
    if (status == kw_not_found)
        fatal_error("Could not find key word number_of_ions in file " + name, -1, proc, mod);
    check_input_error(status, "number_of_ions", name);
    long long basis_count = 0;
    for (int s = 0; s < n_species; ++s) {
        if (counts[s] < 0)
            fatal_error("number_of_ions needs counts of 0 or more in file " + name, counts[s], proc,
                        mod);
        basis_count += counts[s];
    }
    if (basis_count == 0)
        fatal_error("number_of_ions counts no ions in file " + name, 0, proc, mod);
    // The positions block must hold a line per ion: check before allocating for them.
    const long long lines = lines_after_keyword(unit, name, "positions");
    if (lines >= 0 && lines < basis_count)
        fatal_error("number_of_ions asks for " + std::to_string(basis_count) +
                        " ions, but the positions block of file " + name + " has only " +
                        std::to_string(lines) + " lines",
                    basis_count, proc, mod);
    n_basis = static_cast<int>(basis_count);

    grid[0] = grid[1] = grid[2] = 1;
    int n = 0;
    get_keyword(false, name, unit, "unit_cell_grid", '=', '!', ';', 'I',
                {.int_values = std::span<int>(grid, 3)}, n, 3, status);
    check_input_error(status, "unit_cell_grid", name);
    grid_found = status == kw_ok;
    if (grid[0] < 1 || grid[1] < 1 || grid[2] < 1)
        fatal_error("unit_cell_grid needs positive repeats in file " + name, -1, proc, mod);
    // The count in floating point first: a large grid must stop with a message, not
    // overflow (three repeats of 2^31 overflow even 64 bits).
    const double total_estimate =
        static_cast<double>(basis_count) * grid[0] * static_cast<double>(grid[1]) * grid[2];
    const bool countable = total_estimate <= std::numeric_limits<int>::max() / 9;
    const long long total = countable ? static_cast<long long>(total_estimate) : 0;
    // What ions_allocate_physical takes per ion: three histories of positions,
    // velocities and forces, the flags, charges and local energies, and the records
    // of two neighbour lists.
    const long long bytes_per_ion =
        3LL * 3 * 3 * 8 + 3 + 8 + 8 + 1 + 4 + 2 * static_cast<long long>(sizeof(nn_list_type));
    const long long ion_bytes =
        countable ? bytes_per_ion * total : std::numeric_limits<long long>::max();
    if (!countable || !allocation_possible(ion_bytes))
        allocation_failed("ions%r_of_t", ion_bytes, proc, mod);
    const int repeats = grid[0] * grid[1] * grid[2];

    ions_allocate_physical(ions, n_basis * repeats, n_species);
    for (int s = 1; s <= n_species; ++s) ions.n_ions(s) = counts[s - 1] * repeats;
    // Species of the basis ions by blocks; the start of a block is the previous
    // block's count plus one, so files with three or more species name the species
    // of every ion on its line.
    for (int i = 1; i <= counts[0] && i <= n_basis; ++i) ions.type(i) = 1;
    int start = 1;
    for (int s = 1; s <= n_species; ++s) {
        for (int i = start; i < start + counts[s - 1] && i <= n_basis; ++i) ions.type(i) = s;
        start = counts[s - 1] + 1;
    }

    cell_allocate(box.cell);
    read_cell(box.cell, unit, name, "");

    ions_read_coord(ions.r, &ions.type, n_basis, "positions", unit, name, box.cell, status);
    if (status == kw_not_found) fatal_error("could not find keyword positions !!", -1, proc, mod);
    for (int i = 1; i <= n_basis; ++i)
        if (ions.type(i) < 1 || ions.type(i) > n_species)
            fatal_error("species index out of range in positions of file " + name +
                            "; give the species on each line",
                        i, proc, mod);
    ions_read_coord(ions.v, nullptr, n_basis, "velocities", unit, name, box.cell, status);
    velocities_read = status == kw_ok;

    get_keyword(false, name, unit, "freeze", '=', '!', ';', 'K', {}, n, 0, status);
    if (status == kw_ok)
        read_per_ion<bool>(unit, n_basis, 3, read_free_logicals, ions.frozen.data(),
                           "An error occured while reading freezing flags");
    get_keyword(false, name, unit, "boost", '=', '!', ';', 'K', {}, n, 0, status);
    if (status == kw_ok)
        read_per_ion<bool>(unit, n_basis, 1, read_free_logicals, ions.boost.data(),
                           "An error occured while reading boost flags");
    get_keyword(false, name, unit, "qion", '=', '!', ';', 'K', {}, n, 0, status);
    if (status == kw_ok)
        read_per_ion<double>(unit, n_basis, 1, read_free_reals, ions.qion.data(),
                             "An error occured while reading qion");
    unit_close(unit);
}

} // namespace

void ions_read_in(box_type& box, ions_type& ions, std::string_view file) {
    const char* proc = "ions_read_in";
    const trace_guard trace(proc, mod);
    int grid[3] = {1, 1, 1}, n_basis = 0;
    bool grid_found = false;
    // Every process reads the positions (the file is in the run's own folder); the
    // broadcast then checks that all agree with process 0.
    ions_read_file(box, ions, file, grid, grid_found, n_basis);
    if (n_proc > 1) {
        ions_bcast_ions(ions);
        bcast_logical(grid_found);
        bcast_int(n_basis);
    }
    if (grid_found) ions_generate_lattice(box, ions, grid, n_basis);
}

void ions_read_restart(i_algo_type& i_algo, ions_state_type& ions_state, std::string_view file) {
    const char* proc = "ions_read_restart";
    if (i_algo.n_steps <= 0) return;
    ions_type& ions = *ions_state.ions;
    cell_type& cell = ions_state.box->cell;
    std::array<double, random_state_size> random_state{};
    bool have_random_state = false;
    if (i_am_master && i_algo.algo == ions_algo_md) {
        const std::string name(file);
        const int unit = next_free_unit();
        const int ios = unit_open(unit, name, "old");
        if (ios != 0) fatal_error("Problems opening file " + name + " iostat=", ios, proc, mod);
        int levels = 0;
        bool with_velocities = false;
        if (i_algo.eom_algo == eom_verlet) levels = 3;
        if (i_algo.eom_algo == eom_velocity_verlet) {
            levels = 2;
            with_velocities = true;
        }
        if (ions.n_t < levels) ions_change_nt(ions, levels);
        cell_type level_cell;
        cell_allocate(level_cell, 1);
        farray<double, 2> x;
        x.allocate({1, 1}, {3, ions.total_n_ions});
        for (int k = 0; k < levels; ++k) {
            std::string sfx = "_";
            sfx += std::to_string(k);
            const int slot = k + 1;
            read_cell(level_cell, unit, name, sfx);
            for (int j = 1; j <= 3; ++j)
                for (int i = 1; i <= 3; ++i) {
                    cell.a_of_t(i, j, slot) = level_cell.a(i, j);
                    cell.b_of_t(i, j, slot) = level_cell.b(i, j);
                }
            cell.vol_of_t(slot) = cell_vol(level_cell);
            struct block {
                const char* key;
                farray<double, 3>* hist;
                bool wanted;
            };
            const block blocks[3] = {{"positions", &ions.r_of_t, true},
                                     {"velocities", &ions.v_of_t, with_velocities},
                                     {"forces", &ions.f_of_t, with_velocities || k == 0}};
            for (const block& b : blocks) {
                if (!b.wanted) continue;
                const std::string key = b.key + sfx;
                int status = 0;
                ions_read_coord(x, nullptr, ions.total_n_ions, key, unit, name, level_cell, status);
                if (status == kw_not_found)
                    fatal_error("could not find keyword " + key + " !!", -1, proc, mod);
                for (int i = 1; i <= ions.total_n_ions; ++i)
                    for (int a = 1; a <= 3; ++a) (*b.hist)(a, i, slot) = x(a, i);
            }
        }
        cell_deallocate(level_cell);
        int step[1] = {0}, n = 0, status = 0;
        get_keyword(false, name, unit, "step", '=', '!', ';', 'I', {.int_values = step}, n, 1,
                    status);
        check_input_error(status, "step", name);
        if (status == kw_ok) ions_state.step = step[0];
        // The clock and the thermostat go on from where the file left them (0 if absent).
        double t[1] = {0.0};
        get_keyword(false, name, unit, "time", '=', '!', ';', 'F', {.real_values = t}, n, 1,
                    status);
        check_input_error(status, "time", name);
        ions_state.time = status == kw_ok ? t[0] : 0.0;
        double xi[4] = {0.0, 0.0, 0.0, 0.0};
        get_keyword(false, name, unit, "nose", '=', '!', ';', 'F', {.real_values = xi}, n, 4,
                    status);
        check_input_error(status, "nose", name);
        i_algo.xi = xi[0];
        i_algo.xi_m1 = xi[1];
        i_algo.xi_m2 = xi[2];
        i_algo.dxi = xi[3];
        double e_th[1] = {0.0};
        get_keyword(false, name, unit, "thermostat_energy", '=', '!', ';', 'F',
                    {.real_values = e_th}, n, 1, status);
        check_input_error(status, "thermostat_energy", name);
        i_algo.e_thermostat = status == kw_ok ? e_th[0] : 0.0;
        get_keyword(false, name, unit, "barostat_energy", '=', '!', ';', 'F', {.real_values = e_th},
                    n, 1, status);
        check_input_error(status, "barostat_energy", name);
        i_algo.e_barostat = status == kw_ok ? e_th[0] : 0.0;
        int found = 0;
        for (std::size_t i = 0; i < random_state.size(); i += 18) {
            const std::size_t m = std::min<std::size_t>(18, random_state.size() - i);
            const std::string key = "random_state_" + std::to_string(i / 18 + 1);
            get_keyword(false, name, unit, key, '=', '!', ';', 'F',
                        {.real_values = std::span<double>(random_state).subspan(i, m)}, n,
                        static_cast<int>(m), status);
            check_input_error(status, key, name);
            if (status == kw_ok && n != static_cast<int>(m))
                fatal_error(key + " has " + std::to_string(n) + " numbers, not " +
                                std::to_string(m),
                            n, proc, mod);
            if (status == kw_ok) ++found;
        }
        // The whole stream or none of it (a fresh stream from the seeds).
        if (found != 0 && found != (random_state_size + 17) / 18)
            fatal_error("the random_state lines are incomplete", found, proc, mod);
        have_random_state = found != 0;
        double e[3] = {0, 0, 0};
        get_keyword(false, name, unit, "energies", '=', '!', ';', 'F', {.real_values = e}, n, 3,
                    status);
        check_input_error(status, "energies", name);
        if (status == kw_ok) {
            ions_state.e_kin_ref = e[0];
            ions_state.e_pot_ref = e[1];
            ions_state.e_tot_ref = e[2];
        }
        unit_close(unit);
    }
    int n_t = ions.n_t;
    bcast_int(n_t);
    if (n_t != ions.n_t) ions_change_nt(ions, n_t);
    if (n_proc > 1) {
        ions_bcast_ions(ions);
        ions_bcast_state(ions_state);
    }
    // Every process goes on with the same clock, thermostat, barostat and stream.
    for (double* x : {&ions_state.time, &i_algo.xi, &i_algo.xi_m1, &i_algo.xi_m2, &i_algo.dxi,
                      &i_algo.e_thermostat, &i_algo.e_barostat, &ions_state.e_kin_ref,
                      &ions_state.e_pot_ref, &ions_state.e_tot_ref})
        bcast_real(*x);
    bcast_logical(have_random_state);
    if (have_random_state) {
        for (double& x : random_state) bcast_real(x);
        random_set_state(random_state);
    }
}

void ions_save_state(const ions_state_type& ions_state, const i_algo_type& i_algo, int unit,
                     std::string_view file) {
    const ions_type& ions = *ions_state.ions;
    const cell_type& cell = ions_state.box->cell;
    // Written under a temporary name and renamed into place: a run stopped while
    // writing leaves the previous complete file.
    const std::string name(file), partial = name + ".part";
    unit_open(unit, partial, "replace");
    unit_rewind(unit);
    save_cell(unit, cell, 1, "");
    fitem_list counts{"number_of_ions = "};
    for (int s = 1; s <= ions.n_species; ++s) counts.emplace_back(ions.n_ions(s));
    write_fmt(unit, "(a,10I8)", counts);
    save_coord(unit, ions, cell, ions.r_of_t, 1, 1, "positions", true);
    save_coord(unit, ions, cell, ions.v_of_t, 1, 1, "velocities", false);
    write_fmt(unit, "(a)", {"freeze"});
    for (int i = 1; i <= ions.total_n_ions; ++i)
        write_fmt(unit, "(3L2)", {ions.frozen(1, i), ions.frozen(2, i), ions.frozen(3, i)});
    write_fmt(unit, "(a)", {"boost"});
    for (int i = 1; i <= ions.total_n_ions; ++i) write_fmt(unit, "(L2)", {ions.boost(i)});
    write_fmt(unit, "(a)", {"qion"});
    for (int i = 1; i <= ions.total_n_ions; ++i) write_fmt(unit, "(E25.16)", {ions.qion(i)});
    write_fmt(unit, "(a)", {"!=== Restart information below ==="});
    write_fmt(unit, "(a,I9)", {"step =", ions_state.step});
    write_fmt(unit, "(a,E25.16)", {"time =", ions_state.time});
    if (i_algo.thermostat == thermostat_nose)
        write_fmt(unit, "(a,4E25.16)",
                  {"nose =", i_algo.xi, i_algo.xi_m1, i_algo.xi_m2, i_algo.dxi});
    if (i_algo.thermostat == thermostat_csvr)
        write_fmt(unit, "(a,E25.16)", {"thermostat_energy =", i_algo.e_thermostat});
    if (i_algo.barostat != barostat_none)
        write_fmt(unit, "(a,E25.16)", {"barostat_energy =", i_algo.e_barostat});
    // The random stream where the run has left it, so that a continued stochastic run
    // draws what the uninterrupted one would have.
    if (i_algo.algo == ions_algo_md) {
        std::array<double, random_state_size> state{};
        random_get_state(state);
        // In lines of 18 numbers (a record of the keyword reader holds 500 characters).
        for (std::size_t i = 0; i < state.size(); i += 18) {
            const std::string key = "random_state_" + std::to_string(i / 18 + 1) + " =";
            fitem_list line{key};
            for (std::size_t j = i; j < std::min(i + 18, state.size()); ++j)
                line.emplace_back(state[j]);
            write_fmt(unit, "(a,18E25.16)", line);
        }
    }
    int levels = 0;
    if (i_algo.eom_algo == eom_verlet) levels = 3;
    if (i_algo.eom_algo == eom_velocity_verlet) levels = 2;
    levels = std::min(levels, std::min(ions.n_t, cell.n_t));
    for (int k = 0; k < levels; ++k) {
        std::string sfx = "_";
        sfx += std::to_string(k);
        const int slot = k + 1;
        save_cell(unit, cell, slot, sfx);
        save_coord(unit, ions, cell, ions.r_of_t, slot, slot, "positions" + sfx, true);
        if (i_algo.eom_algo == eom_velocity_verlet)
            save_coord(unit, ions, cell, ions.v_of_t, slot, slot, "velocities" + sfx, false);
        if (i_algo.eom_algo == eom_velocity_verlet || k == 0)
            save_coord(unit, ions, cell, ions.f_of_t, slot, slot, "forces" + sfx, false);
    }
    write_fmt(unit, "(a,3E25.16)",
              {"energies =", ions_state.e_kin_ref, ions_state.e_pot_ref, ions_state.e_tot_ref});
    unit_close(unit);
    if (std::rename(partial.c_str(), name.c_str()) != 0)
        warning_error("could not rename " + partial + " to " + name, "ions_save_state", mod);
}

// ---- starting state ---------------------------------------------------------------

void ions_generate_lattice(box_type& box, ions_type& ions, const int* grid, int n_basis) {
    const char* proc = "ions_generate_lattice";
    const int repeats = grid[0] * grid[1] * grid[2];
    if (repeats <= 0 || ions.total_n_ions / repeats != n_basis)
        fatal_error("# of basis ions X # of grid pts /= total # ions.", -1, proc, mod);
    int next = n_basis;
    for (int k = 0; k < grid[2]; ++k)
        for (int j = 0; j < grid[1]; ++j)
            for (int i = 0; i < grid[0]; ++i) {
                if (i == 0 && j == 0 && k == 0) continue;
                double shift[3];
                cell_latvec_123(shift, box.cell, i, j, k);
                for (int b = 1; b <= n_basis; ++b) {
                    ++next;
                    if (next > ions.total_n_ions) fatal_error("# ions > max #", next, proc, mod);
                    ions.type(next) = ions.type(b);
                    ions.boost(next) = ions.boost(b);
                    ions.qion(next) = ions.qion(b);
                    for (int a = 1; a <= 3; ++a) {
                        ions.frozen(a, next) = ions.frozen(a, b);
                        ions.v(a, next) = ions.v(a, b);
                        ions.r(a, next) = ions.r(a, b) + shift[a - 1];
                    }
                }
            }
    cell_multiply(box.cell, grid[0], grid[1], grid[2]);
}

namespace {

void fill_history_from_present(ions_type& ions, cell_type& cell) {
    for (farray<double, 3>* h : {&ions.r_of_t, &ions.v_of_t})
        for (int t = 2; t <= ions.n_t; ++t)
            for (int i = 1; i <= ions.total_n_ions; ++i)
                for (int k = 1; k <= 3; ++k) (*h)(k, i, t) = (*h)(k, i, 1);
    for (int t = 2; t <= cell.n_t; ++t) {
        for (int j = 1; j <= 3; ++j)
            for (int k = 1; k <= 3; ++k) {
                cell.a_of_t(k, j, t) = cell.a_of_t(k, j, 1);
                cell.b_of_t(k, j, t) = cell.b_of_t(k, j, 1);
            }
        cell.vol_of_t(t) = cell.vol_of_t(1);
    }
}

} // namespace

void ions_init(ions_state_type& ions_state, i_algo_type& i_algo) {
    const char* proc = "ions_init";
    const trace_guard trace(proc, mod);
    ions_type& ions = *ions_state.ions;
    for (int s = 1; s <= ions.n_species; ++s) {
        ions.mass(s) = ions.species[static_cast<std::size_t>(s - 1)].mass;
        ions.inv_mass(s) = ions.mass(s) != 0.0 ? 1.0 / ions.mass(s) : 0.0;
    }
    ions.n_frozen = 0;
    for (bool fz : ions.frozen) ions.n_frozen += fz ? 1 : 0;
    ions.dof = 3 * ions.total_n_ions - ions.n_frozen;
    ions_state.time = 0.0;
    ions_state.step = 0;

    const double dt = i_algo.dt;
    i_algo.dt_sq = dt * dt;
    i_algo.inv_dt = 1.0 / dt;
    i_algo.inv_2dt = 1.0 / (2.0 * dt);
    i_algo.half_dt = dt / 2.0;
    i_algo.target_e_kin = 0.5 * ions.dof * i_algo.temperature * k_b;

    if (i_algo.thermostat == thermostat_langevin) {
        // The noise comes from the run's own seeds, so that a run can be repeated.
        init_random(i_algo.temp_seed[0], i_algo.temp_seed[1]);
        const int ns = ions.n_species;
        if (i_algo.eom_algo == eom_verlet) {
            if (!i_algo.lgv_sigma.allocated())
                ca_real_1d(i_algo.lgv_sigma, 1, ns, "i_algo%lgv_sigma", proc, mod);
            for (int s = 1; s <= ns; ++s)
                i_algo.lgv_sigma(s) = std::sqrt(2.0 * i_algo.friction * ions.mass(s) *
                                                i_algo.temperature / (dt * k_b_inverse));
        } else if (i_algo.eom_algo == eom_velocity_verlet) {
            const double g = i_algo.friction, h = dt * g;
            for (farray<double, 1>* a :
                 {&i_algo.lgv_sigma_r, &i_algo.lgv_sigma_v, &i_algo.lgv_cross, &i_algo.lgv_corr})
                if (!a->allocated()) ca_real_1d(*a, 1, ns, "i_algo%langevin", proc, mod);
            if (!i_algo.lgv_noise_r.allocated()) {
                ca_real_2d(i_algo.lgv_noise_r, 1, 3, 1, ions.total_n_ions, "i_algo%lgv_noise_r",
                           proc, mod);
                ca_real_2d(i_algo.lgv_noise_v, 1, 3, 1, ions.total_n_ions, "i_algo%lgv_noise_v",
                           proc, mod);
            }
            for (int s = 1; s <= ns; ++s) {
                const double c = i_algo.temperature / (ions.mass(s) * k_b_inverse);
                const double sr2 =
                    dt * dt * c / h * (2.0 - (3.0 - 4.0 * std::exp(-h) + std::exp(-2.0 * h)) / h);
                const double sv2 = c * (1.0 - std::exp(-2.0 * h));
                const double cross = dt * c / h * (1.0 - std::exp(-h)) * (1.0 - std::exp(-h));
                i_algo.lgv_sigma_r(s) = std::sqrt(sr2);
                i_algo.lgv_sigma_v(s) = std::sqrt(sv2);
                i_algo.lgv_cross(s) = cross;
                const double x = sr2 > 0.0 && sv2 > 0.0 ? cross / std::sqrt(sr2 * sv2) : 0.0;
                i_algo.lgv_corr(s) = std::sqrt(1.0 - x * x);
            }
            i_algo.lgv_c0 = std::exp(-h);
            i_algo.lgv_c1 = (1.0 - i_algo.lgv_c0) / h;
            i_algo.lgv_c2 = (1.0 - i_algo.lgv_c1) / h;
        }
    }
    if (i_algo.algo != ions_algo_md) i_algo.temperature = 0.0;
    if (i_algo.start == 0 && i_algo.algo == ions_algo_md && i_algo.n_steps > 0 &&
        (i_algo.init_vel == 0 || (i_algo.init_vel == 1 && !velocities_read)))
        ions_init_velocities(ions_state, i_algo);
    if (!velocities_read && i_algo.init_vel == 2)
        fatal_error("i_algo%init_vel == 2 but no velocities found in POSLYRT", -1, proc, mod);
    if (i_algo.start != 0) {
        ions_read_restart(i_algo, ions_state, "POSLYRT");
        if (i_algo.thermostat == thermostat_langevin && i_algo.eom_algo == eom_velocity_verlet)
            ions_fix_center_of_mass(ions_state);
    }
    if ((i_algo.start == 1 && i_algo.init_vel == 3) || i_algo.init_vel == 4)
        ions_rescale_velocities(ions_state, i_algo);
    // The start velocities are drawn on process 0 alone: every process goes on with
    // its stream, so that the thermostat's and barostat's draws agree everywhere.
    if (n_proc > 1) {
        std::array<double, random_state_size> state{};
        random_get_state(state);
        for (double& x : state) bcast_real(x);
        random_set_state(state);
    }
    if ((i_algo.algo != ions_algo_md && i_algo.algo != ions_algo_fixed_vel) || i_algo.n_steps == 0)
        ions.v.fill(0.0);
    // A run that starts afresh has no past: every older slot of the histories holds
    // the initial state, so that a restart file written at any step reads valid
    // cells and positions.
    if (i_algo.start == 0 && ions_state.box != nullptr)
        fill_history_from_present(ions, ions_state.box->cell);
}

void ions_init_velocities(ions_state_type& ions_state, const i_algo_type& i_algo) {
    const char* proc = "ions_init_velocities";
    ions_type& ions = *ions_state.ions;
    if (i_am_master) {
        if (i_algo.temperature <= 0.0) {
            ions.v.fill(0.0);
        } else {
            int n_free[3];
            count_free(ions, n_free, proc);
            init_random(i_algo.temp_seed[0], i_algo.temp_seed[1]);
            for (int i = 1; i <= ions.total_n_ions; ++i)
                for (int k = 1; k <= 3; ++k) ions.v(k, i) = ions.frozen(k, i) ? 0.0 : random_norm();
            double p[3];
            ions_total_momentum(p, ions);
            write_free(report_unit, {"Initial total momentum = ", p[0], p[1], p[2]});
            remove_momentum(ions, 1, p, n_free);
            ions_total_momentum(p, ions);
            const double e_kin = kinetic_energy(ions, 1);
            // Nothing to scale when every coordinate is frozen.
            if (!(e_kin > 0.0))
                fatal_error("Could not initialize the velocities to match the target temperature",
                            -1, proc, mod);
            const double s = std::sqrt(i_algo.target_e_kin / e_kin);
            write_free(report_unit, {"Initial e_kin = ", e_kin});
            write_free(report_unit, {"Target  e_kin = ", i_algo.target_e_kin});
            write_free(report_unit, {"Scaling factor    = ", s});
            scale_free(ions, 1, s);
            const double e_new = kinetic_energy(ions, 1);
            // Written so that a not-a-number fails too.
            if (!(std::fabs(e_new - i_algo.target_e_kin) <= tolerance))
                fatal_error("Could not initialize the velocities to match the target temperature",
                            -1, proc, mod);
            ions_total_momentum(p, ions);
            const double p_max = std::max({std::fabs(p[0]), std::fabs(p[1]), std::fabs(p[2])});
            if (!(p_max <= tolerance))
                fatal_error("The total momentum non-zero after initializing the velocities ...", -1,
                            proc, mod);
        }
    }
    barrier();
    bcast_real_mat(ions.v);
}

void ions_rescale_velocities(ions_state_type& ions_state, const i_algo_type& i_algo) {
    const char* proc = "ions_rescale_velocities";
    ions_type& ions = *ions_state.ions;
    int n_free[3];
    count_free(ions, n_free, proc);
    const double sum = free_mvv(ions, 1);
    scale_free(ions, 1, std::sqrt(i_algo.target_e_kin / (sum * 0.5)));
    bcast_real_mat(ions.v);
}

void ions_fix_center_of_mass(ions_state_type& ions_state) {
    ions_type& ions = *ions_state.ions;
    int n_free[3];
    count_free(ions, n_free, "ions_fix_center_of_mass");
    for (int t = 1; t <= ions.n_t; ++t) {
        const double e0 = free_mvv(ions, t);
        double p[3];
        ions_total_momentum(p, ions, t);
        remove_momentum(ions, t, p, n_free);
        const double e1 = free_mvv(ions, t);
        // The kinetic energy is restored by the ratio itself, without a root.
        if (std::fabs(e1) > tolerance) scale_free(ions, t, e0 / e1);
    }
    barrier();
    bcast_real_ten(ions.v_of_t);
}

void ions_total_momentum(double* p, const ions_type& ions, int level) {
    p[0] = p[1] = p[2] = 0.0;
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const double m = ions.mass(ions.type(i));
        for (int k = 1; k <= 3; ++k)
            if (!ions.frozen(k, i)) p[k - 1] += m * ions.v_of_t(k, i, level);
    }
}

void ions_calc_energies(ions_state_type& ions_state, const i_algo_type& i_algo) {
    const ions_type& ions = *ions_state.ions;
    ions_state.e_kin = kinetic_energy(ions, 1);
    ions_state.temperature = ions.dof > 0 ? two_k_b_inverse * ions_state.e_kin / ions.dof : 0.0;
    // With Car-Parrinello orbitals their fictitious kinetic energy is part of it.
    ions_state.e_tot = ions_state.e_kin + ions_state.e_pot + ions_state.e_fict;
    if (i_algo.thermostat == thermostat_nose)
        ions_state.e_tot += 2.0 * i_algo.target_e_kin * i_algo.xi +
                            0.5 * i_algo.q_nose_ions * i_algo.dxi * i_algo.dxi;
    // The velocity-rescaling thermostat's work added back: the effective energy.
    if (i_algo.thermostat == thermostat_csvr) ions_state.e_tot += i_algo.e_thermostat;
    // At constant pressure the enthalpy, with the barostat's work added back.
    if (i_algo.barostat != barostat_none)
        ions_state.e_tot +=
            i_algo.pressure / ev_per_a3_to_gpa * cell_vol(ions_state.box->cell) + i_algo.e_barostat;
    if (i_algo.calc_stress) {
        const cell_type& c = ions_state.box->cell;
        ions_state.pressure = (c.sig(1, 1) + c.sig(2, 2) + c.sig(3, 3)) / 3.0;
    }
}

// ---- reports and data files --------------------------------------------------------

void ions_print(const box_type& box, const ions_state_type& ions_state, int flags, int unit) {
    const ions_type& ions = box.ions;
    const cell_type& cell = box.cell;
    if (flags & ions_print_nn) {
        double min_dist = 0.0;
        bool any = false;
        for (const auto& l : ions.nn_list)
            for (int m = 1; m <= l.n_nn; ++m) {
                if (!any || l.dist(m) < min_dist) min_dist = l.dist(m);
                any = true;
            }
        write_free(unit, {" MAX # NN=", ions.max_n_nn});
        write_free(unit, {" MIN DIST=", min_dist});
    }
    if (flags & ions_print_cell) {
        write_free(unit, {" Volume = ", cell_vol(cell)});
        double len[3], ang[3];
        for (int j = 1; j <= 3; ++j) len[j - 1] = abs_vector(&cell.a(1, j));
        const int pairs[3][2] = {{2, 3}, {1, 3}, {1, 2}};
        for (int p = 0; p < 3; ++p) {
            const double* u = &cell.a(1, pairs[p][0]);
            const double* w = &cell.a(1, pairs[p][1]);
            const double c = (u[0] * w[0] + u[1] * w[1] + u[2] * w[2]) /
                             (len[pairs[p][0] - 1] * len[pairs[p][1] - 1]);
            ang[p] = std::acos(std::max(-1.0, std::min(1.0, c))) * 180.0 / std::numbers::pi;
        }
        write_fmt(unit, "(A,3F10.3)", {"  Vectors length = ", len[0], len[1], len[2]});
        write_fmt(unit, "(A,3F10.3)", {"  Vectors angles = ", ang[0], ang[1], ang[2]});
    }
    if (flags & ions_print_pressure)
        write_fmt(unit, "(A,E16.8,A,F14.6,A)",
                  {"  Pressure:", ions_state.pressure,
                   " eV/Ang^3 = ", ions_state.pressure * ev_per_a3_to_gpa, " GPa"});
    if (flags & ions_print_stress) {
        write_free(unit, {"  Stress:"});
        write_free(unit, {"Cartesian (eV/Ang^3, then GPa)"});
        for (int i = 1; i <= 3; ++i)
            write_fmt(unit, "(3E13.5,2X,3E13.5)",
                      {cell.sig(i, 1), cell.sig(i, 2), cell.sig(i, 3),
                       cell.sig(i, 1) * ev_per_a3_to_gpa, cell.sig(i, 2) * ev_per_a3_to_gpa,
                       cell.sig(i, 3) * ev_per_a3_to_gpa});
    }
    if (flags & ions_print_forces) {
        write_fmt(
            unit, "(a)",
            {" Type      Cartesian Coordinates                Forces (eV/Ang)            Frz"});
        double sum[3] = {0, 0, 0};
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            write_fmt(unit, "(i2,3f11.4,3F13.8,1x)",
                      {ions.type(i), ions.r(1, i), ions.r(2, i), ions.r(3, i), ions.f(1, i),
                       ions.f(2, i), ions.f(3, i)});
            for (int k = 1; k <= 3; ++k) sum[k - 1] += ions.f(k, i);
        }
        write_fmt(unit, "(a)", {std::string(77, '-')});
        write_fmt(unit, "(35x,3e14.5)", {sum[0], sum[1], sum[2]});
    } else {
        write_fmt(unit, "(a)", {" Type      Cartesian Coordinates"});
        for (int i = 1; i <= ions.total_n_ions; ++i)
            write_fmt(unit, "(i2,3f11.4)",
                      {ions.type(i), ions.r(1, i), ions.r(2, i), ions.r(3, i)});
    }
    if (flags & ions_print_reduced) {
        write_free(unit, {"Reduced Coordinates of the ions :"});
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            double rp[3];
            box_r_to_rp(rp, box, &ions.r(1, i));
            write_fmt(unit, "(3f15.6)", {rp[0], rp[1], rp[2]});
        }
    }
    if (flags & ions_print_eloc) {
        write_free(unit, {" Local energy"});
        double e_max = 0.0, e_sum = 0.0;
        for (int i = 1; i <= ions.total_n_ions; ++i) {
            write_fmt(unit, "(i8,2e14.5)", {i, ions.e_local(i), ions.qion(i)});
            if (i == 1 || ions.e_local(i) > e_max) e_max = ions.e_local(i);
            e_sum += ions.e_local(i);
        }
        write_free(unit, {"  Maximum local energy : ", e_max});
        write_free(unit, {"  Sum of local energy  : ", e_sum});
    }
}

namespace {

// One frame of a data file: the cell, the counts, then species and three values per ion.
void save_frame(const box_type& box, const farray<double, 2>& x, bool reduced, int unit,
                std::string_view file, const char* proc) {
    const trace_guard trace(proc, mod);
    const ions_type& ions = box.ions;
    unit_open(unit, std::string(file), "unknown", "append");
    for (int j = 1; j <= 3; ++j)
        write_fmt(unit, "(3f15.8)", {box.cell.a(1, j), box.cell.a(2, j), box.cell.a(3, j)});
    fitem_list counts;
    for (int s = 1; s <= ions.n_species; ++s) counts.emplace_back(ions.n_ions(s));
    write_fmt(unit, "(10I8)", counts);
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        double c[3] = {x(1, i), x(2, i), x(3, i)};
        if (reduced) {
            double rp[3];
            box_r_to_rp(rp, box, c);
            std::copy(rp, rp + 3, c);
        }
        write_fmt(unit, "(I4,3E15.6)", {ions.type(i), c[0], c[1], c[2]});
    }
    unit_close(unit);
}

} // namespace

void ions_save_xyz(const box_type& box, const ions_state_type& ions_state, bool with_stress,
                   int unit, std::string_view file) {
    const trace_guard trace("ions_save_xyz", mod);
    const ions_type& ions = box.ions;
    const cell_type& cell = box.cell;
    unit_open(unit, std::string(file), "unknown", "append");
    write_free(unit, {ions.total_n_ions});
    std::string comment = "Lattice=\"";
    for (int j = 1; j <= 3; ++j)
        for (int k = 1; k <= 3; ++k)
            comment += format_items("(ES24.16)", {cell.a(k, j)}).substr(j == 1 && k == 1 ? 1 : 0);
    comment += "\" Properties=species:S:1:pos:R:3:velo:R:3:forces:R:3 energy=" +
               format_items("(ES24.16)", {ions_state.e_pot}).substr(1) +
               " time=" + format_items("(ES24.16)", {ions_state.time}).substr(1);
    if (with_stress) {
        // The stress of the trajectory format is positive under tension.
        comment += " stress=\"";
        for (int j = 1; j <= 3; ++j)
            for (int k = 1; k <= 3; ++k)
                comment += format_items("(ES24.16)", {-cell.sig(k, j)}).substr(j == 1 && k == 1);
        comment += "\"";
    }
    comment += " pbc=\"T T T\"";
    unit_write(unit, comment);
    for (int i = 1; i <= ions.total_n_ions; ++i) {
        const atomic_type& sp = ions.species[static_cast<std::size_t>(ions.type(i) - 1)];
        std::string symbol = sp.symbol;
        symbol.erase(symbol.find_last_not_of(' ') + 1);
        write_fmt(unit, "(A,9ES24.15)",
                  {symbol, ions.r(1, i), ions.r(2, i), ions.r(3, i), ions.v(1, i), ions.v(2, i),
                   ions.v(3, i), ions.f(1, i), ions.f(2, i), ions.f(3, i)});
    }
    unit_close(unit);
}

void ions_save_pos(const box_type& box, int unit, std::string_view file) {
    save_frame(box, box.ions.r, true, unit, file, "ions_save_pos");
}

void ions_save_vel(const box_type& box, int unit, std::string_view file) {
    save_frame(box, box.ions.v, false, unit, file, "ions_save_vel");
}

void ions_save_for(const box_type& box, int unit, std::string_view file) {
    save_frame(box, box.ions.f, false, unit, file, "ions_save_pos");
}

void ions_save_eloc(const ions_type& ions, int unit, std::string_view file) {
    unit_open(unit, std::string(file), "unknown", "append");
    for (int i = 1; i <= ions.total_n_ions; ++i)
        write_fmt(unit, "(i8,2f11.4)", {i, ions.e_local(i), ions.qion(i)});
    unit_close(unit);
}

bool ions_velocities_read() {
    return velocities_read;
}

} // namespace lyrt
