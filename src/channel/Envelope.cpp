#include "channel/Envelope.h"

#include <utility>

#include "platform/Log.h"

Json okResponse(const std::optional<std::string> &message) {
  static const Json ok = okResponseWith({});
  return message ? okResponseWith({{"message", *message}}) : ok;
}

Json okResponseWith(Json::object members) {
  members["status"] = "ok";
  return Json(std::move(members));
}

Json errorResponse(const char *function, const std::string &message) {
  LOG_RECORD("Error in %{public}s: %{public}s", function, message.c_str());
  return Json(Json::object{{"message", message}, {"status", "error"}});
}
