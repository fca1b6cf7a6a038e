// Explanations of failures: one line for each thread, which zyn_error_detail hands out.
// Whoever refuses says what was expected and what was found; a report that is printed
// (zyn_report.h) explains itself by its message until something better is said.
#pragma once

#include <stdint.h>

#include "zyncore_net.h"

#if defined(__MINGW32__)
#define ZYN_FORMAT(text, first) __attribute__((__format__(gnu_printf, text, first)))
#else
#define ZYN_FORMAT(text, first) __attribute__((__format__(printf, text, first)))
#endif

// Bytes of an explanation, its zero included; longer ones are cut.
inline constexpr int32_t kZynExplanationBytes = 512;

// Makes the text this thread's explanation.
ZYN_FORMAT(1, 2) void zyn_explain(const char* format, ...);

// The same, and returns code.
ZYN_FORMAT(2, 3) int32_t zyn_refuse(int32_t code, const char* format, ...);

// Refuses an argument that may not be null: "what is null".
int32_t zyn_refuse_null(const char* what);

// Extents for an explanation: "320 x 240 x 3"; "null" for null, "not read" for a count
// that no tensor has.
struct zyn_extents_text {
  char text[80];
  zyn_extents_text(int32_t count, const int32_t* extents);
};

// Puts a text in front of this thread's explanation: where the failure happened, said by
// the caller of what failed.
ZYN_FORMAT(1, 2) void zyn_explain_where(const char* format, ...);

// Tells whether this thread has explained anything since the mark was made: whoever called
// what failed can say something general where nothing better was said.
class zyn_explanation_mark {
 public:
  zyn_explanation_mark();
  bool passed() const;

 private:
  uint64_t count_;
};
