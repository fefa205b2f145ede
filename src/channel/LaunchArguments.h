#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// A (name, value) entry for an inferior's environment.
using EnvironmentEntry = std::pair<std::string, std::string>;

/// Splits a command line into words. White space separates words. Double quotes keep white space
/// and are dropped; a quote that is never closed runs to the end. Empty quotes make no word.
///
/// A backslash stays in the word, and the byte after it is dropped. Examples:
///   one "two three"   two words
///   x"y z"w           the word  xy zw
///   a\"b and a\ b     both the word  a\b
std::vector<std::string> splitArguments(std::string_view text);

/// Appends the entries of a text like  A=1 B="x y" C=  to `entries`, in their order, duplicates
/// included. A name consists of letters and underscores. A backslash in a value is dropped, and the
/// byte after it is kept as it is. As the first byte of a value without quotes it is kept itself.
///
/// Returns false when the text is malformed. The entries before the first malformed one have been
/// appended then, and the rest of the text is ignored.
bool parseEnvironment(std::string_view text, std::vector<EnvironmentEntry> &entries);
