// System calls on POSIX systems, behaving as the Windows ones do: name order,
// patterns without case, "*.*" matching every name.
#if !defined(_WIN32)

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "base/zyn_memory.h"
#include "base/zyn_platform.h"

namespace {

// Microseconds: ticks * 1000 lasts 292 years.
constexpr int64_t kTicksPerSecond = 1000000;

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Wildcard match with one backtracking point: the last star decides.
bool matches(const char* pattern, const char* name) {
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name) {
    if (*pattern == '*') {
      star = pattern++;
      resume = name;
    } else if (*pattern == '?' || lower(*pattern) == lower(*name)) {
      pattern++;
      name++;
    } else if (star) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == '*') pattern++;
  return !*pattern;
}

bool entry_matches(const char* pattern, const char* name) {
  return strcmp(pattern, "*.*") == 0 || matches(pattern, name);
}

int compare_names(const void* a, const void* b) {
  const char* first = *static_cast<char* const*>(a);
  const char* second = *static_cast<char* const*>(b);
  const int without_case = strcasecmp(first, second);
  return without_case ? without_case : strcmp(first, second);
}

}  // namespace

// The matching names, sorted; each a block of its own.
struct zyn_platform_search {
  char** names;
  int64_t count;
  int64_t capacity;
  int64_t position;
};

namespace {

constexpr int64_t kFirstNames = 64;

bool add_name(zyn_platform_search* search, const char* name) {
  if (search->count == search->capacity) {
    // Doubled: with one more at a time the copies would grow with the square of the count.
    const int64_t capacity = search->capacity ? 2 * search->capacity : kFirstNames;
    void* names = zyn_grow(search->names, capacity * static_cast<int64_t>(sizeof(char*)));
    if (!names) return false;
    search->names = static_cast<char**>(names);
    search->capacity = capacity;
  }
  const size_t length = strlen(name) + 1;
  char* copy = static_cast<char*>(zyn_malloc(static_cast<int64_t>(length)));
  if (!copy) return false;
  memcpy(copy, name, length);
  search->names[search->count++] = copy;
  return true;
}

}  // namespace

bool zyn_platform_ticks(int64_t* ticks) {
  timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return false;
  *ticks = static_cast<int64_t>(now.tv_sec) * kTicksPerSecond + now.tv_nsec / 1000;
  return true;
}

bool zyn_platform_tick_frequency(int64_t* ticks_per_second) {
  *ticks_per_second = kTicksPerSecond;
  return true;
}

void zyn_platform_use_large_pages(void* memory, size_t bytes) {
#if defined(MADV_HUGEPAGE)
  madvise(memory, bytes, MADV_HUGEPAGE);
#else
  (void)memory;
  (void)bytes;
#endif
}

FILE* zyn_platform_open(const char* path, const char* mode) {
  struct stat status;
  if (stat(path, &status) == 0 && S_ISDIR(status.st_mode)) return nullptr;
  return fopen(path, mode);
}

int64_t zyn_platform_length(FILE* stream) {
  return fseeko(stream, 0, SEEK_END) == 0 ? static_cast<int64_t>(ftello(stream)) : -1;
}

bool zyn_platform_seek(FILE* stream, int64_t offset) {
  return fseeko(stream, static_cast<off_t>(offset), SEEK_SET) == 0;
}

bool zyn_platform_finish(FILE* stream, const char* path, bool complete) {
  struct stat opened, found;
  const bool regular = fstat(fileno(stream), &opened) == 0 && S_ISREG(opened.st_mode);
  if (fclose(stream) == 0 && complete) return true;
  if (!regular) return false;
  // Behind symbolic links; only if the name still means the file that was written.
  char* name = realpath(path, nullptr);
  if (name && stat(name, &found) == 0 && found.st_dev == opened.st_dev &&
      found.st_ino == opened.st_ino)
    unlink(name);
  free(name);
  return false;
}

bool zyn_platform_enter(const char* path, zyn_platform_place* place) {
#ifdef O_PATH
  constexpr int kHow = O_PATH | O_DIRECTORY | O_CLOEXEC;  // needs no permission to read
#else
  constexpr int kHow = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
#endif
  const int before = open(".", kHow);
  if (before < 0) return false;
  place->before = before;
  if (chdir(path) == 0) return true;
  close(before);
  return false;
}

void zyn_platform_leave(const zyn_platform_place* place) {
  const int before = static_cast<int>(place->before);
  if (fchdir(before) != 0) {
    // Nowhere to go back to: the caller stays where it is.
  }
  close(before);
}

int32_t zyn_platform_search_open(const char* pattern, zyn_platform_search** search,
                                 zyn_platform_entry* entry) {
  auto names = zyn_scratch<zyn_platform_search>::zeroed(1);
  if (!names) return ZYN_RET_ERR_MEMORY;
  DIR* directory = opendir(".");
  if (!directory) return errno == ENOMEM ? ZYN_RET_ERR_MEMORY : ZYN_RET_ERR_PARA;
  bool complete = true;
  while (complete) {
    const dirent* found = readdir(directory);
    if (!found) break;
    if (entry_matches(pattern, found->d_name)) complete = add_name(names.get(), found->d_name);
  }
  closedir(directory);
  zyn_platform_search* result = names.take();
  if (complete && result->count > 0) {
    qsort(result->names, static_cast<size_t>(result->count), sizeof(char*), compare_names);
    zyn_platform_search_next(result, entry);
    *search = result;
    return ZYN_RET_OK;
  }
  zyn_platform_search_close(result);
  return complete ? ZYN_RET_ERR_PARA : ZYN_RET_ERR_MEMORY;
}

bool zyn_platform_search_next(zyn_platform_search* search, zyn_platform_entry* entry) {
  if (search->position >= search->count) return false;
  const char* name = search->names[search->position++];
  snprintf(entry->name, sizeof(entry->name), "%s", name);
  struct stat status;
  const bool directory = stat(name, &status) == 0 && S_ISDIR(status.st_mode);
  entry->attributes = directory ? kZynDirectoryAttribute : 0;
  return true;
}

void zyn_platform_search_close(zyn_platform_search* search) {
  for (int64_t i = 0; i < search->count; i++) zyn_free(search->names[i]);
  zyn_free(search->names);
  zyn_free(search);
}

#endif
