#include "platform/Log.h"

namespace platform {

namespace {

os_log_t handle = OS_LOG_DEFAULT;

}  // namespace

void openLog() { handle = os_log_create("com.brimwick-soft.vantrel", "lldb-helper"); }

bool logEnabled() { return os_log_type_enabled(handle, OS_LOG_TYPE_DEFAULT); }

os_log_t logHandle() { return handle; }

}  // namespace platform
