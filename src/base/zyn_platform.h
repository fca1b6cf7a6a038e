// Every call to the operating system that differs between systems; one
// implementation file each. Texts are UTF-8, except where a function says otherwise.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// A monotonic counter and its ticks per second; ticks * 1000 never overflows 64
// bits. False when the system has none.
bool zyn_platform_ticks(int64_t* ticks);
bool zyn_platform_tick_frequency(int64_t* ticks_per_second);

// Asks for large pages under fresh memory, of which the system may have none.
void zyn_platform_use_large_pages(void* memory, size_t bytes);

// The calling thread's number within a team of the OpenMP runtime; 0 outside of one.
int32_t zyn_platform_thread_number();

// fopen with a UTF-8 name. mode is "rb" or "wb". Directories are not opened. Null on
// failure.
FILE* zyn_platform_open(const char* path, const char* mode);

// A stream's length, -1 where it has none (pipes); and a jump to a byte of it. Both in
// 64 bits on every system.
int64_t zyn_platform_length(FILE* stream);
bool zyn_platform_seek(FILE* stream, int64_t offset);

// Closes a stream of zyn_platform_open(path, "wb"). False when that fails or complete is
// false: the file is removed then, unless it is a device or a pipe.
bool zyn_platform_finish(FILE* stream, const char* path, bool complete);

// Goes into a directory (named in the system's own encoding) and remembers the working
// directory, however long its name; leave goes back and forgets it. False, with nothing
// changed, on failure.
struct zyn_platform_place {
  intptr_t before;
};
bool zyn_platform_enter(const char* path, zyn_platform_place* place);
void zyn_platform_leave(const zyn_platform_place* place);

// One match of a directory enumeration; the name is in the system's own encoding.
struct zyn_platform_entry {
  char name[1024];
  uint32_t attributes;  // 16 is a plain directory
};
inline constexpr uint32_t kZynDirectoryAttribute = 16;

// Enumerates the working directory's entries that match a pattern (* and ?, case
// ignored), in name order. open gives 0 and the first entry, 1 when nothing matches, 2
// without memory; next returns false at the end. Only an opened search is closed.
struct zyn_platform_search;
int32_t zyn_platform_search_open(const char* pattern, zyn_platform_search** search,
                                 zyn_platform_entry* entry);
bool zyn_platform_search_next(zyn_platform_search* search, zyn_platform_entry* entry);
void zyn_platform_search_close(zyn_platform_search* search);
