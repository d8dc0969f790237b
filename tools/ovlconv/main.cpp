// ovlconv: converts between PNG and the camera's ".ovl" image files.
//   ovlconv to-ovl [--packed [--key LUMA]] IN.png OUT.ovl
//   ovlconv to-png IN.ovl OUT.png
//   ovlconv --help
// Any failure prints one line on stderr, exits with 1 and leaves no output
// file: the output is written to a temporary file beside it and renamed.
#include <cairo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "options.h"
#include "ovl_codec.h"
#include "zantrel-base/cairo_ptr.h"
#include "zantrel-base/io.h"

namespace {

using ovlconv::Error;
using ovlconv::Image;

constexpr uint8_t kDefaultKey = 16;
// cairo's image surfaces are at most this wide and high.
constexpr uint32_t kCairoMaxSide = 32767;

constexpr char kUsage[] =
    "usage: ovlconv to-ovl [--packed [--key LUMA]] IN.png OUT.ovl\n"
    "       ovlconv to-png IN.ovl OUT.png\n"
    "       ovlconv --help\n";

constexpr char kHelp[] =
    "\n"
    "Converts between PNG and the camera's \".ovl\" image files, which\n"
    "overlay_image_create() loads into an image overlay (OVERLAY_FORMAT_YCBCR_ALPHA).\n"
    "\n"
    "to-ovl   writes IN.png as an .ovl file. By default every pixel is kept with its\n"
    "         own alpha (file version '4': B, G, R, A bytes, 4 bytes a pixel), so\n"
    "         soft edges and half-transparent areas stay as they are.\n"
    "  --packed     a smaller file (version '2': luma for every pixel, one Cb/Cr pair\n"
    "               for every two pixels of a row, 2 bytes a pixel) with no alpha: a\n"
    "               pixel whose alpha is below 128 becomes transparent, every other\n"
    "               one opaque. Transparency is a colour key: transparent pixels get\n"
    "               the key luma, and an opaque pixel of that very luma moves one\n"
    "               step away from it, so that it stays visible.\n"
    "  --key LUMA   the key luma of --packed, 0 to 255 (default 16, the black of\n"
    "               studio-range video; choose a luma the picture does not need).\n"
    "to-png   writes any .ovl file (versions '1' to '4') as PNG; key pixels of a\n"
    "         packed file come back fully transparent.\n"
    "\n"
    "A failure prints one line naming the file and the cause, exits with 1 and\n"
    "leaves no output file (the output is written beside it and renamed). Wrong\n"
    "usage exits with 2.\n"
    "\n"
    "Examples:\n"
    "  ovlconv to-ovl logo.png logo.ovl\n"
    "  ovlconv to-ovl --packed --key 235 badge.png badge.ovl\n"
    "  ovlconv to-png logo.ovl check.png\n";

int usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

std::string system_error(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

using Surface = zantrel::CairoSurfacePtr;

std::vector<uint8_t> read_file(const std::string& path) {
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) {
    throw Error(system_error("cannot open", path));
  }
  std::vector<uint8_t> bytes;
  std::array<uint8_t, 65536> chunk{};
  size_t n = 0;
  while ((n = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0) {
    bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + static_cast<ptrdiff_t>(n));
  }
  if (std::ferror(file.get()) != 0) {
    throw Error(system_error("cannot read", path));
  }
  return bytes;
}

// The PNG signature and the size in its IHDR chunk, checked before cairo
// reads the file, so that a file that is no PNG or is too large for an .ovl
// image gets its own message.
void check_png_header(const std::string& path) {
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) {
    throw Error(system_error("cannot open", path));
  }
  std::array<uint8_t, 24> head{};
  static constexpr std::array<uint8_t, 8> kSignature = {0x89, 'P',  'N',  'G',
                                                        '\r', '\n', 0x1A, '\n'};
  if (std::fread(head.data(), 1, head.size(), file.get()) != head.size() ||
      !std::equal(kSignature.begin(), kSignature.end(), head.begin()) ||
      std::memcmp(head.data() + 12, "IHDR", 4) != 0) {
    throw Error(path + " is not a PNG file");
  }
  auto be32 = [&head](size_t at) {
    return uint32_t{head[at]} << 24 | uint32_t{head[at + 1]} << 16 | uint32_t{head[at + 2]} << 8 |
           head[at + 3];
  };
  uint32_t width = be32(16);
  uint32_t height = be32(20);
  if (width > ovlconv::kMaxSide || height > ovlconv::kMaxSide) {
    throw Error(path + " is " + std::to_string(width) + " x " + std::to_string(height) +
                " pixels; an .ovl image holds at most 65535 x 65535");
  }
}

