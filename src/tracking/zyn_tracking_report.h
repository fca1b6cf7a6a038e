// Reports of the tracker: its files share one source path.
#pragma once

#include <stdint.h>

#include "base/zyn_report.h"

inline constexpr const char* kZynTrackingPath = "src/tracking/zyn_tracking.cpp";

// Prints the report of a line with the message of a failure code, whatever it is.
inline void zyn_report_code(int32_t line, int32_t code) {
  constexpr int32_t kCodes[] = {1, 2, 4, 8, 16, 32, 64, 128, 256, 257, 258};
  for (uint32_t i = 0; i < sizeof(kCodes) / sizeof(kCodes[0]); i++)
    if (kCodes[i] == code) zyn_report({kZynTrackingPath, line, zyn_error_string[i + 1]});
}
