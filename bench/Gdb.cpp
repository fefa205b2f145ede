// gdb, through its machine interface.

#include <stdexcept>

#include "Child.h"
#include "Subject.h"

namespace {

class Gdb : public Subject {
 public:
  explicit Gdb(const std::string &program)
      : Subject("gdb"),
        child({program, "--interpreter=mi3", "-nx", "-q"}, Child::Pipes::StandardStreams) {
    for (const char *setting :
         {"confirm off", "pagination off", "debuginfod enabled off", "startup-with-shell off",
          "auto-load no", "backtrace past-main on", "backtrace past-entry on"})
      ask(std::string("-gdb-set ") + setting);
  }

  void launch(const std::string &program, const std::vector<std::string> &arguments) override {
    ask("-file-exec-and-symbols " + program);
    std::string line = "-exec-arguments";
    for (const std::string &argument : arguments) line += " " + argument;
    ask(line);
    askAndStop("-interpreter-exec console starti");
  }
  void deleteProcess() override { ask("-interpreter-exec console kill"); }
  void breakAt(std::uint64_t address) override { ask("-break-insert *" + std::to_string(address)); }
  void removeBreakpoints() override { ask("-break-delete"); }
  void resume() override { askAndStop("-exec-continue"); }
  void step() override { askAndStop("-exec-step-instruction"); }

  void readMemory(std::uint64_t address, std::size_t size) override {
    ask("-data-read-memory-bytes " + std::to_string(address) + " " + std::to_string(size));
  }
  void readRegisters() override { ask("-data-list-register-values --skip-unavailable x"); }
  void readStack() override { ask("-stack-list-frames"); }
  void listThreads() override { ask("-thread-info"); }
  void listModules(bool) override { ask("-file-list-shared-libraries"); }
  void roundTrip() override { ask("-gdb-show confirm"); }

  std::string bytes() override { return bytesAfter("contents=\"", answer); }
  std::string stack() override { return numbersAfter("addr=\"", answer); }
  std::string programCounter() override {
    ask("-data-evaluate-expression \"(unsigned long)$pc\"");
    return numbersAfter("value=\"", answer);
  }
  std::string threadCount() override { return countOf("target-id=\"[^\"]*", answer); }
  std::string libraryCount() override { return countOf(library, answer); }
  double peakMemory() override { return child.peakMemory(); }

 private:
  void ask(const std::string &command) {
    answer = {};
    child.write(command + "\n");
    while (answer.empty()) readMessage();
    if (answer.starts_with("^error"))
      throw std::runtime_error("gdb: " + command + ": " + std::string(answer));
  }

  void askAndStop(const std::string &command) {
    const unsigned before = stops;
    ask(command);
    while (stops == before) readMessage();
  }

  void readMessage() {
    const std::string_view line = child.readLine();
    if (line.starts_with('^'))
      answer = line;
    else if (line.starts_with("*stopped"))
      ++stops;
  }

  Child child;
  std::string_view answer;  ///< until the next line is read
  unsigned stops = 0;
};

}  // namespace

std::unique_ptr<Subject> makeGdb(const std::string &program) {
  return std::make_unique<Gdb>(program);
}
