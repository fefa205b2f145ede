#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// A (name, value) entry for an inferior's environment.
using EnvironmentEntry = std::pair<std::string, std::string>;

/// Splits a command line into words. White space separates words; double quotes keep it and are
/// dropped; a quote that is never closed runs to the end; empty quotes make no word.
///
/// The backslash is peculiar, see the implementation:
///   one "two three"   two words
///   x"y z"w           the word  xy zw
///   a\"b and a\ b     both the word  a\b
std::vector<std::string> splitArguments(std::string_view text);

/// Appends the entries of a text like  A=1 B="x y" C=  to `entries`, duplicates included. Names are
/// letters and underscores. In a value a backslash keeps the next byte as it is.
///
/// Returns false when the text is malformed; the entries before the first bad byte have been
/// appended then and the rest of the text is ignored.
bool parseEnvironment(std::string_view text, std::vector<EnvironmentEntry> &entries);
