// Converted files live in a private directory under the temporary directory,
// one per image directory and stream size, so every stream of the same size
// shares one conversion and the image directory itself is never written.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gridfit_private.h"
#include "zantrel-base/io.h"
#include "zantrel-base/unique_fd.h"

namespace gridfit {
namespace {

constexpr std::size_t kOvlHeaderSize = 78;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// The temporary file goes away unless it was renamed into place.
class TempFile {
 public:
  explicit TempFile(std::string pattern) : path_(std::move(pattern)) {
    fd_ = mkostemp(path_.data(), O_CLOEXEC);
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    if (fd_ >= 0) {
      close(fd_);
    }
    if (fd_ >= 0 && !kept_) {
      unlink(path_.c_str());
    }
  }
  int fd() const { return fd_; }
  bool rename_to(const std::string& target) {
    kept_ = rename(path_.c_str(), target.c_str()) == 0;
    return kept_;
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool kept_ = false;
};

// Names are short and fixed in length whatever the image directory's path.
std::uint64_t fnv1a(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : text) {
    hash = (hash ^ c) * 0x100000001b3ULL;
  }
  return hash;
}

// What changes with the bitmap file, whichever way it was replaced: written in
// place (size, modification and change times), or another file moved or
// copied over it with an older modification time (inode, change time). It is
// kept in header bytes 12 on, which loaders do not read.
constexpr std::size_t kKeyOffset = 12;
using Key = std::array<std::uint64_t, 7>;

Key key_of(const struct stat& bitmap) {
  return {static_cast<std::uint64_t>(bitmap.st_dev),
          static_cast<std::uint64_t>(bitmap.st_ino),
          static_cast<std::uint64_t>(bitmap.st_size),
          static_cast<std::uint64_t>(bitmap.st_mtim.tv_sec),
          static_cast<std::uint64_t>(bitmap.st_mtim.tv_nsec),
          static_cast<std::uint64_t>(bitmap.st_ctim.tv_sec),
          static_cast<std::uint64_t>(bitmap.st_ctim.tv_nsec)};
}

std::array<std::uint8_t, sizeof(Key)> key_bytes(const struct stat& bitmap) {
  std::array<std::uint8_t, sizeof(Key)> bytes{};
  std::size_t pos = 0;
  for (std::uint64_t word : key_of(bitmap)) {
    for (int i = 0; i < 8; ++i) bytes[pos++] = static_cast<std::uint8_t>(word >> (8 * i));
  }
  return bytes;
}
static_assert(kKeyOffset + sizeof(Key) <= kOvlHeaderSize);

std::vector<std::uint8_t> encode_ovl(const Image& image, const struct stat& bitmap) {
  std::vector<std::uint8_t> bytes(kOvlHeaderSize + image.argb.size() * 4);
  bytes[0] = 'o';
  bytes[1] = 'g';
  bytes[2] = '4';
  bytes[5] = 16;
  bytes[6] = static_cast<std::uint8_t>(image.width);
  bytes[7] = static_cast<std::uint8_t>(image.width >> 8);
  bytes[8] = static_cast<std::uint8_t>(image.height);
  bytes[9] = static_cast<std::uint8_t>(image.height >> 8);
  const auto key = key_bytes(bitmap);
  std::copy(key.begin(), key.end(), bytes.begin() + kKeyOffset);
  std::size_t pos = kOvlHeaderSize;
  for (std::uint32_t px : image.argb) {
    bytes[pos++] = static_cast<std::uint8_t>(px);
    bytes[pos++] = static_cast<std::uint8_t>(px >> 8);
    bytes[pos++] = static_cast<std::uint8_t>(px >> 16);
    bytes[pos++] = static_cast<std::uint8_t>(px >> 24);
  }
  return bytes;
}

bool write_all(int fd, const std::vector<std::uint8_t>& bytes) {
  return zantrel::write_all(fd, bytes.data(), bytes.size());
}

// Files in the directory are trusted as our own conversions, so it must be
// ours and writable by nobody else.
bool make_private_dir(const std::string& dir) {
  if (mkdir(dir.c_str(), 0700) == 0) {
    return true;
  }
  struct stat st {};
  return errno == EEXIST && lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
         st.st_uid == geteuid() && (st.st_mode & 022) == 0;
}

}  // namespace

std::optional<CachePlace> cache_place(const char* image_dir, int stream_width, int stream_height) {
  std::unique_ptr<char, FreeDeleter> real(realpath(image_dir, nullptr));
  if (!real) {
    return std::nullopt;
  }
  const char* tmp = std::getenv("TMPDIR");
  CachePlace place;
  place.dir = std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/gridfit-" +
              std::to_string(geteuid());
  std::array<char, 64> name{};
  std::snprintf(name.data(), name.size(), "/%016llx-%dx%d.ovl",
                static_cast<unsigned long long>(fnv1a(real.get())), stream_width, stream_height);
  place.file = place.dir + name.data();
  return place;
}

bool cache_fresh(const CachePlace& place, const struct stat& bitmap) {
  const zantrel::UniqueFd fd(open(place.file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) {
    return false;
  }
  std::array<std::uint8_t, kOvlHeaderSize> header{};
  struct stat st {};
  const bool whole = fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) &&
                     zantrel::pread_exactly(fd.get(), header.data(), header.size(), 0);
  const auto key = key_bytes(bitmap);
  return whole && std::equal(key.begin(), key.end(), header.begin() + kKeyOffset);
}

bool cache_store(const CachePlace& place, const Image& image, const struct stat& bitmap) {
  if (!make_private_dir(place.dir)) {
    return false;
  }
  // The key is that of the bitmap as it was opened: one rewritten while this
  // conversion ran no longer matches, and is converted again on the next call.
  TempFile temp(place.file + ".XXXXXX");
  return temp.fd() >= 0 && write_all(temp.fd(), encode_ovl(image, bitmap)) &&
         temp.rename_to(place.file);
}

}  // namespace gridfit
