// The viewer's one order of names: natural, case-blind, digits by value.
#pragma once

#include <string_view>

// Compares two UTF-8 texts code point by code point, ignoring case (simple folding, every
// script). A run of digits (ASCII or fullwidth) compares by its value, of any length, so that
// "page2" < "page10"; a run of digits sorts before a letter as a single digit would. When two
// texts tie on all of that, the one with fewer leading zeros at the first run where the counts
// differ comes first ("7" < "07"), and then a plain code-point compare decides. The result is -1,
// 0 or 1, and 0 only for identical texts, so the order is total and the same on every run.
int NaturalCompare(std::string_view a, std::string_view b);
