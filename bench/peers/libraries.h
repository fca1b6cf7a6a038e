// oneDNN and XNNPACK, set up for one thread and the chosen instruction set.
#pragma once
#include <cpuinfo.h>
#include <xnnpack.h>

#include <oneapi/dnnl/dnnl.hpp>
#include <opencv2/core.hpp>

#include "common.h"

namespace peers {

inline dnnl::engine& eng() {
  static dnnl::engine e(dnnl::engine::kind::cpu, 0);
  return e;
}
inline dnnl::stream& str() {
  static dnnl::stream s(eng());
  return s;
}

using tag = dnnl::memory::format_tag;
using dt = dnnl::memory::data_type;

// XNNPACK asks cpuinfo, which knows no limit.
inline bool start_libraries(Isa isa) {
  cv::setNumThreads(1);
  cpuinfo_initialize();
  if (isa == kAvx2) {
    cpuinfo_isa.avx512f = cpuinfo_isa.avx512bw = cpuinfo_isa.avx512dq = false;
    cpuinfo_isa.avx512vl = cpuinfo_isa.avx512cd = cpuinfo_isa.avx512vnni = false;
  }
  if (xnn_initialize(nullptr) == xnn_status_success) return true;
  fprintf(stderr, "xnn_initialize failed\n");
  return false;
}

inline void print_libraries(Isa isa) {
  printf("isa %s: oneDNN %s, XNNPACK %s, OpenCV avx2=%d avx512=%d", isa_name(isa),
         dnnl::get_effective_cpu_isa() == dnnl::cpu_isa::avx2 ? "avx2" : "uncapped",
         cpuinfo_has_x86_avx512f() ? "avx512f"
         : cpuinfo_has_x86_fma3()  ? "avx2+fma3"
                                   : "sse",
         cv::checkHardwareSupport(CV_CPU_AVX2), cv::checkHardwareSupport(CV_CPU_AVX512_SKX));
}

// "0,1,-1" as numbers.
inline std::vector<int> numbers(const std::string& list) {
  std::vector<int> values;
  std::istringstream s(list);
  for (std::string m; std::getline(s, m, ',');) values.push_back(atoi(m.c_str()));
  return values;
}

}  // namespace peers
