#pragma once

#include "json/Json.h"

class JsonWriter;

/// The payload of a Json: one concrete class for each kind and number form. The base class
/// answers every question with the default; a concrete class overrides only what its kind answers.
class JsonValue {
 public:
  virtual JsonType type() const = 0;
  /// `other` has the same type(), in both.
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
