#include "Child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace {

void check(bool success, const char *what) {
  if (!success) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

}  // namespace

Child::Child(std::vector<std::string> command, Pipes pipes) {
  int toChild[2], fromChild[2];
  check(pipe2(toChild, O_CLOEXEC) == 0 && pipe2(fromChild, O_CLOEXEC) == 0, "pipe");
  if (pipes == Pipes::Arguments)
    for (const int end : {toChild[0], fromChild[1]}) command.push_back(std::to_string(end));
  std::vector<char *> arguments;
  for (std::string &word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  process = fork();
  check(process >= 0, "fork");
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (pipes == Pipes::Arguments) {
      for (const int end : {toChild[0], fromChild[1]}) fcntl(end, F_SETFD, 0);
    } else {
      dup2(toChild[0], STDIN_FILENO);
      dup2(fromChild[1], STDOUT_FILENO);
    }
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  close(toChild[0]);
  close(fromChild[1]);
  output = toChild[1];
  input = fdopen(fromChild[0], "r");
  setvbuf(input, block.data(), _IOFBF, block.size());
}

Child::~Child() {
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  fclose(input);
  close(output);
  free(buffer);
}

void Child::write(std::string_view bytes) {
  const ssize_t count = ::write(output, bytes.data(), bytes.size());
  check(count == static_cast<ssize_t>(bytes.size()), "write");
}

std::string_view Child::read(std::size_t count) {
  if (count > capacity) {
    free(buffer);  // realloc() would copy what nobody needs
    buffer = static_cast<char *>(malloc(capacity = count));
  }
  check(fread_unlocked(buffer, 1, count, input) == count, "the program has ended");
  return {buffer, count};
}

std::string_view Child::readLine() {
  const ssize_t count = getline(&buffer, &capacity, input);
  check(count > 0, "the program has ended");
  return {buffer, static_cast<std::size_t>(count)};
}

std::string_view Child::readFrame() {
  std::uint32_t size = 0;
  std::memcpy(&size, read(sizeof size).data(), sizeof size);
  return read(size);
}

double Child::peakMemory() const {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  double kilobytes = 0;
  for (std::string word; status >> word;)
    if (word == "VmHWM:" && status >> kilobytes) return kilobytes * 1024;
  throw std::runtime_error("no peak memory");
}

std::string frame(std::string_view text) {
  const auto size = static_cast<std::uint32_t>(text.size());
  return std::string(reinterpret_cast<const char *>(&size), sizeof size).append(text);
}

std::map<std::string, std::uint64_t> symbolsOf(const std::string &program) {
  FILE *pipe = popen(("nm '" + program + "' 2>&1 || nm -D '" + program + "'").c_str(), "re");
  std::map<std::string, std::uint64_t> symbols;
  unsigned long long address = 0;
  char kind = 0, name[256], line[4096];
  while (std::fgets(line, sizeof line, pipe) != nullptr)
    if (std::sscanf(line, "%llx %c %255s", &address, &kind, name) == 3) symbols[name] = address;
  pclose(pipe);
  return symbols;
}
