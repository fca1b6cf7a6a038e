// Pictures composed of rendered heads, backgrounds and what cameras do to them.
#ifndef ZYN_RENDER_SCENE_H
#define ZYN_RENDER_SCENE_H

#include <vector>

#include "head.h"

namespace render {

// Red, green, blue from 0 to 255, and who is seen at each pixel (0: nobody).
struct picture {
  int width, height;
  std::vector<float> rgb;
  std::vector<uint8_t> owner;

  picture(int width, int height)
      : width(width),
        height(height),
        rgb(static_cast<size_t>(width * height) * 3),
        owner(static_cast<size_t>(width * height)) {}
  float* at(int x, int y) { return &rgb[static_cast<size_t>(y * width + x) * 3]; }
};

// A rendered head with its alpha, colours multiplied by it.
struct sprite {
  const uint8_t* rgba;
  int size;
};
// Where a sprite goes: picture = scale * sprite + offset, mirrored first if asked; its
// colours times gain, and its last row repeated for so many pixels as a body.
struct placing {
  float scale, x, y;
  bool mirrored;
  vec3 gain;
  int body;
  uint8_t owner;
};

void paint_background(dice& r, picture* out);
void paint_sprite(const sprite& head, const placing& where, picture* out);
// The part of a face's box, in and out of the picture, whose pixels still show this head.
float seen_part(const picture& p, const float (&box)[4], uint8_t owner);
// Something in front of the region x1, y1, x2, y2: a bar, a hand-like shape, a leaf.
void paint_occluder(dice& r, const float (&box)[4], picture* out);
// A thing that resembles a face without being one.
void paint_distractor(dice& r, picture* out);
// Blur, light, colour, noise and compression, each with its own chance.
void spoil(dice& r, picture* out);
void add_noise(dice& r, float amount, picture* out);
// 8 x 8 blocks rounded in the frequency domain; coarse is the step of the lowest frequency.
void compress(float coarse, picture* out);

}  // namespace render

#endif
