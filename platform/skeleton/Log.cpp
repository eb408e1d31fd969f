#include "platform/Log.h"

int platform_log_print(int /*buffer*/, int /*priority*/, const char* /*tag*/,
                       const char* /*format*/, ...) {
  return -1;
}