Image read_png(const std::string& path) {
  check_png_header(path);
  Surface png(cairo_image_surface_create_from_png(path.c_str()));
  if (cairo_surface_status(png.get()) != CAIRO_STATUS_SUCCESS) {
    throw Error("cannot read PNG " + path + ": " +
                cairo_status_to_string(cairo_surface_status(png.get())));
  }
  // Whatever cairo made of the file (RGB24, ARGB32, A8), drawn onto ARGB32.
  int width = cairo_image_surface_get_width(png.get());
  int height = cairo_image_surface_get_height(png.get());
  Surface argb(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  {
    zantrel::CairoPtr cr(cairo_create(argb.get()));
    cairo_set_operator(cr.get(), CAIRO_OPERATOR_SOURCE);
    cairo_set_source_surface(cr.get(), png.get(), 0, 0);
    cairo_paint(cr.get());
  }
  cairo_surface_flush(argb.get());
  if (cairo_surface_status(argb.get()) != CAIRO_STATUS_SUCCESS) {
    throw Error("cannot convert " + path + ": " +
                cairo_status_to_string(cairo_surface_status(argb.get())));
  }

  Image image;
  image.width = static_cast<uint32_t>(width);
  image.height = static_cast<uint32_t>(height);
  image.argb.reserve(size_t{image.width} * image.height);
  const unsigned char* data = cairo_image_surface_get_data(argb.get());
  int stride = cairo_image_surface_get_stride(argb.get());
  for (int y = 0; y < height; ++y) {
    const auto* row = reinterpret_cast<const uint32_t*>(data + static_cast<ptrdiff_t>(y) * stride);
    for (int x = 0; x < width; ++x) {
      // cairo premultiplies; the file holds plain colour.
      uint32_t pixel = row[x];
      uint32_t a = pixel >> 24;
      uint32_t plain = 0;
      if (a != 0) {
        plain = a << 24;
        for (int shift : {16, 8, 0}) {
          uint32_t c = (pixel >> shift) & 0xFF;
          plain |= std::min<uint32_t>(255, (c * 255 + a / 2) / a) << shift;
        }
      }
      image.argb.push_back(plain);
    }
  }
  return image;
}

// A file that appears under its name only once it is complete.
class AtomicOutput {
 public:
  explicit AtomicOutput(std::string path) : path_(std::move(path)), temp_(path_ + ".XXXXXX") {
    fd_ = mkstemp(temp_.data());
    if (fd_ < 0) {
      // The file asked for, not the scratch name beside it.
      throw Error(system_error("cannot create", path_));
    }
    // mkstemp makes the file private; give it the mode a plain create would.
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, 0666 & ~mask);
  }
  AtomicOutput(const AtomicOutput&) = delete;
  AtomicOutput& operator=(const AtomicOutput&) = delete;
  ~AtomicOutput() {
    if (fd_ >= 0) {
      close(fd_);
    }
    if (!committed_) {
      unlink(temp_.c_str());
    }
  }

  void write_all(const uint8_t* data, size_t size) {
    if (!zantrel::write_all(fd_, data, size)) {
      throw Error(system_error("cannot write", path_));
    }
  }

  void commit() {
    int rc = close(fd_);
    fd_ = -1;
    if (rc != 0) {
      throw Error(system_error("cannot write", path_));
    }
    if (rename(temp_.c_str(), path_.c_str()) != 0) {
      throw Error(system_error("cannot create", path_));
    }
    committed_ = true;
  }

 private:
  std::string path_;
  std::string temp_;
  int fd_ = -1;
  bool committed_ = false;
};

