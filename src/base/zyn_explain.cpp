// The explanation of every thread.
#include "base/zyn_explain.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

thread_local char explanation[kZynExplanationBytes];
thread_local uint64_t explanations = 0;  // how many there have been

void set_explanation(const char* format, va_list arguments) {
  vsnprintf(explanation, sizeof(explanation), format, arguments);
  explanations++;
  // One line, whatever a file name or message holds.
  for (char* c = explanation; *c; c++)
    if (static_cast<unsigned char>(*c) < ' ') *c = ' ';
}

}  // namespace

const char* zyn_error_detail(void) { return explanation; }

void zyn_explain(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  set_explanation(format, arguments);
  va_end(arguments);
}

int32_t zyn_refuse(int32_t code, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  set_explanation(format, arguments);
  va_end(arguments);
  return code;
}

int32_t zyn_refuse_null(const char* what) {
  return zyn_refuse(ZYN_RET_ERR_PARA, "%s is null", what);
}

zyn_extents_text::zyn_extents_text(int32_t count, const int32_t* extents) {
  const bool readable = count >= 1 && count <= 5;  // else nobody knows how many there are
  int used = snprintf(text, sizeof(text), !extents ? "null" : readable ? "" : "not read");
  for (int32_t i = 0; extents && readable && i < count; i++)
    used += snprintf(text + used, sizeof(text) - static_cast<size_t>(used), i ? " x %d" : "%d",
                     extents[i]);
}

void zyn_explain_where(const char* format, ...) {
  char what[kZynExplanationBytes];
  memcpy(what, explanation, sizeof(what));
  va_list arguments;
  va_start(arguments, format);
  set_explanation(format, arguments);
  va_end(arguments);
  const size_t used = strlen(explanation);
  snprintf(explanation + used, sizeof(explanation) - used, "%s", what);
}

zyn_explanation_mark::zyn_explanation_mark() : count_(explanations) {}
bool zyn_explanation_mark::passed() const { return explanations != count_; }
