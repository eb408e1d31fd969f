/* The smallest user of the installed library: a fixed property, read and compared. */
#include <stdio.h>
#include <string.h>

#include "ondaro/OndaroApi.h"

int main(void) {
  uint32_t length = 0;
  const char* value =
      OndaroApi_SystemConfig_GetProperty(OndaroFactory_GetSystemConfigHandle(), "SDR", &length);
  const int good = value != NULL && strcmp(value, "1") == 0 && length == 1;
  printf("SDR=%s\n", value != NULL ? value : "(null)");
  OndaroApi_SystemConfig_DestroyProperty(value);
  return good ? 0 : 1;
}
