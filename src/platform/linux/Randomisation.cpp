#include <sys/personality.h>

#include "platform/Process.h"

namespace platform {

bool canDisableAslr() {
  constexpr unsigned long ask = 0xffffffff;
  const int current = personality(ask);
  if (current == -1) return false;
  const auto flags = static_cast<unsigned long>(current);
  if (personality(flags | ADDR_NO_RANDOMIZE) == -1) return false;
  personality(flags);
  return true;
}

}  // namespace platform
