// The millisecond clock and the directory lister.
#include <stdio.h>
#include <string.h>

#include "base/zyn_darray.h"
#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "base/zyn_report.h"
#include "zyncore.h"

namespace {

constexpr int32_t kPathSize = 1024;  // working directory and listed names, with the terminator

double tick_frequency = -1.0;  // ticks per second; negative until the first reading

bool pattern_is_accepted(const char* pattern) {
  return strlen(pattern) >= 3 && (pattern[0] == '*' || pattern[1] == '.');
}

// Appends the files among the working directory's matches. False when none matches.
bool list_matches(zyn_darray* list, const char* directory, const char* pattern) {
  zyn_platform_entry entry;
  zyn_platform_search* search = zyn_platform_search_open(pattern, &entry);
  if (!search) return false;
  do {
    // On purpose: only the plain directory attribute is passed over.
    if (entry.attributes == kZynDirectoryAttribute) continue;
    char path[kPathSize];
    const int length = snprintf(path, sizeof(path), "%s/%s", directory, entry.name);
    if (length < 0 || length >= kPathSize) continue;  // a cut name would name another file
    const char* text = path;
    zyn_darray_push(list, &text);
  } while (zyn_platform_search_next(search, &entry));
  zyn_platform_search_close(search);
  return true;
}

}  // namespace

double zyn_get_current_system_time(void) {
  if (tick_frequency < 0) {
    int64_t frequency = 0;
    if (!zyn_platform_tick_frequency(&frequency) || frequency < 1) return -1.0;
    tick_frequency = static_cast<double>(frequency);
  }
  int64_t ticks = 0;
  if (!zyn_platform_ticks(&ticks)) return -1.0;
  return static_cast<double>(ticks * 1000) / tick_frequency;
}

int32_t zyn_get_specfic_files_for_given_dir(zyn_darray* list, const char* directory,
                                            const char* pattern) {
  if (!list || !directory || !pattern || !pattern_is_accepted(pattern)) return ZYN_RET_ERR_PARA;
  char before[kPathSize];
  if (!zyn_platform_get_directory(before, kPathSize) || !zyn_platform_set_directory(directory)) {
    zyn_print("chdir %s error\n", directory);
    return ZYN_RET_ERR_PARA;
  }
  const bool found = list_matches(list, directory, pattern);
  if (!found) zyn_print("no %s file format in the %s!\n", pattern, directory);
  zyn_platform_set_directory(before);
  return found ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}
