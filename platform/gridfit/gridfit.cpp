// gridfit_convert: the C entry. The bitmap is opened once and that same open
// file is both the one checked against the cache and the one converted.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "gridfit.h"
#include "gridfit_private.h"
#include "zantrel-base/unique_fd.h"

namespace gridfit {
namespace {

// Stream height at which a scalable image is shown at its own size.
constexpr double kReferenceHeight = 1080.0;

using zantrel::UniqueFd;

// 0 when the side is too large to convert.
int scaled_side(int side, int stream_height) {
  const long long scaled = std::llround(side * (stream_height / kReferenceHeight));
  if (scaled > kMaxSide) {
    return 0;
  }
  return scaled < 1 ? 1 : static_cast<int>(scaled);
}

int convert(char* path, int stream_height, int stream_width) {
  if (path == nullptr || stream_height <= 0) {
    return -1;
  }
  // The buffer's size is all that is known of it: no NUL inside, no path.
  const std::size_t length = strnlen(path, GRIDFIT_PATH_SIZE);
  if (length == 0 || length == GRIDFIT_PATH_SIZE) {
    return -1;
  }
  const UniqueFd dir(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() < 0) {
    return -1;
  }
  const UniqueFd bmp(openat(dir.get(), "bmp", O_RDONLY | O_CLOEXEC));
  struct stat bitmap {};
  if (bmp.get() < 0 || fstat(bmp.get(), &bitmap) != 0 || !S_ISREG(bitmap.st_mode)) {
    return -1;
  }
  const std::optional<CachePlace> place = cache_place(path, stream_width, stream_height);
  if (!place || place->file.size() >= GRIDFIT_PATH_SIZE) {
    return -1;
  }

  if (!cache_fresh(*place, bitmap)) {
    const std::optional<Image> image =
        read_bmp(bmp.get(), static_cast<std::uint64_t>(bitmap.st_size));
    if (!image) {
      return -1;
    }
    const int width = scaled_side(image->width, stream_height);
    const int height = scaled_side(image->height, stream_height);
    if (width == 0 || height == 0 || std::int64_t{width} * height > kMaxPixels) {
      return -1;
    }
    const std::optional<Image> scaled = scale_image(*image, width, height);
    if (!scaled || !cache_store(*place, *scaled, bitmap)) {
      return -1;
    }
  }
  std::memcpy(path, place->file.c_str(), place->file.size() + 1);
  return 0;
}

}  // namespace
}  // namespace gridfit

// The header declares the function without noexcept, so the
// definition cannot say noexcept; the catch keeps exceptions (allocation
// failures) from reaching C callers. The channel and the two reserved
// outputs play no part in a stand-in conversion.
extern "C" GRIDFIT_API int gridfit_convert(char* path, int /*channel*/, int* /*out1*/,
                                           int* /*out2*/, int stream_height, int stream_width) {
  try {
    return gridfit::convert(path, stream_height, stream_width);
  } catch (...) {
    return -1;
  }
}
