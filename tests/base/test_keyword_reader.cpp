// The input syntax through get_keyword on real files, and the lexical library.
#include "base/dlexlib.hpp"
#include "base/io_module.hpp"
#include "numerics/utility_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;

class KeywordReader : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = lyrt_test::fresh_dir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::current_path(dir);
        io_reset();
    }
    void TearDown() override { io_reset(); }

    void file(const std::string& text) { lyrt_test::write_text(dir / "IN", text); }

    std::vector<double> reals(const std::string& key, int& status, int max_values = 0,
                              int occurrence = 0) {
        double v[20] = {};
        int n = 0;
        get_keyword(true, "IN", 40, key, '=', '!', ';', 'F', {.real_values = v}, n, max_values,
                    status, occurrence);
        return std::vector<double>(v, v + n);
    }
    std::vector<int> ints(const std::string& key, int& status) {
        int v[20] = {};
        int n = 0;
        get_keyword(true, "IN", 40, key, '=', '!', ';', 'I', {.int_values = v}, n, 0, status);
        return std::vector<int>(v, v + n);
    }
    std::string text(const std::string& key, int& status, int occurrence = 0) {
        std::string s;
        int n = 0;
        get_keyword(true, "IN", 40, key, '=', '!', ';', 'S', {.string_value = &s}, n, 80, status,
                    occurrence);
        return s;
    }
    std::filesystem::path dir;
};

TEST_F(KeywordReader, CommentsStatementsAndEscapes) {
    file("x = 1 ! comment ; y = 2\n"
         "title = a\\;b\n"
         "! z = 5\n"
         "   w = 7 ; v = 8\n"
         "path = c:\\\\\n");
    int status;
    EXPECT_EQ(reals("x", status), std::vector<double>{1.0});
    reals("y", status);
    EXPECT_EQ(status, kw_not_found);
    reals("z", status);
    EXPECT_EQ(status, kw_not_found);
    EXPECT_EQ(text("title", status), " a;b");
    EXPECT_EQ(reals("v", status), std::vector<double>{8.0});
    EXPECT_EQ(reals("w", status), std::vector<double>{7.0});
    // Two trailing backslashes end the record and become one when the escapes are undone.
    EXPECT_EQ(text("path", status), " c:\\");
}

TEST_F(KeywordReader, ContinuationJoinsRecords) {
    file("list = 1 2 \\\n"
         "  3 4\n"
         "name = first\\\n"
         "second\n");
    int status;
    EXPECT_EQ(reals("list", status), (std::vector<double>{1, 2, 3, 4}));
    EXPECT_EQ(text("name", status), " firstsecond");
}

TEST_F(KeywordReader, RepeatsExponentsAndCommas) {
    file("v = 3*2.5 1.0\nd = 1.5d2, -2Q-1,3E1\nn = 2*4 7\n");
    int status;
    EXPECT_EQ(reals("v", status), (std::vector<double>{2.5, 2.5, 2.5, 1.0}));
    EXPECT_EQ(reals("d", status), (std::vector<double>{150.0, -0.2, 30.0}));
    EXPECT_EQ(ints("n", status), (std::vector<int>{4, 4, 7}));
    EXPECT_EQ(reals("v", status, 2), (std::vector<double>{2.5, 2.5}));
}

TEST_F(KeywordReader, BadValuesGiveStatusFive) {
    file("n = abc\nm =\nf = 1.5\nb = maybe\n");
    int status;
    EXPECT_TRUE(ints("n", status).empty());
    EXPECT_EQ(status, kw_bad_value);
    ints("m", status);
    EXPECT_EQ(status, kw_bad_value);
    ints("f", status); // not a whole number
    EXPECT_EQ(status, kw_bad_value);
    bool l[1];
    int n;
    get_keyword(true, "IN", 40, "b", '=', '!', ';', 'L', {.log_values = l}, n, 0, status);
    EXPECT_EQ(status, kw_bad_value);
    get_keyword(true, "IN", 40, "f", '=', '!', ';', 'X', {}, n, 0, status);
    EXPECT_EQ(status, kw_bad_type);
    get_keyword(true, "NOFILE", 40, "f", '=', '!', ';', 'F', {}, n, 0, status);
    EXPECT_EQ(status, kw_no_file);
}

// Occurrences, nth positions, a split at a delimiter, replacements (a negative n
// trims the delimiters' trailing blanks and counts the result's length).
TEST(Dlexlib, SearchAndReplace) {
    EXPECT_EQ(noccur("abcabcx", "abc", -1), 2);
    EXPECT_EQ(indexn("x=1;y=2;z=3", ";", 2), 8);
    std::string left, right;
    parse("key = value", left, right, "=", -1);
    EXPECT_EQ(left + "|" + right, "key | value");
    std::string s = "a-b-c-d       ";
    int n = -1;
    replac(s, "-", "+", n, 0);
    EXPECT_EQ(s, "a+b+c+d       ");
    EXPECT_EQ(n, 7);
    n = -1;
    replac(s, "+", "::  ", n, 2);
    EXPECT_EQ(s.substr(0, static_cast<std::size_t>(n)), "a+b::c+d");
}

