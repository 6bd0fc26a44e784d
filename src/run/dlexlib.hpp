// Lexical library of blank-padded strings.
//
// A string's declared length is its size(); trailing blanks count as absent, and
// "length" means the position of the last non-blank (0 for a blank string).
// Positions count from 1. An output string whose size() is 0 takes whatever
// length the result has; one with a size keeps it (padded or cut), as a
// fixed-length character variable would. Warnings go to standard output between
// two blank lines, followed by "Continuing execution ...".
#pragma once

#include <string>
#include <string_view>

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

} // namespace lyrt
