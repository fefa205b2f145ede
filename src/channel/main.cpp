// lldb-helper. Two arguments are the numbers of an input and an output descriptor, for frames of
// JSON. With any other number of arguments a person types requests at standard input.

#include <lldb/API/LLDB.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/Descriptors.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "session/DebugSession.h"

namespace {

struct Streams {
  FILE *input;
  FILE *output;
};

/// Opens the two descriptors that the host named. Ends the program when one cannot be used, because
/// nothing can be reported then.
Streams openChannel(const char *inputNumber, const char *outputNumber) {
  const Streams streams{fdopen(std::atoi(inputNumber), "r"), fdopen(std::atoi(outputNumber), "w")};
  if (streams.input == nullptr || streams.output == nullptr) {
    std::fprintf(stderr, "lldb-helper: cannot use descriptors %s and %s as input and output\n",
                 inputNumber, outputNumber);
    std::exit(EXIT_FAILURE);
  }
  return streams;
}

constexpr char usage[] =
    R"(usage: lldb-helper INPUT OUTPUT    for a host program
       lldb-helper                 for a person
       lldb-helper --help, lldb-helper --version

Debugs programs with LLDB. Requests, responses and events are JSON.

For a host program, INPUT and OUTPUT are the decimal numbers of two open descriptors. lldb-helper reads
requests from the first and writes messages to the second. Each is a frame: the length of its JSON text
as 4 bytes in the machine's byte order, then the text.

For a person, a request is a line on standard input, and messages follow "OUTPUT: " on standard output.
Any other number of arguments means this too.

Example:
  $ echo '{"command": "ping"}' | lldb-helper
  INPUT: {"command": "ping"}

  OUTPUT: {"status": "ok"}

The commands are in docs/protocol.md. examples/console.py is a debugger's command line on top of this.
)";

/// Answers an option that starts no session. Returns false for any other argument.
bool answerOption(std::string_view argument) {
  if (argument == "--help")
    std::fputs(usage, stdout);
  else if (argument == "--version")
    std::printf("lldb-helper %s\n%s\n", LLDB_HELPER_VERSION, lldb::SBDebugger::GetVersionString());
  else
    return false;
  return true;
}

/// Says what the arguments mean, where a person may have meant an option or a program. The mode
/// stays.
void explain(int argc, char **argv) {
  if (argc == 2)
    std::fprintf(
        stderr,
        "lldb-helper: \"%s\" is no option and no pair of descriptors: reading requests from "
        "standard input (see lldb-helper --help).\n",
        argv[1]);
  else if (argc > 3)
    std::fprintf(stderr,
                 "lldb-helper: %d arguments are no pair of descriptors: reading requests from "
                 "standard input (see lldb-helper --help).\n",
                 argc - 1);
}

/// On standard error: standard output carries only requests and messages, also at a terminal.
void greet() {
  std::fputs(
      "Type a request in one line, for example {\"command\": \"ping\"}; lldb-helper --help shows "
      "more.\n"
      "Ctrl-D ends; to end a process first, send {\"command\": \"deleteProcess\"}.\n",
      stderr);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && answerOption(argv[1])) return 0;

  platform::blockBrokenPipeSignal();
  platform::initialEnvironment();
  platform::setDebugServerPath();
  platform::forgetPythonHome();

  const bool consoleMode = argc != 3;
  const Streams streams = consoleMode ? Streams{stdin, stdout} : openChannel(argv[1], argv[2]);
  // Only for a person: a host that starts a console may take any text for a failure.
  if (consoleMode && isatty(STDERR_FILENO)) explain(argc, argv);
  if (consoleMode && isatty(STDIN_FILENO)) greet();
  platform::keepDescriptorsPrivate(fileno(streams.input), fileno(streams.output));

  lldb::SBDebugger::Initialize();
  // For an exit() inside a library, which skips the call below. It ends LLDB as well as that can be
  // then: LLDB 22 may crash in it. After the call below it has nothing left to do.
  std::atexit(lldb::SBDebugger::Terminate);

  platform::openLog();
  LOG_RECORD("\n\n-------------- STARTING --------------\n");
  LOG_RECORD("Debugger version: %s\n", lldb::SBDebugger::GetVersionString());
  {
    DebugSession session(streams.input, streams.output, consoleMode);
    session.run();
  }
  // LLDB ends before main does. When atexit calls, the static objects that LLDB has made since then
  // are destroyed, and LLDB 22 crashes if there is something left to end.
  lldb::SBDebugger::Terminate();
  return 0;
}