void write_png(const Image& image, const std::string& path) {
  if (image.width == 0 || image.height == 0) {
    throw Error("the image is empty (" + std::to_string(image.width) + " x " +
                std::to_string(image.height) + ")");
  }
  if (image.width > kCairoMaxSide || image.height > kCairoMaxSide) {
    throw Error("the image is " + std::to_string(image.width) + " x " +
                std::to_string(image.height) + " pixels; PNG output is limited to 32767 x 32767");
  }
  auto width = static_cast<int>(image.width);
  auto height = static_cast<int>(image.height);
  Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  cairo_surface_flush(surface.get());
  unsigned char* data = cairo_image_surface_get_data(surface.get());
  if (data == nullptr) {
    throw Error("out of memory for a " + std::to_string(width) + " x " + std::to_string(height) +
                " picture");
  }
  int stride = cairo_image_surface_get_stride(surface.get());
  for (int y = 0; y < height; ++y) {
    auto* row = reinterpret_cast<uint32_t*>(data + static_cast<ptrdiff_t>(y) * stride);
    for (int x = 0; x < width; ++x) {
      uint32_t pixel = image.argb[static_cast<size_t>(y) * image.width + static_cast<size_t>(x)];
      uint32_t a = pixel >> 24;
      uint32_t premultiplied = a << 24;
      for (int shift : {16, 8, 0}) {
        premultiplied |= ((((pixel >> shift) & 0xFF) * a + 127) / 255) << shift;
      }
      row[x] = premultiplied;
    }
  }
  cairo_surface_mark_dirty(surface.get());

  AtomicOutput output(path);
  auto sink = [](void* closure, const unsigned char* bytes, unsigned int length) {
    try {
      static_cast<AtomicOutput*>(closure)->write_all(bytes, length);
      return CAIRO_STATUS_SUCCESS;
    } catch (const Error&) {
      return CAIRO_STATUS_WRITE_ERROR;
    }
  };
  cairo_status_t status = cairo_surface_write_to_png_stream(surface.get(), sink, &output);
  if (status != CAIRO_STATUS_SUCCESS) {
    throw Error("cannot write " + path + ": " + cairo_status_to_string(status));
  }
  output.commit();
}

void write_ovl(const std::vector<uint8_t>& bytes, const std::string& path) {
  AtomicOutput output(path);
  output.write_all(bytes.data(), bytes.size());
  output.commit();
}

std::optional<uint8_t> parse_luma(std::string_view text) {
  if (text.empty() || text.size() > 3 ||
      text.find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  int value = std::atoi(std::string(text).c_str());
  return value <= 255 ? std::optional<uint8_t>(static_cast<uint8_t>(value)) : std::nullopt;
}

// The shared parser as ovlconv has always read its command line: names in
// full, and "--" no end of the options but a wrong argument. Operands go to
// files; any other mistake is wrong usage, but a refused value is thrown.
bool parse(int argc, char** argv, std::span<const zantrel::tools::Option> options,
           std::vector<std::string>& files) {
  const zantrel::tools::Parsed parsed =
      zantrel::tools::parse_options(argc, argv, options, {.exact = true, .double_dash = false});
  if (parsed.refused) {
    throw Error(parsed.error);
  }
  files.assign(parsed.operands.begin(), parsed.operands.end());
  return static_cast<bool>(parsed);
}

int to_ovl(int argc, char** argv) {
  bool packed = false;
  std::optional<uint8_t> key;
  std::vector<std::string> files;
  const std::array options{
      zantrel::tools::Option{"packed", 0, false,
                             [&packed](const char*) -> std::optional<std::string> {
                               packed = true;
                               return std::nullopt;
                             }},
      zantrel::tools::Option{"key", 0, true,
                             [&key](const char* value) -> std::optional<std::string> {
                               key = parse_luma(value);
                               if (!key) {
                                 return "--key takes a luma value from 0 to 255, not \"" +
                                        std::string(value) + "\"";
                               }
                               return std::nullopt;
                             }},
  };
  if (!parse(argc, argv, options, files) || files.size() != 2) {
    return usage();
  }
  if (key && !packed) {
    throw Error("--key goes with --packed: ARGB files need no key");
  }
  Image image = read_png(files[0]);
  write_ovl(packed ? ovlconv::encode_packed(image, key.value_or(kDefaultKey))
                   : ovlconv::encode_argb(image),
            files[1]);
  return 0;
}

int to_png(int argc, char** argv) {
  std::vector<std::string> files;
  if (!parse(argc, argv, {}, files) || files.size() != 2) {
    return usage();
  }
  const std::string& in = files[0];
  std::vector<uint8_t> bytes = read_file(in);
  Image image;
  try {
    image = ovlconv::decode(bytes);
  } catch (const Error& error) {
    throw Error(in + ": " + error.what());
  }
  write_png(image, files[1]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    return usage();
  }
  std::string_view command = argv[1];
  if (command == "-h" || command == "--help") {
    std::printf("%s%s", kUsage, kHelp);
    return 0;
  }
  try {
    if (command == "to-ovl") {
      return to_ovl(argc - 1, argv + 1);
    }
    if (command == "to-png") {
      return to_png(argc - 1, argv + 1);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ovlconv: %s\n", error.what());
    return 1;
  }
  return usage();
}
