// Hostile network files: any bytes behind a frame that fits them. A file is refused with an
// explanation, or it runs, twice with one result; what loading asks for grows with the file
// and the limit alone.
#include <math.h>

#include <vector>

#include "base/zyn_md5.h"
#include "net/zyn_net_file.h"
#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;
using Bytes = std::vector<uint8_t>;

constexpr int64_t kLimit = 1 << 18;  // bytes of all outputs

// Gives the bytes a frame, unless they are to stay as they are, and always the digest.
Bytes framed(const uint8_t* data, size_t size, bool mend) {
  Bytes file(data, data + size);
  file.resize(size + kZynFileDigestBytes);
  if (mend && size >= sizeof(zyn_file_frame)) {
    zyn_file_frame frame;
    memcpy(&frame, file.data(), sizeof(frame));
    memcpy(frame.magic, kZynFileMagic, sizeof(frame.magic));
    frame.byte_order = kZynFileByteOrder;
    frame.version = kZynFileVersion;
    frame.size = file.size();
    memcpy(file.data(), &frame, sizeof(frame));
  }
  zyn_md5_ctx md5;
  zyn_md5_start(&md5);
  zyn_md5_update(&md5, file.data(), static_cast<int64_t>(size));
  zyn_md5_finish(&md5, file.data() + size);
  return file;
}

Bytes outputs_of(zyn_net* net) {
  Bytes all;
  const zyn_net_description* d = zyn_net_describe(net);
  for (int32_t i = 0; i < d->input_count; i++) {
    zyn_tensor* in = zyn_net_input(net, d->inputs[i].name);
    memset(in->data, 0x3E, static_cast<size_t>(in->byte_size));
  }
  const int32_t code = zyn_net_run(net);
  check(code == 0 || *zyn_error_detail(), "a run that fails says why");
  for (int32_t i = 0; code == 0 && i < d->output_count; i++) {
    const zyn_tensor* out = zyn_net_output(net, d->outputs[i].name);
    check(out && out->data, "a network that ran has its outputs");
    const auto* bytes = static_cast<const uint8_t*>(out->data);
    all.insert(all.end(), bytes, bytes + out->byte_size);
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t setup = data[size - 1];
  zyn_fuzz::Memory memory((setup & 3) == 3, 64 * (static_cast<int64_t>(size) + kLimit));
  zyn_net_options options = ZYN_NET_DEFAULTS;
  options.method = (setup >> 2) % 4 - 1;
  options.fixed_point = setup >> 4 & 1;
  options.keep_all = setup >> 5 & 1;
  options.memory_limit = kLimit;
  const Bytes file = framed(data, size - 1, (setup & 64) == 0);
  if (setup & 128) zyn_fuzz::Memory::fail(1 + size % 61, (setup & 1) != 0);
  zyn_net* net = zyn_net_load_memory(file.data(), static_cast<int64_t>(file.size()), &options);
  zyn_fuzz::Memory::fail(0, false);
  check(net || *zyn_error_detail(), "a refusal is explained");
  if (net) {
    const Bytes first = outputs_of(net);
    check(first == outputs_of(net), "a second run gives the same");
    zyn_net_release(&net);
  }
  zyn_fuzz::Memory::hand_back(sizeof(zyn_tensor));
  return 0;
}
