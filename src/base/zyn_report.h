// How the library reports failures: one fixed format on standard output, one site
// record per place that can fail. A site's number identifies it for good; it is
// not a position in the source text.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// Entries of zyn_error_string, by the index that the table gives them.
inline constexpr const char* ZYN_MSG_OK = "Good! Normal return!";
inline constexpr const char* ZYN_MSG_PARA = "Your input params are wrong!";
inline constexpr const char* ZYN_MSG_MEMORY = "Allocating memory failure! ";
inline constexpr const char* ZYN_MSG_NOT_SUPPORT = "Current version can not support!";
inline constexpr const char* ZYN_MSG_OPEN_FILE = "Opening file errors!";
inline constexpr const char* ZYN_MSG_UNINITIALIZED = "Data are uninitialized!";
inline constexpr const char* ZYN_MSG_UNKNOWN = "Unknown error!";
inline constexpr const char* ZYN_MSG_END_OF_FILE = "Arriving the end of the file!";
inline constexpr const char* ZYN_MSG_WAITING = "Data are waiting!";
inline constexpr const char* ZYN_MSG_LENGTH = "Data length is not enough!";
inline constexpr const char* ZYN_MSG_EXISTS = "Data was already exits!";
inline constexpr const char* ZYN_MSG_NOT_FOUND = "Data not found!";
inline constexpr const char* ZYN_MSG_LOCK = "Faled to lock thread";

// Texts that some modules print instead of a table entry.
inline constexpr const char* ZYN_MSG_PARAMETERS = "parameters error!";
inline constexpr const char* ZYN_MSG_OPERATOR_MEMORY = "Allocating memory error!\n";

// A place that can fail. Files begin with the table of theirs: such tables look alike from file to
// file, and say what is printed where, so that they are not worth a common form.
struct zyn_site {
  const char* path;     // source path, as reports name it
  int32_t line;         // the site's own number
  const char* message;  // what it says
};

// Formatted output to standard output, as it stands: no prefix, no newline.
#if defined(__MINGW32__)
__attribute__((format(gnu_printf, 1, 2)))
#else
__attribute__((format(printf, 1, 2)))
#endif
void zyn_print(const char* format, ...);

// While one exists, nothing that this thread does is printed.
class zyn_quiet {
 public:
  zyn_quiet();
  ~zyn_quiet();
  zyn_quiet(const zyn_quiet&) = delete;
  zyn_quiet& operator=(const zyn_quiet&) = delete;
};

// Prints the report of a site.
void zyn_report(const zyn_site& site);

// Prints the report of a site and refuses an argument that is null: "what is null".
int32_t zyn_fail_null(const zyn_site& site, const char* what);

// Prints the report of a site and returns code; message and code need not match.
inline int32_t zyn_fail(const zyn_site& site, int32_t code) {
  zyn_report(site);
  return code;
}
