#pragma once

#include <lldb/API/LLDB.h>

#include <string>

/// LLDB's text of an error, or nothing where it has none.
inline std::string errorText(const lldb::SBError &error) {
  const char *text = error.GetCString();
  return text != nullptr ? text : "";
}
