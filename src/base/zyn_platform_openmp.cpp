// The one call to the OpenMP runtime, the same on every system. Declared by hand: the
// header comes with a compiler option that the library is built without.
#include "base/zyn_platform.h"

extern "C" int omp_get_thread_num(void);

int32_t zyn_platform_thread_number() { return omp_get_thread_num(); }
