#include "support/Inferior.h"

#include <arpa/inet.h>
#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace {

template <typename T>
T at(const std::string &bytes, std::uint64_t offset) {
  T value;
  if (offset + sizeof value > bytes.size()) throw std::runtime_error("not an ELF file");
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

}  // namespace

std::uint64_t fileAddress(const std::string &file, const std::string &symbol) {
  const std::string bytes = readFile(file);
  const auto header = at<Elf64_Ehdr>(bytes, 0);
  const auto section = [&](std::uint64_t index) {
    return at<Elf64_Shdr>(bytes, header.e_shoff + index * header.e_shentsize);
  };
  for (int index = 0; index < header.e_shnum; ++index) {
    const Elf64_Shdr table = section(index);
    if (table.sh_type != SHT_SYMTAB) continue;
    const Elf64_Shdr names = section(table.sh_link);
    for (std::uint64_t offset = 0; offset < table.sh_size; offset += sizeof(Elf64_Sym)) {
      const auto entry = at<Elf64_Sym>(bytes, table.sh_offset + offset);
      if (bytes.c_str() + names.sh_offset + entry.st_name == symbol) return entry.st_value;
    }
  }
  throw std::runtime_error(file + " has no symbol " + symbol);
}

std::string floodOf(int lines) {
  std::string text;
  char bytes[16];
  for (int line = 0; line < lines; ++line)
    text.append(bytes,
                static_cast<std::size_t>(std::snprintf(bytes, sizeof bytes, "%07d\r\n", line)));
  return text;
}

std::vector<Mapping> mappings(pid_t pid) {
  std::vector<Mapping> all;
  std::istringstream lines(readFile("/proc/" + std::to_string(pid) + "/maps"));
  for (std::string line; std::getline(lines, line);) {
    Mapping mapping;
    std::string device, inode;
    char dash;
    std::istringstream words(line);
    words >> std::hex >> mapping.start >> dash >> mapping.end >> mapping.permissions >>
        mapping.offset >> device >> inode >> mapping.file;
    all.push_back(mapping);
  }
  return all;
}

std::uint64_t imageBase(pid_t pid, const std::string &file) {
  for (const Mapping &mapping : mappings(pid))
    if (mapping.file == file) return mapping.start - mapping.offset;
  throw std::runtime_error(file + " is not mapped");
}

std::string peek(pid_t pid, std::uint64_t address, std::size_t size) {
  const int memory = open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  std::string bytes(size, '\0');
  const ssize_t count = pread(memory, bytes.data(), size, static_cast<off_t>(address));
  close(memory);
  if (count != static_cast<ssize_t>(size)) throw std::runtime_error("cannot peek");
  return bytes;
}

long statusFigure(pid_t pid, const std::string &name) {
  std::istringstream lines(readFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(lines, line);)
    if (line.rfind(name + ":", 0) == 0) return std::stol(line.substr(name.size() + 1));
  throw std::runtime_error("no " + name);
}

int countThreads(pid_t pid, const std::string &name) {
  int count = 0;
  const std::string folder = "/proc/" + std::to_string(pid) + "/task";
  for (const auto &thread : std::filesystem::directory_iterator(folder))
    count += readFile(thread.path() / "comm") == name + "\n";
  return count;
}

Running::Running(std::vector<std::string> commandLine) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  std::vector<char *> arguments;
  for (std::string &word : commandLine) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    dup2(ends[1], STDOUT_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  close(ends[1]);
  output = ends[0];
}

Running::~Running() {
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(output);
}

std::string Running::line() {
  std::string text;
  for (char byte; read(output, &byte, 1) == 1 && byte != '\n';) text += byte;
  return text;
}

bool Running::isAlive() { return state() != 'Z' && state() != '\0'; }

char Running::state() {
  const std::string stat = readFile("/proc/" + std::to_string(child) + "/stat");
  const auto close = stat.rfind(')');
  return close == std::string::npos ? '\0' : stat[close + 2];
}

int freePort() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    throw std::runtime_error("no port");
  close(listener);
  return ntohs(address.sin_port);
}

void awaitListener(int port) {
  // To connect would use up the one connection that a debug server takes, so look in the table.
  char local[32];
  std::snprintf(local, sizeof local, ":%04X ", port);
  awaitThat("somebody listens on port " + std::to_string(port), [&] {
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
      std::istringstream lines(readFile(table));
      for (std::string line; std::getline(lines, line);)
        if (const auto found = line.find(local); found != std::string::npos && found < 60)
          if (line.find(" 0A ") != std::string::npos) return true;
    }
    return false;
  });
}

Debugged::Debugged(const std::string &name, const std::string &arguments)
    : file(inferior(name)), symbolFile(file) {
  launch(file, {{"args", arguments}});
  awaitState("eStateStopped");
}

std::uint64_t Debugged::addressOf(const std::string &symbol) {
  const json section = ask({{"command", "moduleForFile"}, {"file", file}})["module"]["sections"][0];
  const std::uint64_t load = section["loadAddr"], inFile = section["fileAddr"];
  return fileAddress(symbolFile, symbol) + (load - inFile);
}

json Debugged::breakAt(const std::string &symbol) {
  return ask({{"command", "setBreakpointAtVirtualAddress"}, {"address", addressOf(symbol)}});
}

void Debugged::resume() {
  if (const json response = ask("continueExecution"); response != ok)
    throw std::runtime_error(response.dump());
  awaitState("eStateRunning");
  awaitState("eStateStopped");
}

void Debugged::goTo(const std::string &symbol) {
  const json response = breakAt(symbol);
  if (response["status"] != "ok") throw std::runtime_error(response.dump());
  resume();
}

void Debugged::step(const char *command) {
  if (const json response = ask(command); response != ok) throw std::runtime_error(response.dump());
  awaitState("eStateRunning");
  awaitState("eStateStopped");
}

std::uint64_t Debugged::pc() { return stack()[0]["pc"]; }

std::string Debugged::function() { return stack()[0].value("function", ""); }

pid_t Debugged::inferiorPid() {
  const auto slash = file.rfind('/');
  const auto found = descendants(pid(), file.substr(slash + 1, 15));
  if (found.size() != 1) throw std::runtime_error("no inferior");
  return found[0];
}
