// run: read a request, decode it, have it handled, send the response.

#include <exception>
#include <string>
#include <utility>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// The response with the request's "id" in it. Whatever kind of value the host sent, a number comes
/// back: its unsigned 64-bit form, 0 for what is no number. A request without id gets none.
Json withId(const Json &response, const Json &request) {
  const Json &id = request["id"];
  if (id.type() == JsonType::Null) return response;
  Json::object members = response.objectItems();
  members["id"] = id.uint64Value();
  return Json(std::move(members));
}

}  // namespace

void DebugSession::run() {
  for (;;) {
    try {
      const std::optional<std::string> text = channel.readMessage();
      if (!text) {
        eventThread.requestStop();
        return;
      }
      std::string parseError;
      const Json request = Json::parse(*text, parseError);
      if (request.type() == JsonType::Null) {
        channel.sendError("Cannot decode JSON: " + parseError);
        continue;
      }
      Json response;
      try {
        response = handleRequest(request);
      } catch (const std::exception &exception) {
        response = errorResponse("run", std::string("bad request: ") + exception.what());
      }
      if (response.type() == JsonType::Null) response = errorResponse("run", "empty response");
      channel.sendResponse(withId(response, request));
    } catch (const std::exception &) {
      // Deliberate: whatever went wrong outside a handler is told by this one message, which hosts
      // take as the sign that a request was lost.
      channel.sendOk("EOF");
    }
  }
}
