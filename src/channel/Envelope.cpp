#include "channel/Envelope.h"

#include <utility>

#include "platform/Log.h"

Json okResponse(const std::optional<std::string> &message) {
  Json::object members;
  if (message) members["message"] = *message;
  return okResponseWith(std::move(members));
}

Json okResponseWith(Json::object members) {
  members["status"] = "ok";
  return Json(std::move(members));
}

Json errorResponse(const char *function, const std::string &message) {
  LOG_RECORD("Error in %{public}s: %{public}s", function, message.c_str());
  return Json(Json::object{{"message", message}, {"status", "error"}});
}
