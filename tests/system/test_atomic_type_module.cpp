// The periodic table: symbols, masses, names, and the elements it refuses.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "system/atomic_type_module.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;

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

} // namespace
