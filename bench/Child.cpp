#include "Child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace {

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

Child::Child(std::vector<std::string> command, Pipes pipes) {
  int toChild[2], fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) fail("pipe");
  if (pipes == Pipes::Arguments) {
    command.push_back(std::to_string(toChild[0]));
    command.push_back(std::to_string(fromChild[1]));
  }
  std::vector<char *> arguments;
  for (std::string &word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  process = fork();
  if (process < 0) fail("fork");
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    if (pipes == Pipes::Arguments) {
      fcntl(toChild[0], F_SETFD, 0);
      fcntl(fromChild[1], F_SETFD, 0);
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
  input = fromChild[0];
}

Child::~Child() {
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  close(input);
  close(output);
}

void Child::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(output, bytes.data(), bytes.size());
    if (count < 0) fail("write");
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void Child::fill(std::size_t room) {
  constexpr std::size_t leastCapacity = 65536;
  if (capacity - begin < room || begin == end) {
    const std::size_t enough = std::max(room, leastCapacity);
    const auto old = capacity < enough
                         ? std::exchange(buffer, std::make_unique_for_overwrite<char[]>(enough))
                         : nullptr;
    capacity = std::max(capacity, enough);
    std::memmove(buffer.get(), (old ? old : buffer).get() + begin, end - begin);
    end -= begin;
    begin = 0;
  }
  const ssize_t count = ::read(input, buffer.get() + end, capacity - end);
  if (count <= 0) fail("the program has ended");
  end += static_cast<std::size_t>(count);
}

std::string_view Child::read(std::size_t count) {
  while (end - begin < count) fill(count);
  begin += count;
  return {buffer.get() + begin - count, count};
}

std::string_view Child::readLine() {
  for (std::size_t size = 0;;) {
    const std::string_view unread(buffer.get() + begin, end - begin);
    const std::size_t found = unread.find('\n', size);
    if (found != std::string_view::npos) return read(found + 1);
    size = unread.size();
    fill(2 * size + 1);
  }
}

std::size_t Child::peakMemory() const {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    std::size_t kilobytes = 0;
    if (word == "VmHWM:" && status >> kilobytes) return kilobytes * 1024;
  }
  throw std::runtime_error("no peak memory");
}

std::string frame(std::string_view text) {
  const auto size = static_cast<std::uint32_t>(text.size());
  return std::string(reinterpret_cast<const char *>(&size), sizeof size).append(text);
}

std::string_view readFrame(Child &child) {
  std::uint32_t size = 0;
  std::memcpy(&size, child.read(sizeof size).data(), sizeof size);
  return child.read(size);
}
