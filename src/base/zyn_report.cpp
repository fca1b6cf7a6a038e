// The message table and the report format.
#include "base/zyn_report.h"

#include <stdarg.h>
#include <stdio.h>

#include "base/zyn_explain.h"

const char* const zyn_error_string[13] = {
    ZYN_MSG_OK,        ZYN_MSG_PARA,          ZYN_MSG_MEMORY,  ZYN_MSG_NOT_SUPPORT,
    ZYN_MSG_OPEN_FILE, ZYN_MSG_UNINITIALIZED, ZYN_MSG_UNKNOWN, ZYN_MSG_END_OF_FILE,
    ZYN_MSG_WAITING,   ZYN_MSG_LENGTH,        ZYN_MSG_EXISTS,  ZYN_MSG_NOT_FOUND,
    ZYN_MSG_LOCK};

namespace {

thread_local int32_t quiet = 0;  // how many zyn_quiet exist
zyn_report_handler report_handler = nullptr;
void* report_context = nullptr;
constexpr size_t kMostReport = 4096;  // bytes that a handler receives; longer texts are cut

}  // namespace

zyn_quiet::zyn_quiet() { quiet++; }
zyn_quiet::~zyn_quiet() { quiet--; }

void zyn_set_report_handler(zyn_report_handler handler, void* context) {
  report_handler = handler;
  report_context = context;
}

void zyn_print(const char* format, ...) {
  if (quiet > 0) return;
  va_list arguments;
  va_start(arguments, format);
  if (report_handler) {
    char text[kMostReport];
    vsnprintf(text, sizeof(text), format, arguments);
    report_handler(text, report_context);
  } else {
    vprintf(format, arguments);
  }
  va_end(arguments);
}

void zyn_report(const zyn_site& site) {
  zyn_explain("%s (%s:%d)", site.message, site.path, static_cast<int>(site.line));
  zyn_print("Error occurred: %s \nError position:\nFile:%s:%d\n", site.message, site.path,
            static_cast<int>(site.line));
}

int32_t zyn_fail_null(const zyn_site& site, const char* what) {
  zyn_report(site);
  return zyn_refuse_null(what);
}
