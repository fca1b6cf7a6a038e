// System calls on Windows.
#if defined(_WIN32)

#define WIN32_LEAN_AND_MEAN
#include <direct.h>
#include <errno.h>
#include <io.h>
#include <stdlib.h>
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

// They need a right that few accounts have.
void zyn_platform_use_large_pages(void*, size_t) {}

FILE* zyn_platform_open(const char* path, const char* mode) {
  wchar_t wide[kWidePath];
  if (!widen(path, wide)) return nullptr;
  wchar_t wide_mode[4] = {};
  for (int i = 0; i < 3 && mode[i]; i++) wide_mode[i] = static_cast<wchar_t>(mode[i]);
  return _wfopen(wide, wide_mode);
}

int64_t zyn_platform_length(FILE* stream) {
  return _fseeki64(stream, 0, SEEK_END) == 0 ? _ftelli64(stream) : -1;
}

bool zyn_platform_seek(FILE* stream, int64_t offset) {
  return _fseeki64(stream, offset, SEEK_SET) == 0;
}

bool zyn_platform_finish(FILE* stream, const char* path, bool complete) {
  const auto file = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
  const bool regular = GetFileType(file) == FILE_TYPE_DISK;
  if (fclose(stream) == 0 && complete) return true;
  wchar_t wide[kWidePath];
  if (regular && widen(path, wide)) _wremove(wide);
  return false;
}

bool zyn_platform_enter(const char* path, zyn_platform_place* place) {
  wchar_t* before = _wgetcwd(nullptr, 0);
  if (!before) return false;
  place->before = reinterpret_cast<intptr_t>(before);
  if (_chdir(path) == 0) return true;
  free(before);
  return false;
}

void zyn_platform_leave(const zyn_platform_place* place) {
  auto* before = reinterpret_cast<wchar_t*>(place->before);
  _wchdir(before);
  free(before);
}

namespace {

void take_entry(const _finddata64i32_t& found, zyn_platform_entry* entry) {
  snprintf(entry->name, sizeof(entry->name), "%s", found.name);
  entry->attributes = found.attrib;
}

}  // namespace

int32_t zyn_platform_search_open(const char* pattern, zyn_platform_search** search,
                                 zyn_platform_entry* entry) {
  zyn_scratch<zyn_platform_search> opened(1);
  if (!opened) return ZYN_RET_ERR_MEMORY;
  _finddata64i32_t found;
  opened->handle = _findfirst64i32(pattern, &found);
  if (opened->handle == -1) return errno == ENOMEM ? ZYN_RET_ERR_MEMORY : ZYN_RET_ERR_PARA;
  take_entry(found, entry);
  *search = opened.take();
  return ZYN_RET_OK;
}

bool zyn_platform_search_next(zyn_platform_search* search, zyn_platform_entry* entry) {
  _finddata64i32_t found;
  if (_findnext64i32(search->handle, &found) != 0) return false;
  take_entry(found, entry);
  return true;
}

void zyn_platform_search_close(zyn_platform_search* search) {
  _findclose(search->handle);
  zyn_free(search);
}

#endif
