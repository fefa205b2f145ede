#pragma once

#include <deque>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

/// docs/protocol.schema.json, as it stands.
const nlohmann::json &protocolSchema();

/// Listens to what a host and the program say to each other, and fails the test when a message is
/// not what docs/protocol.schema.json says: requests, events, and responses by what was asked.
class Conformance {
 public:
  /// Bytes of frames to the program, in pieces of any size.
  void sent(std::string_view bytes);
  /// The text of one message from the program.
  void received(const std::string &text);

  /// Off where no frames are exchanged, or where they get lost on purpose.
  bool listens = true;
  /// Off where a test says on purpose what no host should.
  bool checksRequests = true;

 private:
  void request(const std::string &text);

  std::string unread;
  /// What the requests without response ask for: a command; "*" where the program may take the
  /// request for none.
  std::deque<std::string> awaited;
};
