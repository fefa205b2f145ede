#include "support/Conformance.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include "support/Host.h"

namespace {

using Adapter = valijson::adapters::NlohmannJsonAdapter;

/// Messages longer than this are counted, not looked into: a list of a hundred million bytes says
/// nothing that a shorter one does not.
constexpr std::size_t longest = 4 << 20;

/// The schema library knows signed 64-bit numbers only: larger ones count as the largest of them,
/// in the schema as in messages.
json clamped(json value) {
  constexpr auto largest = std::numeric_limits<std::int64_t>::max();
  if (value.is_number_unsigned() && value.get<std::uint64_t>() > std::uint64_t{largest})
    value = largest;
  if (value.is_structured())
    for (json &inner : value) inner = clamped(std::move(inner));
  return value;
}

/// The part of the schema that `name` stands for, "responses/ping" for example.
valijson::Schema &part(const std::string &name) {
  static std::map<std::string, std::unique_ptr<valijson::Schema>> parts;
  std::unique_ptr<valijson::Schema> &schema = parts[name];
  if (schema == nullptr) {
    json document = clamped(protocolSchema());
    document.erase("anyOf");
    document["allOf"] = {{{"$ref", "#/$defs/" + name}}};
    schema = std::make_unique<valijson::Schema>();
    valijson::SchemaParser(valijson::SchemaParser::kDraft7)
        .populateSchema(Adapter(document), *schema);
  }
  return *schema;
}

bool conforms(const json &message, const std::string &name, std::string *reasons = nullptr) {
  static std::mutex oneAtATime;  // hosts may live in threads; the parts and the library are shared
  const std::lock_guard lock(oneAtATime);
  valijson::Validator validator;
  valijson::ValidationResults results;
  const bool isValid =
      validator.validate(part(name), Adapter(message), reasons != nullptr ? &results : nullptr);
  for (valijson::ValidationResults::Error error; results.popError(error);) {
    reasons->append("\n  ");
    for (const std::string &step : error.context) reasons->append(step);
    reasons->append(": ").append(error.description);
  }
  return isValid;
}

void expectConformance(const json &message, const std::string &name) {
  if (conforms(message, name)) return;
  std::string reasons;
  conforms(message, name, &reasons);
  ADD_FAILURE() << "not as docs/protocol.schema.json says of " << name << ":\n  "
                << message.dump(-1, ' ', false, json::error_handler_t::replace).substr(0, 1000)
                << reasons;
}

}  // namespace

const json &protocolSchema() {
  static const json schema = json::parse(readFile(DOCS "/protocol.schema.json"));
  return schema;
}

void Conformance::sent(std::string_view bytes) {
  if (!listens) return;
  unread += bytes;
  std::uint32_t length;
  while (unread.size() >= sizeof length) {
    std::memcpy(&length, unread.data(), sizeof length);
    if (unread.size() - sizeof length < length) return;
    request(unread.substr(sizeof length, length));
    unread.erase(0, sizeof length + length);
  }
}

void Conformance::request(const std::string &text) {
  const json request = clamped(json::parse(text.c_str(), nullptr, false));
  const std::string command =
      request.is_object() && request.contains("command") && request["command"].is_string()
          ? request["command"]
          : "";
  const bool isKnown = protocolSchema()["$defs"]["requests"].contains(command);
  if (checksRequests && text.size() <= longest) {
    EXPECT_TRUE(isKnown) << "no host should say " << text;
    if (isKnown) expectConformance(request, "requests/" + command);
  }
  awaited.push_back(isKnown ? command : "*");
}

void Conformance::received(const std::string &text) {
  if (!listens) return;
  const bool isLong = text.size() > longest;
  const json message = isLong ? json() : clamped(json::parse(text, nullptr, false));
  if (message.is_object() && message.value("status", "") == "event") {
    expectConformance(message, "events/" + message.value("type", ""));
    return;
  }
  if (awaited.empty()) {
    ADD_FAILURE() << "nobody asked for " << text.substr(0, 1000);
    return;
  }
  const std::string command = awaited.front();
  awaited.pop_front();
  if (isLong) return;
  // This program's own words, whatever was asked; where it is not known what it took the request
  // for, any response.
  if (conforms(message, "responses/*")) return;
  expectConformance(message, command == "*" ? "response" : "responses/" + command);
}
