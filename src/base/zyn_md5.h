// The MD5 message digest of RFC 1321, for messages below 2^32 bytes.
#pragma once

#include <stdint.h>

struct zyn_md5_ctx {
  uint32_t bytes;     // length so far
  uint32_t chain[4];  // chaining words
  uint32_t fill;      // bytes waiting in block
  uint8_t block[64];
};

void zyn_md5_start(zyn_md5_ctx* ctx);
void zyn_md5_update(zyn_md5_ctx* ctx, const void* data, int64_t bytes);
// Writes the 16 bytes of the digest; start again before the next message.
void zyn_md5_finish(zyn_md5_ctx* ctx, uint8_t* digest);
