// Every call to the operating system that differs between systems; one
// implementation file each. Texts are UTF-8.
#pragma once

#include <stdint.h>
#include <stdio.h>

// A monotonic counter and its ticks per second; ticks * 1000 never overflows 64
// bits. False when the system has none.
bool zyn_platform_ticks(int64_t* ticks);
bool zyn_platform_tick_frequency(int64_t* ticks_per_second);

// The calling thread's number within a team of the OpenMP runtime; 0 outside of one.
int32_t zyn_platform_thread_number();

// fopen with a UTF-8 name. mode is "rb" or "wb". Directories are not opened. Null on
// failure.
FILE* zyn_platform_open(const char* path, const char* mode);

// The working directory into a buffer of size bytes, and back. False on failure.
bool zyn_platform_get_directory(char* buffer, int32_t size);
bool zyn_platform_set_directory(const char* path);

// One match of a directory enumeration.
struct zyn_platform_entry {
  char name[1024];
  uint32_t attributes;  // 16 is a plain directory
};
inline constexpr uint32_t kZynDirectoryAttribute = 16;

// Enumerates the working directory's entries that match a pattern (* and ?, case
// ignored), in name order. open returns null when nothing matches, else fills the
// first entry; next returns false at the end; close takes null.
struct zyn_platform_search;
zyn_platform_search* zyn_platform_search_open(const char* pattern, zyn_platform_entry* entry);
bool zyn_platform_search_next(zyn_platform_search* search, zyn_platform_entry* entry);
void zyn_platform_search_close(zyn_platform_search* search);
