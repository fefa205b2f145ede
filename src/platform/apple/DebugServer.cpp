#include "platform/DebugServer.h"

namespace platform {

void setDebugServerPath() {}

}  // namespace platform
