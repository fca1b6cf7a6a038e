// The millisecond clock, the directory lister and the version.
#include <stdio.h>
#include <string.h>

#include "base/zyn_darray.h"
#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "base/zyn_report.h"
#include "zyncore.h"

namespace {

constexpr int32_t kPathSize = 1024;  // listed names, with the terminator

double tick_frequency = -1.0;  // ticks per second; negative until the first reading

bool pattern_is_accepted(const char* pattern) {
  return strlen(pattern) >= 3 && (pattern[0] == '*' || pattern[1] == '.');
}

double no_time() {
  zyn_explain("the system's clock cannot be read");
  return -1.0;
}

// False without memory. A string that could not be copied is a null element.
bool push_text(zyn_darray* list, const char* text) {
  if (zyn_darray_push(list, &text) != ZYN_RET_OK) return false;
  return static_cast<uint32_t>(list->type.element_size) != sizeof(char*) ||
         static_cast<char* const*>(list->data)[list->count - 1] != nullptr;
}

// Appends the files among the working directory's matches: 0, 1 when nothing matches, or
// 2 with the list's elements as they were.
int32_t list_matches(zyn_darray* list, const char* directory, const char* pattern) {
  zyn_platform_entry entry;
  zyn_platform_search* search = nullptr;
  if (const int32_t code = zyn_platform_search_open(pattern, &search, &entry)) return code;
  const int64_t before = list->count;
  bool complete = true;
  do {
    // On purpose: only the plain directory attribute is passed over.
    if (entry.attributes == kZynDirectoryAttribute) continue;
    char path[kPathSize];
    const int length = snprintf(path, sizeof(path), "%s/%s", directory, entry.name);
    if (length < 0 || length >= kPathSize) continue;  // a cut name would name another file
    complete = push_text(list, path);
  } while (complete && zyn_platform_search_next(search, &entry));
  zyn_platform_search_close(search);
  if (complete) return ZYN_RET_OK;
  zyn_darray_cut(list, before);
  return ZYN_RET_ERR_MEMORY;
}

}  // namespace

double zyn_get_current_system_time(void) {
  if (tick_frequency < 0) {
    int64_t frequency = 0;
    if (!zyn_platform_tick_frequency(&frequency) || frequency < 1) return no_time();
    tick_frequency = static_cast<double>(frequency);
  }
  int64_t ticks = 0;
  if (!zyn_platform_ticks(&ticks)) return no_time();
  return static_cast<double>(ticks * 1000) / tick_frequency;
}

int32_t zyn_get_specfic_files_for_given_dir(zyn_darray* list, const char* directory,
                                            const char* pattern) {
  if (!list || !directory || !pattern)
    return zyn_refuse_null("the list, the directory or the pattern");
  if (!pattern_is_accepted(pattern))
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "the pattern '%s' is not one of 3 characters or more that begins with * or "
                      "has . as its second",
                      pattern);
  zyn_platform_place place;
  if (!zyn_platform_enter(directory, &place)) {
    zyn_print("chdir %s error\n", directory);
    return zyn_refuse(ZYN_RET_ERR_PARA, "the directory '%s' cannot be entered", directory);
  }
  const int32_t code = list_matches(list, directory, pattern);
  if (code == ZYN_RET_ERR_PARA) {
    zyn_print("no %s file format in the %s!\n", pattern, directory);
    zyn_explain("nothing in '%s' matches '%s'", directory, pattern);
  }
  if (code == ZYN_RET_ERR_MEMORY) zyn_explain("no memory for the names in '%s'", directory);
  zyn_platform_leave(&place);
  return code;
}

uint32_t zyn_version(void) {
  return ZYN_VERSION_MAJOR * 10000 + ZYN_VERSION_MINOR * 100 + ZYN_VERSION_PATCH;
}
