#include "platform/image_scaling.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

namespace pallion {

namespace {

using Pixel = std::array<float, 4>;  // red, green, blue times alpha, and alpha; 0 to 255

// The neighbouring source positions that make up one destination position along an axis. The
// weights add up to 1.
struct Span {
  uint32_t first = 0;
  std::vector<float> weights;
};

Span coveredArea(double begin, double end, uint32_t size) {
  Span span;
  span.first = std::min(static_cast<uint32_t>(begin), size - 1);
  const uint32_t last = std::min(static_cast<uint32_t>(std::ceil(end)), size);
  for (uint32_t position = span.first; position < std::max(last, span.first + 1); ++position) {
    const double covered = std::min(end, position + 1.0) - std::max<double>(begin, position);
    span.weights.push_back(static_cast<float>(std::max(covered, 0.0) / (end - begin)));
  }
  return span;
}

Span interpolation(double centre, uint32_t size) {
  Span span;
  const double at = std::clamp(centre, 0.0, size - 1.0);
  span.first = static_cast<uint32_t>(at);
  const double fraction = at - span.first;
  span.weights.push_back(static_cast<float>(1 - fraction));
  if (fraction > 0) span.weights.push_back(static_cast<float>(fraction));
  return span;
}

std::vector<Span> spans(uint32_t from, uint32_t to) {
  const double step = static_cast<double>(from) / to;
  std::vector<Span> result;
  result.reserve(to);
  for (uint32_t position = 0; position < to; ++position) {
    result.push_back(from >= to ? coveredArea(position * step, (position + 1) * step, from)
                                : interpolation((position + 0.5) * step - 0.5, from));
  }
  return result;
}

Pixel premultiplied(const uint8_t* bytes) {
  const float alpha = bytes[3];
  const float factor = alpha / 255;
  return {static_cast<float>(bytes[0]) * factor, static_cast<float>(bytes[1]) * factor,
          static_cast<float>(bytes[2]) * factor, alpha};
}

void store(const Pixel& pixel, uint8_t* bytes) {
  const auto rounded = [](float value) {
    // Of what is not negative the part before the point, without a call for each.
    const float raised = std::clamp(value, 0.0F, 255.0F) + 0.5F;
    return static_cast<uint8_t>(raised);
  };
  const float factor = pixel[3] > 0 ? 255 / pixel[3] : 0;
  for (size_t channel = 0; channel < 3; ++channel)
    bytes[channel] = rounded(pixel[channel] * factor);
  bytes[3] = rounded(pixel[3]);
}

void add(Pixel& sum, const Pixel& pixel, float weight) {
  for (size_t channel = 0; channel < sum.size(); ++channel) sum[channel] += pixel[channel] * weight;
}

}  // namespace

Image scaledImage(const Image& image, uint32_t width, uint32_t height) {
  if (image.width == width && image.height == height) return image;
  // Rows first: every source row at its new width.
  std::vector<Pixel> rows(size_t{image.height} * width);
  const std::vector<Span> columns = spans(image.width, width);
  for (size_t y = 0; y < image.height; ++y) {
    const uint8_t* source = image.pixels.data() + y * image.width * 4;
    for (size_t x = 0; x < width; ++x) {
      const uint8_t* at = source + size_t{columns[x].first} * 4;
      for (const float weight : columns[x].weights) {
        add(rows[y * width + x], premultiplied(at), weight);
        at += 4;
      }
    }
  }
  Image scaled{width, height, std::vector<uint8_t>(size_t{width} * height * 4)};
  const std::vector<Span> lines = spans(image.height, height);
  for (size_t y = 0; y < height; ++y) {
    for (size_t x = 0; x < width; ++x) {
      Pixel sum{};
      size_t at = size_t{lines[y].first} * width + x;
      for (const float weight : lines[y].weights) {
        add(sum, rows[at], weight);
        at += width;
      }
      store(sum, scaled.pixels.data() + (y * width + x) * 4);
    }
  }
  return scaled;
}

}  // namespace pallion
