#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "json/Json.h"

/// Shared by the fuzzers whose session has no target and no process.
namespace noProcess {

/// Starts LLDB and discards the log. Call it once, before the first session.
void start();

/// Returns an empty temporary file, open for reading and writing.
FILE *makeStream();

/// Returns the commands of docs/protocol.schema.json, each with the names of its arguments.
const std::map<std::string, std::vector<std::string>> &commands();

/// Whether the command uses files, processes, the network, or LLDB's own command line, which can do
/// anything.
bool reachesOutside(const Json &request);

/// Checks the response, without its "id", to a request that does not reach outside.
void checkResponse(const Json &request, const Json &response);

}  // namespace noProcess
