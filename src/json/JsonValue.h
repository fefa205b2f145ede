#pragma once

#include "json/Json.h"

class JsonWriter;

/// The payload of a Json. Each kind has a concrete class; Number has one for each form, and Array a
/// second one for JsonBytes. The base class answers every question with the default; a concrete
/// class overrides only what its kind answers.
class JsonValue {
 public:
  virtual JsonType type() const = 0;
  // Both are called only with an `other` of the same type().
  virtual bool equals(const JsonValue &other) const = 0;
  virtual bool less(const JsonValue &other) const = 0;

  virtual void dump(JsonWriter &out) const = 0;
  virtual double numberValue() const;
  virtual std::int32_t intValue() const;
  virtual bool boolValue() const;
  virtual std::uint64_t uint64Value() const;
  virtual const std::string &stringValue() const;
  virtual const Json::array &arrayItems() const;
  virtual const Json &operator[](std::size_t index) const;
  virtual const Json::object &objectItems() const;
  virtual const Json &operator[](std::string_view key) const;
  virtual ~JsonValue() = default;
};
