// What zyn_cg_check has to say of a graph before it is prepared: everything at once, where
// preparation stops at the first failure.
#pragma once

#include <stdio.h>
#include <zyncore_net.h>

// Prints all findings to the standard error; whether there is no error among them.
inline bool check_graph(const zyn_cg_handle* graph) {
  zyn_cg_report* report = nullptr;
  if (zyn_cg_check(graph, &report) != ZYN_RET_OK) {
    fprintf(stderr, "%s\n", zyn_error_detail());
    return false;
  }
  const bool sound = report->errors == 0;
  for (int32_t i = 0; i < report->errors + report->warnings; i++)
    fprintf(stderr, "%s: %s\n",
            report->findings[i].severity == ZYN_CHECK_ERROR ? "error" : "warning",
            report->findings[i].text);
  zyn_release_cg_report(&report);
  return sound;
}
