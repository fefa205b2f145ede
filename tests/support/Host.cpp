#include "support/Host.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what); }

struct Pipe {
  int read;
  int write;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe2 failed");
    read = ends[0];
    write = ends[1];
  }
};

void closeOnce(int &descriptor) {
  if (descriptor >= 0) close(descriptor);
  descriptor = -1;
}

std::vector<char *> pointersTo(std::vector<std::string> &texts) {
  std::vector<char *> pointers;
  for (std::string &text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

/// Parent and name of a process, from /proc/PID/stat; parent 0 when it is gone.
std::pair<pid_t, std::string> parentAndName(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const auto open = stat.find('('), close = stat.rfind(')');
  if (close == std::string::npos) return {0, ""};
  char state;
  pid_t parent = 0;
  std::istringstream(stat.substr(close + 1)) >> state >> parent;
  return {parent, stat.substr(open + 1, close - open - 1)};
}

}  // namespace

Host::Host() : Host(Options{}) {}

Host::Host(Options options) {
  // What the program leaves behind when it dies becomes our child, so that it can be found and
  // ended.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const Pipe toChild, fromChild, silence;
  const bool console = options.arguments.has_value();
  conformance.listens = !console || options.arguments->size() == 2;
  std::vector<std::string> arguments{HELPER_PROGRAM};
  if (console) {
    arguments.insert(arguments.end(), options.arguments->begin(), options.arguments->end());
  } else {
    arguments.push_back(std::to_string(toChild.read));
    arguments.push_back(std::to_string(fromChild.write));
  }
  for (char **entry = environ; *entry != nullptr; ++entry) options.environment.emplace_back(*entry);
  const auto argumentVector = pointersTo(arguments);
  const auto environmentVector = pointersTo(options.environment);

  child = fork();
  if (child < 0) fail("fork failed");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (console) {
      dup2(toChild.read, STDIN_FILENO);
      dup2(fromChild.write, STDOUT_FILENO);
    } else {
      // A standard input that never says anything and never ends.
      dup2(silence.read, STDIN_FILENO);
      fcntl(toChild.read, F_SETFD, 0);
      fcntl(fromChild.write, F_SETFD, 0);
    }
    environ = const_cast<char **>(environmentVector.data());
    if (options.prepare) options.prepare();
    execv(HELPER_PROGRAM, argumentVector.data());
    _exit(127);
  }
  close(toChild.read);
  close(fromChild.write);
  close(silence.read);
  silent = silence.write;
  requests = toChild.write;
  messages = fromChild.read;
  signal(SIGPIPE, SIG_IGN);
}

Host::~Host() {
  if (!endStatus) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  closeOnce(requests);
  closeOnce(messages);
  closeOnce(silent);
  // One that is killed may hand us its children, so look again until there is nobody left.
  for (auto left = descendants(getpid()); !left.empty(); left = descendants(getpid())) {
    for (const pid_t pid : left) kill(pid, SIGKILL);
    while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
    std::this_thread::yield();
  }
}

std::string Host::frame(const std::string &text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  std::string bytes(sizeof length, '\0');
  std::memcpy(bytes.data(), &length, sizeof length);
  return bytes + text;
}

std::string Host::frames(const std::vector<json> &requests) {
  std::string bytes;
  for (const json &request : requests) bytes += frame(request.dump());
  return bytes;
}

