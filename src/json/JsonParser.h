#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "json/Json.h"

/// One parse of one text: strict, recursive, a single pass. A local object of one call.
///
/// The first failure sets `failed` and fills the caller's error string; later failures change
/// nothing. Every level returns at its next check of `failed`, and the whole parse yields null.
/// Hosts receive the messages word for word.
class JsonParser {
 public:
  /// Keeps pointers into `text` and a reference to `error`. Both must outlive the parser.
  JsonParser(const std::string &text, std::string &error, JsonParseMode mode)
      : cursor(text.c_str()), end(cursor + text.size()), error(error), mode(mode) {}

  /// The value that the whole text holds, or null after a failure.
  Json parse();

 private:
  /// Containers may nest this deep. The limit bounds the recursion, whatever a host sends.
  static constexpr int maximumDepth = 200;

  Json parseValue(int depth);
  /// `token` is the value's first byte, just read.
  Json parseValue(char token, int depth);
  Json parseObject(int depth);
  Json parseArray(int depth);
  Json parseNumber();
  std::string parseString();
  Json expectWord(std::string_view word, const Json &value);

  /// Reads one escape, whose backslash has been read. The code point of a "\u" stays in `pending`
  /// until it is known whether a low surrogate follows.
  void parseEscape(std::string &out, long &pending);
  void parseUnicodeEscape(std::string &out, long &pending);

  void skipFractionAndExponent();
  void skipDigits();
  /// Fails where there is no digit. The message names the `part` of the number that needs one.
  void requireDigits(const char *part);

  /// Skips white space, and in Comments mode comments.
  void skip() {
    skipWhitespace();
    if (mode == JsonParseMode::Comments) skipComments();
  }
  void skipWhitespace() {
    while (*cursor == ' ' || *cursor == '\r' || *cursor == '\n' || *cursor == '\t') ++cursor;
  }
  void skipComments();
  /// Returns false when no comment comes next, and after a failure.
  bool skipComment();

  /// Takes the next byte that is not skipped. Returns 0 after a failure.
  char nextToken() {
    skip();
    if (atEnd()) fail("unexpected end of input");
    return failed ? '\0' : *cursor++;
  }
  bool atEnd() const { return cursor == end; }
  /// The rest of the text.
  std::string_view rest() const { return {cursor, static_cast<std::size_t>(end - cursor)}; }

  void checkDepth(int depth);
  void fail(std::string message);

  const char *cursor;     ///< the next byte; at the end of the text, its terminating zero
  const char *const end;  ///< the terminating zero: reading *cursor needs no check
  std::string &error;
  bool failed = false;
  JsonParseMode mode;
};
