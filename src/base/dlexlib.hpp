// Lexical library of blank-padded strings, and the keyword reader get_keyword
// built on it, through which all text input passes.
//
// A string's declared length is its size(); trailing blanks count as absent, and
// "length" means the position of the last non-blank (0 for a blank string).
// Positions count from 1. An output string whose size() is 0 takes whatever
// length the result has; one with a size keeps it (padded or cut), as a
// fixed-length character variable would. Warnings go to standard output between
// two blank lines, followed by "Continuing execution ...".
#pragma once

#include <complex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lyrt {

int length(std::string_view s);
int nwords(std::string_view s);

// Counts the items of a blank-separated list, with n*v repeats counted n times.
// type 'L', 'I', 'F', 'C' checks every item with chktyp (the first failure ends
// the count); other letters count without a check. With expand, s is squeezed
// first and every repeat is written out in place.
int nitems(std::string& s, std::string& work, bool expand, char type);

// Words first..first+n-1 of s with the blanks between them.
void subwrd(std::string_view s, std::string& out, int first, int n);

// In place; mode L leading, I inner, A all blanks removed, S squeeze runs to one,
// B leading and squeeze; any other mode blanks s. len gets the new length.
void strip(std::string& s, int& len, char mode);
inline void strip(std::string& s, char mode) {
    int len = 0;
    strip(s, len, mode);
}

void upper(std::string& s);
void lower(std::string& s);

// Splits at the first delim; the delimiter counts with its trimmed length (at
// least 1) when n < 0, else with its declared length.
void parse(std::string_view s, std::string& left, std::string& right, std::string_view delim,
           int n);
int noccur(std::string_view s, std::string_view sub, int n);
int indexn(std::string_view s, std::string_view sub, int n);

// Replaces occurrences of old_str by new_str. n on entry: > 0 declared lengths,
// 0 declared old and trimmed new, < 0 both trimmed; on exit the result's length.
// limit: 0 all, > 0 only that occurrence, < 0 the first |limit|.
void replac(std::string& s, std::string_view old_str, std::string_view new_str, int& n, int limit);

// Type tests of one token. ok gets 'Y', 'N' or 'U' (unclear); format an edit
// descriptor that reads the token.
void chktyp(std::string_view s, std::string& work, char type, char& ok, std::string& format);
void chkint(std::string_view s, char& ok, std::string& format);
void chkflt(std::string_view s, char& ok, std::string& format);
void chkedq(std::string_view s, char& ok, std::string& format);
// The type of a token: N, L, I, C, F, A tried in this order, else G.
void dattyp(std::string_view s, std::string& work, char& type, std::string& format);

// First unit from 0 to 99 that is not connected, skipping 0, 5 and 6; -1 if none.
int nxtfru();

// ---- keyword reader -----------------------------------------------------------

// Receivers of get_keyword: the one for the type asked for is filled, the others
// stay untouched. A receiver's size caps the number of values delivered.
struct keyword_receivers {
    std::span<int> int_values = {};
    std::span<double> real_values = {};
    std::span<std::complex<double>> cplx_values = {};
    std::span<bool> log_values = {};
    std::string* string_value = nullptr;
};

// Status codes of get_keyword.
constexpr int kw_ok = 0;
constexpr int kw_no_file = 2;
constexpr int kw_not_found = 3;
constexpr int kw_bad_type = 4;
constexpr int kw_bad_value = 5;

// Finds `keyword = value` in a file (types I F C L S K, see the input syntax) and
// reads its value. open_file: open file_name on unit and close it afterwards;
// otherwise the open unit is rewound. occurrence > 0 takes the n-th match.
void get_keyword(bool open_file, std::string_view file_name, int unit, std::string_view keyword,
                 char equals, char comment, char separator, char type, const keyword_receivers& out,
                 int& n_found, int max_values, int& status, int occurrence = 0);

// The keywords of every statement `keyword = value` of an open file, blank-free and
// in lower case, in file order (the unit is rewound first).
std::vector<std::string> keyword_names(int unit, std::string_view file_name, char equals,
                                       char comment, char separator);

// Edit distance (insertions, deletions, substitutions) between two words.
int edit_distance(std::string_view a, std::string_view b);

} // namespace lyrt
