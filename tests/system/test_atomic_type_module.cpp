// The periodic table against standard data.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "system/atomic_type_module.hpp"
#include "system/constants_module.hpp"

#include <gtest/gtest.h>
#include <numbers>

namespace {

using namespace lyrt;

TEST(AtomicType, StandardDataAtAFewPoints) {
    struct ref {
        int z;
        const char* symbol;
        double weight, s, p, d;
    };
    // Standard atomic weights (IUPAC) and ground-state valence configurations.
    const ref refs[] = {{6, "C", 12.0107, 2, 2, 0},   {14, "Si", 28.0855, 2, 2, 0},
                        {29, "Cu", 63.546, 1, 0, 10}, {79, "Au", 196.96655, 1, 0, 10},
                        {42, "Mo", 95.94, 1, 0, 5},   {1, "H", 1.00794, 1, 0, 0},
                        {26, "Fe", 55.845, 2, 0, 6},  {46, "Pd", 106.42, 0, 0, 10}};
    for (const auto& r : refs) {
        atomic_type t;
        atomic_type_init_num(t, r.z);
        EXPECT_EQ(t.symbol, std::string(r.symbol) + (r.symbol[1] ? "" : " "));
        EXPECT_NEAR(t.mass, r.weight * 103.6437626, 1e-9) << r.symbol;
        EXPECT_EQ(t.elec_occ[0], r.s) << r.symbol;
        EXPECT_EQ(t.elec_occ[1], r.p) << r.symbol;
        EXPECT_EQ(t.elec_occ[2], r.d) << r.symbol;
        EXPECT_EQ(t.n_val_elec, r.s + r.p + r.d);
    }
    EXPECT_STREQ(atomic_symbol(105), "Db");
    EXPECT_STREQ(atomic_name(104), "Rutherfordium");
    EXPECT_EQ(atomic_mass_amu(101), 258.0);
}

TEST(AtomicType, SymbolMassAndName) {
    atomic_type a, b, c;
    atomic_type_init_sym(a, "si");
    atomic_type_init_sym(b, "SI");
    atomic_type_init_mass(c, 28.1);
    for (const auto* t : {&a, &b, &c}) {
        EXPECT_EQ(t->atomic_number, 14);
        EXPECT_EQ(t->n_val_elec, 4.0);
    }
    atomic_type_init_mass(c, 63.54); // the copper parameter file's mass
    EXPECT_EQ(c.atomic_number, 29);
    EXPECT_EQ(atomic_name_to_num("SILICON"), 14);
    EXPECT_EQ(atomic_name_to_num("silver"), 47);
    EXPECT_EQ(atomic_name_to_num("Unobtainium"), -1);
}

TEST(AtomicType, FElectronsStop) {
    atomic_type t;
    try {
        atomic_type_init_num(t, 58);
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "Elements 58-17 and 90-105 require f electrons !!!");
        EXPECT_EQ(stop.procedure, "atomic_elec_struct");
    }
    EXPECT_THROW(atomic_type_init_mass(t, 300.0), fatal_stop);
    EXPECT_THROW(atomic_type_init_sym(t, "Xx"), fatal_stop); // unknown symbol falls on 105
}

TEST(AtomicType, PrintBlock) {
    atomic_type t;
    atomic_type_init_num(t, 14);
    testing::internal::CaptureStdout();
    atomic_type_print(t, stdout_unit);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Atomic Number :  14\n"
              "Symbol        : Si\n"
              "Mass   :  0.291E+04 (  28.085 amu)\n"
              "Valence Atomic Structure : s 2.0:p 2.0:d 0.0\n");
}

TEST(Constants, InverseMultiplesOfPi) {
    constants_init();
    EXPECT_EQ(inv_n_pi.size(), 10000u);
    EXPECT_DOUBLE_EQ(inv_n_pi(1), 1.0 / std::numbers::pi);
    EXPECT_DOUBLE_EQ(inv_n_pi(10000) * 10000.0 * std::numbers::pi, 1.0);
}

} // namespace
