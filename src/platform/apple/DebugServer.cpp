#include "platform/DebugServer.h"

namespace platform {

void provideDebugServer() {}

}  // namespace platform
