// System calls on Windows.
#if defined(_WIN32)

#define WIN32_LEAN_AND_MEAN
#include <direct.h>
#include <io.h>
#include <string.h>
#include <wchar.h>
#include <windows.h>

#include "base/zyn_memory.h"
#include "base/zyn_platform.h"

namespace {

constexpr int kWidePath = 16384;  // longest path, in UTF-16 units with the terminator

// UTF-8 to UTF-16 into a buffer of kWidePath units. False when it does not fit or
// is not UTF-8.
bool widen(const char* text, wchar_t* wide) {
  const int units = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0);
  if (units < 1 || units > kWidePath) return false;
  zyn_scratch<wchar_t> converted(units);
  if (!converted) return false;
  if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, converted.get(), units) != units)
    return false;
  wmemcpy(wide, converted.get(), static_cast<size_t>(units));
  return true;
}

}  // namespace

struct zyn_platform_search {
  intptr_t handle;
};

bool zyn_platform_ticks(int64_t* ticks) {
  LARGE_INTEGER value;
  if (!QueryPerformanceCounter(&value)) return false;
  *ticks = value.QuadPart;
  return true;
}

bool zyn_platform_tick_frequency(int64_t* ticks_per_second) {
  LARGE_INTEGER value;
  if (!QueryPerformanceFrequency(&value)) return false;
  *ticks_per_second = value.QuadPart;
  return true;
}

FILE* zyn_platform_open(const char* path, const char* mode) {
  wchar_t wide[kWidePath];
  if (!widen(path, wide)) return nullptr;
  wchar_t wide_mode[4] = {};
  for (int i = 0; i < 3 && mode[i]; i++) wide_mode[i] = static_cast<wchar_t>(mode[i]);
  return _wfopen(wide, wide_mode);
}

bool zyn_platform_get_directory(char* buffer, int32_t size) {
  return _getcwd(buffer, size) != nullptr;
}

bool zyn_platform_set_directory(const char* path) { return _chdir(path) == 0; }

namespace {

void take_entry(const _finddata64i32_t& found, zyn_platform_entry* entry) {
  snprintf(entry->name, sizeof(entry->name), "%s", found.name);
  entry->attributes = found.attrib;
}

}  // namespace

zyn_platform_search* zyn_platform_search_open(const char* pattern, zyn_platform_entry* entry) {
  zyn_scratch<zyn_platform_search> search(1);
  if (!search) return nullptr;
  _finddata64i32_t found;
  search->handle = _findfirst64i32(pattern, &found);
  if (search->handle == -1) return nullptr;
  take_entry(found, entry);
  return search.take();
}

bool zyn_platform_search_next(zyn_platform_search* search, zyn_platform_entry* entry) {
  _finddata64i32_t found;
  if (_findnext64i32(search->handle, &found) != 0) return false;
  take_entry(found, entry);
  return true;
}

void zyn_platform_search_close(zyn_platform_search* search) {
  if (!search) return;
  _findclose(search->handle);
  zyn_free(search);
}

#endif
