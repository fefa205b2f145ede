// lldb-helper: with two arguments, the numbers of an input and an output descriptor, it speaks
// frames of JSON on those; otherwise a person types requests at its standard input.

#include <lldb/API/LLDB.h>

#include <cstdio>
#include <cstdlib>

#include "platform/DebugServer.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "session/DebugSession.h"

namespace {

struct Streams {
  FILE *input;
  FILE *output;
};

/// The channel on the two descriptors that the host named. Ends the program when one cannot be
/// used: there is nobody to talk to then.
Streams openChannel(const char *inputNumber, const char *outputNumber) {
  const Streams streams{fdopen(std::atoi(inputNumber), "r"), fdopen(std::atoi(outputNumber), "w")};
  if (streams.input == nullptr || streams.output == nullptr) {
    std::fprintf(stderr, "lldb-helper: cannot use descriptors %s and %s as input and output\n",
                 inputNumber, outputNumber);
    std::exit(1);
  }
  return streams;
}

}  // namespace

int main(int argc, char **argv) {
  platform::blockBrokenPipeSignal();
  platform::startEnvironment();
  platform::provideDebugServer();
  platform::forgetPythonHome();

  const bool consoleMode = argc != 3;
  const Streams streams = consoleMode ? Streams{stdin, stdout} : openChannel(argv[1], argv[2]);
  platform::keepDescriptorsPrivate(fileno(streams.input), fileno(streams.output));

  lldb::SBDebugger::Initialize();
  std::atexit(lldb::SBDebugger::Terminate);

  platform::openLog();
  LOG_RECORD("\n\n-------------- STARTING --------------\n");
  LOG_RECORD("Debugger version: %s\n", lldb::SBDebugger::GetVersionString());
  {
    DebugSession session(streams.input, streams.output, consoleMode);
    session.run();
  }
  // From atexit alone it would run after LLDB's own static objects are gone, which crashes LLDB 22.
  lldb::SBDebugger::Terminate();
  return 0;
}
