#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "json/Json.h"

/// One parse of one text: strict, recursive, a single pass. A local object of one call.
///
/// The first failure writes the caller's error string and sets `failed`; every later failure is
/// silent and every level returns at its next check, so the whole parse yields null. The messages
/// reach hosts word for word.
class JsonParser {
 public:
  /// Keeps pointers into `text` and a reference to `error`, which must outlive the parser.
  JsonParser(const std::string &text, std::string &error, JsonParseMode mode)
      : at(text.c_str()), end(at + text.size()), error(error), mode(mode) {}

  /// The value that the whole text holds, or null after a failure.
  Json parse();

 private:
  /// Containers may nest this deep; bounds the recursion whatever a host sends.
  static constexpr int maximumDepth = 200;

  Json parseValue(int depth);
  Json parseObject(int depth);
  Json parseArray(int depth);
  Json parseNumber();
  std::string parseString();
  Json expectWord(std::string_view word, const Json &value);

  /// One escape, from behind its backslash. A "\u" leaves its code point in `pending`, where it
  /// waits to be paired with a low surrogate.
  void parseEscape(std::string &out, long &pending);
  void parseUnicodeEscape(std::string &out, long &pending);
  void skipDigits();

  /// White space, and in Comments mode comments too.
  void skip() {
    skipWhitespace();
    if (mode == JsonParseMode::Comments) skipComments();
  }
  void skipWhitespace() {
    while (*at == ' ' || *at == '\r' || *at == '\n' || *at == '\t') ++at;
  }
  void skipComments();
  /// True when a comment stood here.
  bool skipComment();

  /// The next byte that is not skipped; 0 after a failure.
  char nextToken() {
    skip();
    if (atEnd()) fail("unexpected end of input");
    return failed ? '\0' : *at++;
  }
  bool atEnd() const { return at == end; }
  /// What is left of the text.
  std::string_view rest() const { return {at, static_cast<std::size_t>(end - at)}; }

  void fail(std::string message);

  const char *at;         ///< the next byte; at the end of the text its terminating zero
  const char *const end;  ///< where that zero is, so that reading *at needs no check
  std::string &error;
  bool failed = false;
  JsonParseMode mode;
};
