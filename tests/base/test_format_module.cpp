// The formatted-record writer against a real Fortran runtime.
//
// Every expected string below was produced by gfortran 12.2 (Debian 12.2.0-14)
// from a small program that wrote the same items with the same format to
// standard output; records are joined by '\n' here.
#include "base/format_module.hpp"

#include <cmath>
#include <gtest/gtest.h>

using lyrt::fitem;
using lyrt::format_items;

namespace {

struct format_case {
    const char* format;
    std::vector<fitem> items;
    const char* expected;
};

TEST(FormatModule, MatchesFortranRuntime) {
    const std::vector<format_case> cases = {
        {"(E25.16)", {1.0}, "   0.1000000000000000E+01"},
        {"(3E25.16)",
         {1.0, -2.5, 1e-300},
         "   0.1000000000000000E+01  -0.2500000000000000E+01   0.1000000000000000-299"},
        {"(I9,E13.6,F10.2,3E20.12)",
         {42, 3.14159, -2.718, 1e100, -1e-100, 0.0},
         "       42 0.314159E+01     -2.72  0.100000000000+101 -0.100000000000E-99  "
         "0.000000000000E+00"},
        {"(4(E16.8,2X))",
         {1.0, 2.0, 3.0, 4.0, 5.0},
         "  0.10000000E+01    0.20000000E+01    0.30000000E+01    0.40000000E+01\n"
         "  0.50000000E+01"},
        {"(15(\"=\"),A,15(\"=\"))", {" title "}, "=============== title ==============="},
        {"(a,e9.3)", {"x=", 12345.678}, "x=0.123E+05"},
        {"(3L2)", {true, false, true}, " T F T"},
        {"(A,I4)", {"n=", 12345}, "n=****"},
        {"(F8.4)", {1e6}, "********"},
        {"(F8.4)", {-0.00001}, " -0.0000"},
        {"(F4.2)", {0.5}, "0.50"},
        {"(F3.2)", {0.5}, ".50"},
        {"(E9.3)", {-1.0}, "-.100E+01"},
        {"(E12.4)", {1e150}, "  0.1000+151"},
        {"(I4)", {-5}, "  -5"},
        {"(A10)", {"abc"}, "       abc"},
        {"(A2)", {"abcdef"}, "ab"},
        {"(i5,2f11.4,1x)", {3, 1.5, -2.25}, "    3     1.5000    -2.2500"},
        {"(10I4)",
         {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
         "   1   2   3   4   5   6   7   8   9  10\n  11  12"},
        {"(40('-'))", {}, "----------------------------------------"},
        {"(/'Lattice type ',i5)", {3}, "\nLattice type     3"},
        {"(E10.4)", {0.99995}, "0.1000E+01"},
        {"('a(',i1,') = ',3f12.5)",
         {2, 1.0, -0.5, 12.345678},
         "a(2) =      1.00000    -0.50000    12.34568"},
        {"(I5.3)", {7}, "  007"},
        {"(ES12.4)", {12345.6}, "  1.2346E+04"},
        {"(D12.4)", {0.000123456}, "  0.1235D-03"},
        {"(F6.2)", {999.999}, "******"},
        {"(E11.3E3)", {1e-5}, " 0.100E-004"},
        {"(F10.3)", {0.0}, "     0.000"},
        {"(F10.3)", {-0.0}, "    -0.000"},
        {"(E13.6)", {-0.0}, "-0.000000E+00"},
        {"(A,3(A,F4.1))", {"v", " x", 1.0, " y", 2.5, " z", -3.0}, "v x 1.0 y 2.5 z-3.0"},
        {"(A,10I4)", {"count", 1, 2, 3}, "count   1   2   3"},
        {"(I4,3E15.6)",
         {1, 1.23456789e-10, -9.87654321e10, 0.5},
         "   1   0.123457E-09  -0.987654E+11   0.500000E+00"},
        {"(a,I9)", {"step =", 123456789}, "step =123456789"},
        {"(3X,A,I5,A,I5,A)", {"from", 1, " to", 20, " end"}, "   from    1 to   20 end"},
        {"(E16.8)", {2.5e-310}, "  0.25000000-309"},
        {"(F12.6)", {123456.7891234}, "************"},
        {"(F5.1)", {99.96}, "100.0"},
        {"(A,E10.4,A,E10.4,A,I3,A)",
         {"a=", 1.5, " b=", -2.5e-3, " n=", 7, "."},
         "a=0.1500E+01 b=-.2500E-02 n=  7."},
        {"(2I3)", {1, 2, 3, 4, 5}, "  1  2\n  3  4\n  5"},
        {"(I0)", {-1234}, "-1234"},
        {"(L1)", {false}, "F"},
        {"(F7.3)", {0.0005}, "  0.001"},
        {"(F7.3)", {0.0004999}, "  0.000"},
        {"(F7.0)", {2.5}, "     2."},
        {"(E10.3)", {9.9995e-100}, " 0.100E-98"},
    };
    for (const auto& c : cases) EXPECT_EQ(format_items(c.format, c.items), c.expected) << c.format;
}

TEST(FormatModule, NonFiniteValuesFillTheirField) {
    EXPECT_EQ(format_items("(F10.3)", {std::nan("")}), "       NaN");
    EXPECT_EQ(format_items("(E12.4)", {-INFINITY}), "   -Infinity");
    EXPECT_EQ(format_items("(F5.1)", {INFINITY}), "  Inf");
}

TEST(FormatModule, MalformedFormatIsAProgrammingError) {
    EXPECT_THROW(format_items("(I4", {1}), std::logic_error);
    EXPECT_THROW(format_items("(Q4)", {1}), std::logic_error);
    // Items left over with no data descriptor to take them would loop for ever.
    EXPECT_THROW(format_items("('x')", {1}), std::logic_error);
}

TEST(FormatModule, FreeFormRecords) {
    EXPECT_EQ(lyrt::free_form({"FATAL ERROR No ", 800}), " FATAL ERROR No  800");
    EXPECT_EQ(lyrt::free_form({true, false}), " T F");
    EXPECT_EQ(lyrt::free_form({1.5}), " 1.5000000000000000");
    EXPECT_EQ(lyrt::free_form({0.1}), " 0.10000000000000001"); // fixed from 0.1 on
    EXPECT_EQ(lyrt::free_form({-2.5e-5}), " -2.5000000000000001E-005");
    // Every real reads back to the same double.
    for (double x : {0.1, 1.0 / 3.0, 12345.678901234567, 6.02214076e23, -1e-300})
        EXPECT_EQ(std::stod(lyrt::free_form({x})), x);
}

} // namespace
