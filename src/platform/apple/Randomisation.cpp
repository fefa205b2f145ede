#include "platform/Process.h"

namespace platform {

bool canDisableAslr() { return true; }

}  // namespace platform
