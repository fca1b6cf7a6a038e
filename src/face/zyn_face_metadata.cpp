// Numbers in metadata. They are read by hand: strtod obeys the host's locale.
#include "face/zyn_face_metadata.h"

#include "base/zyn_explain.h"

namespace {

constexpr int32_t kMostDigits = 9;  // of a number before its point, and behind it

bool is_digit(char c) { return c >= '0' && c <= '9'; }

void skip_blanks(const char** at) {
  while (**at == ' ') ++*at;
}

// One number at *at with blanks around it; false where there is none.
bool read_number(const char** at, float* value) {
  skip_blanks(at);
  double number = 0, unit = 1;
  int32_t digits = 0;
  for (; is_digit(**at); ++*at, digits++) number = 10 * number + (**at - '0');
  if (digits < 1 || digits > kMostDigits) return false;
  if (**at == '.') {
    ++*at;
    for (digits = 0; is_digit(**at); ++*at, digits++) number += (unit *= 0.1) * (**at - '0');
    if (digits > kMostDigits) return false;
  }
  skip_blanks(at);
  *value = static_cast<float>(number);
  return true;
}

bool read_index(const char** at, int32_t limit, int32_t* index) {
  skip_blanks(at);
  int32_t number = 0;
  bool any = false;
  for (; is_digit(**at); ++*at, any = true)
    if (number < limit) number = 10 * number + (**at - '0');
  skip_blanks(at);
  *index = number;
  return any && number < limit;
}

int32_t malformed(const char* key, const char* value, const char* expected) {
  return zyn_refuse(ZYN_RET_ERR_PARA, "metadata %s = '%s': %s are expected", key, value, expected);
}

}  // namespace

int32_t zyn_read_numbers(const zyn_net* net, const char* key, zyn_number_groups* groups) {
  const char* value = zyn_net_metadata(net, key);
  if (!value) return zyn_refuse(ZYN_RET_ERR_PARA, "metadata %s are missing", key);
  *groups = {};
  for (const char* at = value;; at++) {
    if (groups->groups == kZynMostGroups)
      return malformed(key, value, "at most 8 groups by semicolons");
    const int32_t group = groups->groups++;
    for (;; at++) {
      int32_t* count = &groups->counts[group];
      if (*count == kZynMostNumbers || !read_number(&at, &groups->numbers[group][*count]))
        return malformed(key, value, "at most 8 numbers by commas");
      ++*count;
      if (*at != ',') break;
    }
    if (!*at) return ZYN_RET_OK;
    if (*at != ';') return malformed(key, value, "numbers by commas, groups by semicolons");
  }
}

int32_t zyn_read_points(const zyn_net* net, const char* key, int32_t limit, int16_t* index,
                        int32_t room, int32_t* count) {
  const char* value = zyn_net_metadata(net, key);
  *count = 0;
  for (const char* at = value; value; at++) {
    int32_t first = 0, last = 0;
    if (!read_index(&at, limit, &first)) break;
    last = first;
    if (*at == '-' && (at++, !read_index(&at, limit, &last))) break;
    if (last < first || *count + last - first >= room) break;
    for (int32_t i = first; i <= last; i++) index[(*count)++] = static_cast<int16_t>(i);
    if (!*at) return ZYN_RET_OK;
    if (*at != ',') break;
  }
  return value ? malformed(key, value, "points of the network, as in 36-41 or 48,54") : ZYN_RET_OK;
}
