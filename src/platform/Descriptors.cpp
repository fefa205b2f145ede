#include "platform/Descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace platform {

namespace {

/// The descriptors that were open when the program started.
std::vector<int> inheritedDescriptors;

/// The bound of a list of possible descriptors where the system does not list the open ones.
constexpr long highestGuess = 65536;

void closeOnExec(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFD);
  if (flags >= 0) fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
}

}  // namespace

std::vector<int> openDescriptors() {
  std::vector<int> descriptors;
  std::error_code error;
  for (const auto &entry : std::filesystem::directory_iterator("/dev/fd", error))
    descriptors.push_back(std::stoi(entry.path().filename().string()));
  if (!error) {
    // The iterator's own descriptor is in the list, and closed by now.
    std::erase_if(descriptors, [](int number) { return fcntl(number, F_GETFD) < 0; });
    return descriptors;
  }
  const long limit = std::min(sysconf(_SC_OPEN_MAX), highestGuess);
  for (int descriptor = 0; descriptor < limit; ++descriptor) descriptors.push_back(descriptor);
  return descriptors;
}

void keepDescriptorsPrivate(int input, int output) {
  closeOnExec(input);
  closeOnExec(output);
  inheritedDescriptors = openDescriptors();
  for (const int descriptor : inheritedDescriptors)
    if (descriptor > STDERR_FILENO) closeOnExec(descriptor);
}

int unblockAndDuplicateInferiorPty() {
  for (const int descriptor : openDescriptors()) {
    const bool isInherited =
        std::count(inheritedDescriptors.begin(), inheritedDescriptors.end(), descriptor) > 0;
    char slave[128];
    if (isInherited || ptsname_r(descriptor, slave, sizeof slave) != 0) continue;
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
    return fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  }
  return -1;
}

void shutDownSockets(const std::vector<int> &known) {
  for (const int descriptor : openDescriptors()) {
    int type = 0;
    socklen_t size = sizeof type;
    const bool isKnown = std::count(known.begin(), known.end(), descriptor) > 0;
    if (isKnown || getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0) continue;
    if (type == SOCK_STREAM) shutdown(descriptor, SHUT_RDWR);
  }
}

bool isSafeToOpen(const std::string &path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))
    return true;
  if (S_ISFIFO(status.st_mode)) return false;
  const int device = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (device < 0) return true;
  char byte = 0;
  const ssize_t count = isatty(device) ? 1 : read(device, &byte, sizeof byte);
  const bool ends = count == 0 || (count < 0 && errno != EAGAIN);
  close(device);
  return ends;
}

}  // namespace platform
