// The message table and the report format.
#include "base/zyn_report.h"

#include <stdarg.h>
#include <stdio.h>

const char* const zyn_error_string[13] = {
    ZYN_MSG_OK,        ZYN_MSG_PARA,          ZYN_MSG_MEMORY,  ZYN_MSG_NOT_SUPPORT,
    ZYN_MSG_OPEN_FILE, ZYN_MSG_UNINITIALIZED, ZYN_MSG_UNKNOWN, ZYN_MSG_END_OF_FILE,
    ZYN_MSG_WAITING,   ZYN_MSG_LENGTH,        ZYN_MSG_EXISTS,  ZYN_MSG_NOT_FOUND,
    ZYN_MSG_LOCK};

void zyn_print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
}

void zyn_report(const zyn_site& site) {
  zyn_print("Error occurred: %s \nError position:\nFile:%s:%d\n", site.message, site.path,
            static_cast<int>(site.line));
}
