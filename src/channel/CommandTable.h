#pragma once

#include <span>

#include "json/Json.h"

class DebugSession;

/// What the session must have, or must not have, when a command is called. handleRequest checks it
/// and answers the error. The names are those of docs/protocol.md, where a test compares them.
enum class Needs {
  Nothing,
  NoTarget,           ///< else "process already exists"
  NoProcess,          ///< else "already has a process"
  Target,             ///< else "no target"
  Process,            ///< else "no process", which includes that there is no target
  TargetThenProcess,  ///< without a target "no target", without a process "no process"
};

/// Returns the message of the error, or null when the session has what the command needs.
const char *whyRefused(Needs needs, bool hasTarget, bool hasProcess);

/// A row of the table. A new command is a new row, and a member of DebugSession with its name.
struct Command {
  const char *name;
  Needs needs;
  /// Takes the command's arguments from the request and calls the handler. An argument that is
  /// missing or of another kind becomes the accessor's default. The handler decides whether that is
  /// an error.
  Json (*call)(DebugSession &session, const Json &request);
};

/// All commands, in the order of docs/protocol.md. Never changes. For any thread.
std::span<const Command> commandTable();
