// run: reads a request, decodes it, calls its handler, sends the response.

#include <exception>
#include <string>
#include <utility>

#include "channel/Envelope.h"
#include "session/DebugSession.h"

namespace {

/// Adds the request's "id" to the response, as an unsigned 64-bit number. An id that is no number
/// becomes 0. A request without an id gets a response without one.
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
        // The thread is not joined (~DebugSession). main destroys the session next, so the flag
        // counts for code that keeps it: a second later no event is reported any more.
        eventThread.requestEnd();
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
      // LLDB needs the processors for a process that runs.
      const bool processRuns = reportedState.isRunning();
      channel.sendResponse(withId(response, request));
      if (!processRuns) channel.stayAwake();
    } catch (const std::exception &) {
      // Deliberate: this one message reports every failure outside a handler. Hosts read it as a
      // lost request.
      channel.sendOk("EOF");
    }
  }
}