void Host::sendBytes(std::string_view bytes) {
  conformance.sent(bytes);
  while (!bytes.empty()) {
    const ssize_t count = write(requests, bytes.data(), bytes.size());
    if (count <= 0) fail("the program does not read its requests any more");
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

json Host::ask(json request) {
  const std::uint64_t id = nextId++;
  request["id"] = id;
  send(request);
  json response = responses(1)[0];
  if (response.value("id", std::uint64_t{0}) != id)
    fail("a response that nobody asked for: " + response.dump());
  response.erase("id");
  return response;
}

std::vector<json> Host::askAll(const std::vector<json> &requests) {
  sendBytes(frames(requests));
  return responses(requests.size());
}

std::vector<json> Host::responses(std::size_t count) {
  std::vector<json> found;
  while (found.size() < count) {
    const json message = nextMessage();
    if (message["status"] == "event")
      events.push_back(message);
    else
      found.push_back(message);
  }
  return found;
}

json Host::awaitEvent(const std::function<bool(const json &)> &wanted) {
  for (;;) {
    json message;
    if (events.empty()) {
      message = nextMessage();
    } else {
      message = events.front();
      events.pop_front();
    }
    if (message["status"] != "event") fail("a response in place of an event: " + message.dump());
    if (wanted(message)) return message;
  }
}

json Host::awaitState(const std::string &name) {
  return awaitEvent([&](const json &event) {
    if (event["type"] != "state") return false;
    if (event["state_desc"] == "eStateExited" && name != "eStateExited")
      fail("exited instead of " + name);
    return event["state_desc"] == name;
  });
}

std::string Host::awaitOutput() {
  return outputOf(awaitEvent([](const json &event) { return event["type"] == "stdout"; }));
}

Host::Ending Host::awaitExit() {
  Ending ending;
  ending.exit = awaitEvent([&](const json &event) {
    if (event["type"] == "stdout") ending.output += outputOf(event);
    return event["type"] == "state" && event["state_desc"] == "eStateExited";
  });
  return ending;
}

Host::Ending Host::runToExit() {
  Ending ending;
  while (ending.exit.is_null()) {
    if (const json response = ask("continueExecution"); response["status"] != "ok")
      fail("continueExecution: " + response.dump() + " after " + ending.output);
    awaitState("eStateRunning");
    const json last = awaitEvent([&](const json &event) {
      if (event["type"] == "stdout") ending.output += outputOf(event);
      return event["type"] == "state" && event["state_desc"] != "eStateRunning";
    });
    if (last["state_desc"] == "eStateExited") ending.exit = last;
  }
  return ending;
}

bool Host::waitReadable(Clock::time_point until) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
  pollfd descriptor{messages, POLLIN, 0};
  return poll(&descriptor, 1, static_cast<int>(std::max(left, 0ms).count())) > 0;
}

/// Reads until `count` bytes are there; false at the end of the program's output.
bool Host::fill(std::size_t count) {
  const auto until = Clock::now() + deadline;
  while (unread.size() < count) {
    if (!waitReadable(until)) fail("the program says nothing");
    char bytes[65536];
    const ssize_t more = read(messages, bytes, sizeof bytes);
    if (more <= 0) return false;
    unread.append(bytes, static_cast<std::size_t>(more));
  }
  return true;
}

std::optional<std::string> Host::nextText() {
  std::uint32_t length;
  if (!fill(sizeof length)) return std::nullopt;
  std::memcpy(&length, unread.data(), sizeof length);
  if (!fill(sizeof length + length)) fail("a frame that is cut short");
  std::string text = unread.substr(sizeof length, length);
  unread.erase(0, sizeof length + length);
  conformance.received(text);
  return text;
}

json Host::nextMessage() {
  const auto text = nextText();
  if (!text) fail("the program has closed its output");
  history.push_back(json::parse(*text));
  return history.back();
}

std::string Host::readAll() {
  while (fill(unread.size() + 1)) continue;
  return std::exchange(unread, "");
}

void Host::closeRequests() { closeOnce(requests); }

void Host::closeMessages() { closeOnce(messages); }

int Host::waitForEnd() {
  awaitThat("the program ends", [&] {
    int status;
    if (!endStatus && waitpid(child, &status, WNOHANG) == child) endStatus = status;
    return endStatus.has_value();
  });
  return *endStatus;
}

int Host::exitStatus() {
  const int status = waitForEnd();
  if (!WIFEXITED(status)) fail("the program ended by signal " + std::to_string(WTERMSIG(status)));
  return WEXITSTATUS(status);
}

json Host::prepare(const std::string &program, json more) {
  json request{{"command", "prepareExecutable"},
               {"path", program},
               {"triple", ""},
               {"cwd", ""},
               {"args", ""},
               {"env", ""},
               {"is64Bits", true}};
  request.update(more);
  return ask(request);
}

void Host::launch(const std::string &program, json more) {
  prepare(program, std::move(more));
  const json response = ask("createProcess");
  if (response != json{{"status", "ok"}}) fail("createProcess: " + response.dump());
}

std::string outputOf(const json &event) {
  const std::string hex = event["output"];
  std::string bytes;
  for (std::size_t at = 0; at < hex.size(); at += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
  return bytes;
}

std::string inferior(const std::string &name) { return INFERIORS "/" + name; }

std::vector<pid_t> descendants(pid_t ancestor, const std::string &name) {
  std::vector<std::pair<pid_t, pid_t>> parents;
  std::vector<pid_t> found;
  DIR *proc = opendir("/proc");
  while (const dirent *entry = readdir(proc))
    if (const pid_t pid = std::atoi(entry->d_name); pid > 0)
      parents.emplace_back(pid, parentAndName(pid).first);
  closedir(proc);
  std::vector<pid_t> above{ancestor};
  for (std::size_t at = 0; at < above.size(); ++at)
    for (const auto &[pid, parent] : parents)
      if (parent == above[at]) above.push_back(pid);
  for (std::size_t at = 1; at < above.size(); ++at)
    if (name.empty() || parentAndName(above[at]).second == name) found.push_back(above[at]);
  return found;
}

std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

bool matches(const std::string &text, const std::string &pattern) {
  const std::string gap = "…";
  const auto at = pattern.find(gap);
  if (at == std::string::npos) return text == pattern;
  if (text.compare(0, at, pattern, 0, at) != 0) return false;
  const std::string rest = pattern.substr(at + gap.size());
  for (std::size_t begin = at; begin <= text.size(); ++begin)
    if (matches(text.substr(begin), rest)) return true;
  return false;
}

void awaitThat(const std::string &what, const std::function<bool()> &holds) {
  const auto until = Clock::now() + deadline;
  while (!holds()) {
    if (Clock::now() > until) fail("in vain waited that " + what);
    std::this_thread::sleep_for(2ms);
  }
}
