// MD5 as RFC 1321 lists it, fully unrolled; whole blocks are read where they lie.
#include "base/zyn_md5.h"

#include <string.h>

#include <utility>

namespace {

constexpr uint32_t kBlock = 64;
constexpr uint32_t kLengthAt = 56;  // the length's place in the last block

// floor(2^32 |sin(i + 1)|).
constexpr uint32_t kSines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391};
constexpr int kRotations[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

uint32_t rotate(uint32_t value, int bits) { return value << bits | value >> (32 - bits); }

// The function and the message word of a step, by its round.
template <int Round>
uint32_t mix(uint32_t b, uint32_t c, uint32_t d) {
  if constexpr (Round == 0) return d ^ (b & (c ^ d));
  // The two halves share no bit: a sum like an or, but its first term is ready before b.
  if constexpr (Round == 1) return (c & ~d) + (b & d);
  if constexpr (Round == 2) return b ^ c ^ d;
  return c ^ (b | ~d);
}

constexpr int word_of(int round, int i) {
  return (round == 0 ? i : round == 1 ? 5 * i + 1 : round == 2 ? 3 * i + 5 : 7 * i) & 15;
}

// Step I of a round. The words a, b, c, d change places from step to step.
template <int Round, int I>
void step(uint32_t state[4], const uint32_t words[16]) {
  uint32_t& a = state[-I & 3];
  const uint32_t b = state[(1 - I) & 3], c = state[(2 - I) & 3], d = state[(3 - I) & 3];
  const uint32_t sum =
      a + (kSines[16 * Round + I] + words[word_of(Round, I)]) + mix<Round>(b, c, d);
  a = b + rotate(sum, kRotations[Round][I & 3]);
}

template <int Round, int... I>
void steps(uint32_t state[4], const uint32_t words[16], std::integer_sequence<int, I...>) {
  (step<Round, I>(state, words), ...);
}

void compress(uint32_t chain[4], const uint8_t* block) {
  uint32_t words[16];
  memcpy(words, block, sizeof(words));  // little-endian on both sides
  constexpr std::make_integer_sequence<int, 16> kSixteen;
  uint32_t state[4] = {chain[0], chain[1], chain[2], chain[3]};
  steps<0>(state, words, kSixteen);
  steps<1>(state, words, kSixteen);
  steps<2>(state, words, kSixteen);
  steps<3>(state, words, kSixteen);
  for (int i = 0; i < 4; i++) chain[i] += state[i];
}

}  // namespace

void zyn_md5_start(zyn_md5_ctx* ctx) {
  *ctx = {0, {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u}, 0, {}};
}

void zyn_md5_update(zyn_md5_ctx* ctx, const void* data, int64_t bytes) {
  const auto* in = static_cast<const uint8_t*>(data);
  ctx->bytes += static_cast<uint32_t>(bytes);
  while (bytes > 0) {
    if (ctx->fill == 0 && bytes >= kBlock) {
      compress(ctx->chain, in);
      in += kBlock;
      bytes -= kBlock;
      continue;
    }
    const int64_t room = kBlock - ctx->fill;
    const int64_t taken = bytes < room ? bytes : room;
    memcpy(ctx->block + ctx->fill, in, static_cast<size_t>(taken));
    ctx->fill += static_cast<uint32_t>(taken);
    in += taken;
    bytes -= taken;
    if (ctx->fill == kBlock) {
      compress(ctx->chain, ctx->block);
      ctx->fill = 0;
    }
  }
}

void zyn_md5_finish(zyn_md5_ctx* ctx, uint8_t* digest) {
  const uint64_t bits = static_cast<uint64_t>(ctx->bytes) * 8;
  ctx->block[ctx->fill++] = 0x80;
  if (ctx->fill > kLengthAt) {
    memset(ctx->block + ctx->fill, 0, kBlock - ctx->fill);
    compress(ctx->chain, ctx->block);
    ctx->fill = 0;
  }
  memset(ctx->block + ctx->fill, 0, kLengthAt - ctx->fill);
  memcpy(ctx->block + kLengthAt, &bits, sizeof(bits));
  compress(ctx->chain, ctx->block);
  memcpy(digest, ctx->chain, sizeof(ctx->chain));
}
