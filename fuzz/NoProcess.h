#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "json/Json.h"

/// A session without target and process: what the targets need that have one.
namespace noProcess {

/// Starts LLDB and discards the log. Called once, before the first session.
void start();

/// An empty temporary file, open to read and write.
FILE *makeStream();

/// The commands of docs/protocol.schema.json, each with the names of its arguments.
const std::map<std::string, std::vector<std::string>> &commands();

/// Whether the command uses what is outside: files, processes, the network, or LLDB's own command
/// line, which can do anything.
bool reachesOutside(const Json &request);

/// Checks the response, without its "id", to a request that does not reach outside.
void checkResponse(const Json &request, const Json &response);

}  // namespace noProcess
