#pragma once

#include "platform/icon.h"

namespace pallion {

// The image at another size; sides are at least 1. Along an axis that shrinks, each pixel is the
// average of the area that it covers; along one that grows, pixels are interpolated linearly.
// Colours count by their alpha, so that what is transparent lends its surroundings no colour.
Image scaledImage(const Image& image, uint32_t width, uint32_t height);

}  // namespace pallion
