// Fuzzes gridfit's bitmap reader and the scaling behind it. Whatever a file
// holds, the reader either refuses it or returns an image whose pixel count
// matches its size, within the reader's limits; under the sanitizers it never
// reads outside the file. A read image is then scaled to a small size taken
// from the file's last byte, as a stream of any size would ask.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "gridfit_private.h"

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "bitmap_reader_fuzz: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A memory file: the reader takes a descriptor and the file's size.
  int fd = memfd_create("bitmap", MFD_CLOEXEC);
  if (fd < 0 || (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size))) {
    fail("cannot write the input file");
  }
  std::optional<gridfit::Image> image = gridfit::read_bmp(fd, size);
  // A file that claims more bytes than it has is refused, not read short.
  if (!image && gridfit::read_bmp(fd, size + 4096)) {
    fail("a longer claimed size made a refused file readable");
  }
  close(fd);
  if (!image) {
    return 0;
  }
  if (image->width <= 0 || image->height <= 0 || image->width > gridfit::kMaxSide ||
      image->height > gridfit::kMaxSide ||
      std::int64_t{image->width} * image->height > gridfit::kMaxPixels ||
      image->argb.size() != static_cast<std::size_t>(image->width) * image->height) {
    fail("an accepted bitmap has a size outside the reader's limits");
  }
  // The pixel rows alone take width * height * 3 bytes or more.
  if (static_cast<std::uint64_t>(image->width) * image->height * 3 > size) {
    fail("an accepted bitmap has more pixels than the file has bytes");
  }
  const int width = 1 + data[size - 1] % 17;
  const int height = 1 + data[size - 1] / 17 % 13;
  std::optional<gridfit::Image> scaled = gridfit::scale_image(*image, width, height);
  if (!scaled || scaled->width != width || scaled->height != height ||
      scaled->argb.size() != static_cast<std::size_t>(width) * height) {
    fail("an accepted bitmap does not scale");
  }
  return 0;
}