TEST(Dlexlib, StripModesAndWords) {
    std::string s = "  ab  c   d  ";
    int len;
    std::string t = s;
    strip(t, len, 'L');
    EXPECT_EQ(t, "ab  c   d    ");
    EXPECT_EQ(len, 9);
    t = s;
    strip(t, len, 'I');
    EXPECT_EQ(t.substr(0, static_cast<std::size_t>(len)), "  abcd");
    t = s;
    strip(t, len, 'A');
    EXPECT_EQ(len, 4);
    t = s;
    strip(t, len, 'S');
    EXPECT_EQ(t.substr(0, static_cast<std::size_t>(len)), " ab c d");
    t = s;
    strip(t, len, 'B');
    EXPECT_EQ(t.substr(0, static_cast<std::size_t>(len)), "ab c d");
    t = s;
    strip(t, len, 'Z');
    EXPECT_EQ(len, 0);
    EXPECT_EQ(t.size(), s.size());
    EXPECT_EQ(nwords(s), 3);
    EXPECT_EQ(length("abc   "), 3);
    EXPECT_EQ(length("     "), 0);
    std::string out;
    subwrd("one  two three four", out, 2, 2);
    EXPECT_EQ(out, "two three");
    std::string small(4, ' ');
    testing::internal::CaptureStdout();
    subwrd("one  two three four", small, 2, 2);
    const std::string warning = testing::internal::GetCapturedStdout();
    EXPECT_EQ(small, "two ");
    EXPECT_NE(warning.find("Warning LEXLIB routine 'SUBWRD'"), std::string::npos);
    EXPECT_NE(warning.find("Continuing execution ..."), std::string::npos);
}

TEST(Dlexlib, TypeChecksAndItemCounts) {
    std::string work, format;
    char ok;
    chktyp("-42", work, 'I', ok, format);
    EXPECT_EQ(ok, 'Y');
    EXPECT_EQ(format, "I3");
    chktyp("3.0", work, 'I', ok, format);
    EXPECT_EQ(ok, 'Y');
    chktyp("3.5", work, 'I', ok, format);
    EXPECT_EQ(ok, 'U');
    chktyp("1.25e-3", work, 'F', ok, format);
    EXPECT_EQ(ok, 'Y');
    chktyp("1.2.3", work, 'F', ok, format);
    EXPECT_EQ(ok, 'N');
    chktyp("(1.5,-2)", work, 'C', ok, format);
    EXPECT_EQ(ok, 'Y');
    chktyp(".TRUE.", work, 'L', ok, format);
    EXPECT_EQ(ok, 'Y');
    char type;
    dattyp("12", work, type, format);
    EXPECT_EQ(type, 'I');
    dattyp("1.5", work, type, format);
    EXPECT_EQ(type, 'F');
    dattyp("word", work, type, format);
    EXPECT_EQ(type, 'A');
    dattyp("a.b", work, type, format);
    EXPECT_EQ(type, 'G');

    std::string list = "3*2.5 1.0 x";
    list.resize(40, ' ');
    EXPECT_EQ(nitems(list, work, false, 'F'), 4);
    EXPECT_EQ(nitems(list, work, true, 'F'), 4);
    EXPECT_EQ(list.substr(0, 15), "2.5 2.5 2.5 1.0");
    std::string stars = "1 2**3 4";
    EXPECT_EQ(nitems(stars, work, false, 'I'), 1);
    std::string tight = "9*1";
    testing::internal::CaptureStdout();
    EXPECT_EQ(nitems(tight, work, true, 'I'), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("expansion fails"), std::string::npos);

    // Repeat counts beyond an int are no counts (they threw); leading zeros don't
    // count as digits; a count that can't fit the record fails before it is written
    // out (it was built in full first).
    std::string huge = "77777777777777777777*7 1";
    EXPECT_EQ(nitems(huge, work, false, 'I'), 0);
    std::string zeros = "0000000000003*2";
    EXPECT_EQ(nitems(zeros, work, false, 'I'), 3);
    std::string big = "999999999*1";
    testing::internal::CaptureStdout();
    EXPECT_EQ(nitems(big, work, true, 'I'), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("expansion fails"), std::string::npos);
    // A whole number no integer holds is unclear as an integer (its conversion was
    // undefined); a whole one in range still passes.
    chktyp("5.5555555555555555e29", work, 'I', ok, format);
    EXPECT_EQ(ok, 'U');
    chktyp("1.0e9", work, 'I', ok, format);
    EXPECT_EQ(ok, 'Y');
}

} // namespace
