#pragma once

#include <cstdio>
#include <string>

#include "json/Json.h"

/// What a session without target and process must do, for the targets that have one.
namespace noProcess {

/// Starts LLDB and sends the log's records to nowhere. Once, before the first session.
void start();

/// An empty temporary file, open to read and write. Ends the program when there can be none.
FILE *makeStream();

/// Replaces what the stream holds, and puts it at its beginning.
void fill(FILE *stream, const std::string &bytes);

/// What the stream holds up to where it is.
std::string written(FILE *stream);

/// Whether the command reaches for what is outside: files, processes, the network, or LLDB's own
/// command line, which can do anything.
bool reachesOutside(const Json &request);

/// What docs/protocol.md promises in answer to a request that does not reach outside, without its
/// "id".
Json response(const Json &request);

}  // namespace noProcess
