#pragma once

#include <optional>
#include <string>

#include "json/Json.h"

/// {"status": "ok"}, with "message" only when a text is given.
Json okResponse(const std::optional<std::string> &message = std::nullopt);

/// {"status": "ok"} and `members`, which must not contain "status".
Json okResponseWith(Json::object members);

/// {"message": text, "status": "error"}. Logs the error under the name of the operation that
/// failed.
Json errorResponse(const char *function, const std::string &message);
