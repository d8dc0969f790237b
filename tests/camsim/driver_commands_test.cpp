// Every command through real open/ioctl calls, the buffer ring and composition.
#include <cairo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "camsim_test_util.h"

extern "C" int __open_2(const char*, int);  // the fortified open

namespace camsim_test {
namespace {

int fd;  // each DriverCommands test runs on a reset driver holding `made`
internal_overlay made;

class DriverCommands : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    fd = node_.emplace().fd;
    made = record(4, 64, 32, 2);
    made.coord_type = OVERLAY_COORDS_NORMALIZED;
    ASSERT_EQ(command(fd, CAM_IOC_CREATE_OVERLAY, &made), 0);
  }
  std::optional<Node> node_;
};

// A command's result, named, against the one it must give.
void expect(const char* what, long want, long got) { EXPECT_EQ(got, want) << what; }

// Creates `made` changed; a refused create leaves nothing.
long create_as(const std::function<void(internal_overlay&)>& change) {
  internal_overlay r = made;
  change(r);
  const int before = camsim_live_count(), rc = command(fd, CAM_IOC_CREATE_OVERLAY, &r);
  return rc < 0 && camsim_live_count() != before ? 1 : rc;
}
template <typename F, typename V>
long create_with(F internal_overlay::*field, V value) {
  return create_as([&](internal_overlay& r) { r.*field = value; });
}

// The buffer size of a new overlay, which get must give back as created.
long size_of(int type, u32 w, u32 h) {
  internal_overlay r = record(type, w, h), got{};
  got.id = command(fd, CAM_IOC_CREATE_OVERLAY, &r) == 0 ? r.id : 0;
  command(fd, CAM_IOC_GET_OVERLAY, &got);
  return std::memcmp(&got, &r, sizeof r) == 0 ? r.buffer_size : -1;
}

long source(u32 op, u32 id) {
  cam_source_params p{op, id, {}};
  return command(fd, CAM_IOC_SOURCE_PARAMS, &p);
}

std::int64_t max_width(const char* path, u32 key, bool fortified = false) {
  const int node = fortified ? __open_2(path, O_RDWR) : open(path, O_RDWR);
  cam_stream_config config{};
  config.channel_key = key;
  const int rc = command(node, CAM_IOC_GET_STREAM_CONFIG, &config);
  if (rc == 0) command(node, CAM_IOC_RETURN_STREAM_CONFIG, &config);
  close(node);
  return rc < 0 ? std::int64_t{rc} : std::int64_t{config.max_width};
}

// What the kernel itself answers to a command it does not know on a node
// that is not the simulator's: ENOTTY, or ENOSYS under qemu-user, which does
// not pass commands it cannot translate on to the kernel.
long unknown_command_errno(const char* path) {
  const int node = open(path, O_RDWR);
  cam_stream_config config{};
  const long rc = syscall(SYS_ioctl, node, CAM_IOC_GET_STREAM_CONFIG, &config);
  const long error = rc < 0 ? errno : 0;
  close(node);
  return error;
}

// 0 when `length` bytes at `offset` of a node can be mapped, else -errno.
long map(int node, long offset, std::size_t length, int prot = PROT_READ | PROT_WRITE) {
  void* p = mmap(nullptr, length, prot, MAP_SHARED, node, offset);
  if (p == MAP_FAILED) return -errno;
  munmap(p, length);
  return 0;
}

using O = internal_overlay;

TEST_F(DriverCommands, CreateChecksTheRecord) {
  expect("type -1", -EINVAL, create_with(&O::type, -1));
  expect("type 9", -EINVAL, create_with(&O::type, 9));
  expect("width 0", -EINVAL, create_with(&O::width, 0u));
  expect("no buffers", -EINVAL, create_with(&O::nbr_buffers, 0u));
  expect("5 buffers", -EINVAL, create_with(&O::nbr_buffers, 5u));
  expect("palette bank 2", -EINVAL, create_with(&O::palette_bank, 2u));
  expect("visible wider than the overlay", -EINVAL, create_with(&O::visible_width, 65u));
  expect("normalized y above 16384", -EINVAL, create_with(&O::y, 16385u));
  expect("2^20 rows: no memory", -ENOMEM, create_with(&O::height, 1u << 20));
  expect("normalized y 16384", 0, create_with(&O::y, 16384u));
  expect("no record", -EFAULT, command(fd, CAM_IOC_CREATE_OVERLAY, nullptr));
  expect("reserved1 set", -EINVAL, create_as([](O& r) { r.reserved1[1] = 1; }));
  expect("reserved2 set", -EINVAL, create_with(&O::reserved2, 1u));
  expect("palette colours of a 4-bit overlay", -EINVAL,
         create_as([](O& r) { r.palette_colors[3] = 1; }));
  expect("planar of odd width", -EINVAL,
         create_as([](O& r) { r.type = 8, r.width = r.visible_width = 63; }));
  expect("1-bit with its palette colours", 0,
         create_as([](O& r) { r.type = 6, r.palette_colors[1] = ~0u; }));
}

TEST_F(DriverCommands, BufferSizesByType) {
  const std::tuple<int, u32, u32, long> sizes[] = {
      {0, 3, 3, 4}, {0, 1, 1, 0}, {1, 3, 3, 13}, {2, 3, 3, 9},  {3, 3, 3, 18}, {4, 3, 3, 36},
      {5, 3, 3, 9}, {6, 7, 5, 5}, {6, 9, 2, 4},  {7, 2, 2, 10}, {8, 4, 2, 24}};
  for (const auto& [type, w, h, size] : sizes) EXPECT_EQ(size_of(type, w, h), size) << type;
}

// Reserved bytes must be zero, and a get record nothing but its id.
TEST_F(DriverCommands, ReservedBytesAreRefused) {
  internal_overlay get{}, modify = made;
  get.id = made.id, get.x = 1, modify.reserved1[0] = 1;
  cam_buffer_query query{made.id, {0, 0, 0, 0, 1}};
  cam_source_params add{CAM_SOURCE_ADD, made.id, {0, 1, 0}};
  cam_palette_color colour{3, 1, 76, 85, 255, 200, {0, 1}, 1};
  expect("get with x set", -EINVAL, command(fd, CAM_IOC_GET_OVERLAY, &get));
  expect("modify with reserved1", -EINVAL, command(fd, CAM_IOC_MODIFY_OVERLAY, &modify));
  expect("buffer query", -EINVAL, command(fd, CAM_IOC_GET_BUFFER, &query));
  expect("source add", -EINVAL, command(fd, CAM_IOC_SOURCE_PARAMS, &add));
  expect("palette colour", -EINVAL, command(fd, CAM_IOC_SET_PALETTE_COLOR, &colour));
}

// 256 live overlays, ids non-zero and unique; a lower limit.
TEST_F(DriverCommands, OverlayLimits) {
  u32 ids[CAMSIM_MAX_OVERLAYS] = {create(fd, record(2, 8, 8)), create(fd, record(2, 8, 8))};
  destroy(fd, ids[0]);
  while (camsim_live_count() < CAMSIM_MAX_OVERLAYS) create(fd, record(2, 8, 8));
  const std::set<u32> live(ids, ids + camsim_live_ids(ids, CAMSIM_MAX_OVERLAYS));
  expect("live ids", 256, long(live.size()));
  expect("ids of 0", 0, long(live.count(0)));
  expect("the 257th", -ENOMEM, create_with(&O::x, 0u));
  expect("limit 0 refused", -1, camsim_set_overlay_limit(0));
  for (u32 id : live)
    if (id != made.id) destroy(fd, id);
  expect("limit 2 set", 0, camsim_set_overlay_limit(2));
  expect("second of limit 2", 0, create_with(&O::x, 0u));
  expect("third of limit 2", -ENOMEM, create_with(&O::x, 0u));
}

TEST_F(DriverCommands, ModifyTakesPositionVisibleSizeAndCoordinatesOnly) {
  internal_overlay m = record(2, 1, 1, 1, 8192, 16384), got{}, want = made;
  internal_overlay tall = made, gone = made;
  want.id = m.id = made.id, tall.visible_height = 33, gone.id = 4242;
  want.x = 8192, want.y = 16384, want.visible_width = want.visible_height = 1;
  want.coord_type = 0;  // pixels
  expect("modify", 0, command(fd, CAM_IOC_MODIFY_OVERLAY, &m));
  expect("get", 0, camsim_get_overlay(made.id, &got));
  expect("record differs from the wanted one", 0, std::memcmp(&got, &want, sizeof got));
  expect("visible taller than the overlay", -EINVAL, command(fd, CAM_IOC_MODIFY_OVERLAY, &tall));
  expect("unknown id", -EINVAL, command(fd, CAM_IOC_MODIFY_OVERLAY, &gone));
  expect("refresh (no record)", 0, command(fd, CAM_IOC_MODIFY_OVERLAY, nullptr));
  expect("refreshes", 1, camsim_refresh_count());
}

TEST_F(DriverCommands, BuffersAndDestroy) {
  camsim_overlay_info info{};
  internal_overlay gone{};
  gone.id = made.id;
  const int own = get_buffer(fd, made.id);
  expect("another overlay's buffer", -EINVAL,
         submit(fd, made.id, get_buffer(fd, create(fd, record(2, 8, 8)))));
  expect("an offset inside the buffer", -EINVAL, submit(fd, made.id, own + 1));
  expect("own buffer with param 7", 0, submit(fd, made.id, own, 7));
  expect("info", 0, camsim_get_overlay_info(made.id, &info));
  expect("last param", 7, info.last_param);
  expect("submitted again, not handed out again", -EINVAL, submit(fd, made.id, own));
  expect("never handed out", -EINVAL, submit(fd, made.id, info.buffer_offsets[1]));
  expect("destroy", 0, destroy(fd, made.id));
  expect("live after destroy", 1, camsim_live_count());
  expect("destroy again", -EINVAL, destroy(fd, made.id));
  expect("get buffer of a destroyed one", -EINVAL, get_buffer(fd, made.id));
  expect("submit to a destroyed one", -EINVAL, submit(fd, made.id, own));
  expect("get a destroyed one", -ENOENT, command(fd, CAM_IOC_GET_OVERLAY, &gone));
  // Fresh buffers hold the pattern, also on reused pages.
  const u32 id = create(fd, record(2, 64, 64));
  auto* map = static_cast<unsigned char*>(
      mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, get_buffer(fd, id)));
  expect("fresh bytes of the first page", 4096, std::count(map, map + 4096, CAMSIM_FRESH_BYTE));
  munmap(map, 4096);
}

// Nodes own their commands; only handed-out buffers map, within their pages.
TEST_F(DriverCommands, NodesAndMappings) {
  const int quad = open("/dev/camquad", O_RDWR), cam3 = open("/dev/cam3", O_RDWR),
            read_only = open("/dev/cam0", O_RDONLY);
  internal_overlay r = record(2, 8, 8);
  camsim_overlay_info info{};
  camsim_get_overlay_info(made.id, &info);  // 8192 bytes a buffer
  expect("create on camquad", -ENOTTY, command(quad, CAM_IOC_CREATE_OVERLAY, &r));
  expect("get buffer on cam3", -ENOTTY, get_buffer(cam3, made.id));
  expect("map offset 0", -EINVAL, map(fd, 0, 4096));
  expect("map a buffer never handed out", -EINVAL, map(fd, info.buffer_offsets[1], 4096));
  const int own = get_buffer(fd, made.id);
  expect("map the handed-out buffer", 0, map(fd, own, 8192));
  expect("map one byte past it", -EINVAL, map(fd, own, 8193));
  expect("map 1 MiB", -EINVAL, map(fd, own, 1 << 20));
  expect("map through cam3", -ENODEV, map(cam3, own, 4096));
  expect("map read-only node writable", -EACCES, map(read_only, own, 4096));
  for (int node : {quad, cam3, read_only}) close(node);
}

TEST_F(DriverCommands, SourceListOfEight) {
  expect("add", 0, source(CAM_SOURCE_ADD, made.id));
  expect("add again", 0, source(CAM_SOURCE_ADD, made.id));
  for (int i = 0; i < 7; ++i)
    expect("add 2nd to 8th", 0, source(CAM_SOURCE_ADD, create(fd, record(2, 8, 8))));
  const u32 ninth = create(fd, record(2, 8, 8));
  camsim_overlay_info info{};
  expect("info", 0, camsim_get_overlay_info(made.id, &info));
  expect("in source", 1, info.in_source);
  expect("add 9th", -ENOBUFS, source(CAM_SOURCE_ADD, ninth));
  expect("remove one not in it", -ENOENT, source(CAM_SOURCE_REMOVE, ninth));
  expect("add an unknown id", -EINVAL, source(CAM_SOURCE_ADD, 4242));
  expect("unknown operation", -EINVAL, source(2, ninth));
  expect("destroy a member", 0, destroy(fd, made.id));
  expect("add 9th then", 0, source(CAM_SOURCE_ADD, ninth));
}

TEST_F(DriverCommands, PaletteRefusedEntriesAreNotWritten) {
  cam_palette_color c[] = {
      {3, 1, 76, 85, 255, 200, {}, 1}, {16, 0, 0, 0, 0, 0, {}, 0}, {2, 2, 0, 0, 0, 0, {}, 0}};
  std::uint8_t written[16];
  expect("entry 3 of bank 1", 0, command(fd, CAM_IOC_SET_PALETTE_COLOR, &c[0]));
  expect("entry 16", -EINVAL, command(fd, CAM_IOC_SET_PALETTE_COLOR, &c[1]));
  expect("bank 2", -EINVAL, command(fd, CAM_IOC_SET_PALETTE_COLOR, &c[2]));
  expect("read bank 1", 0, camsim_read_palette(1, nullptr, written));
  expect("entries written", 1, std::count(written, written + 16, 1));
  expect("entry 3 written", 1, written[3]);
}

TEST_F(DriverCommands, StreamConfigurationAndNodes) {
  camsim_set_resolution(15, 655, 1), camsim_set_resolution(0, 700, 1);
  expect("cam14, channel 15", 655, max_width("/dev/cam14", 0xE00));
  expect("camquad, channel 0", 700, max_width("/dev/camquad", 0xFF00));
  expect("cam3 through the fortified open", 1920, max_width("/dev/cam3", 0x200, true));
  expect("cam0, a key naming no channel", -EINVAL, max_width("/dev/cam0", 0xF00));
  expect("cam0, key 1", -EINVAL, max_width("/dev/cam0", 1));
  expect("a node not the simulator's", -unknown_command_errno("/dev/null"),
         max_width("/dev/null", 0));
  expect("cam15 does not exist", -1, open("/dev/cam15", O_RDWR));
  expect("an unknown command", -ENOTTY, command(fd, 0x40043799u, nullptr));
  expect("unknown commands counted", 1, camsim_call_count(CAMSIM_UNKNOWN_COMMAND));
}

class BufferRing : public ::testing::TestWithParam<u32> {};

TEST_P(BufferRing, ShownBufferIsNeverHandedOut) {
  const u32 n = GetParam(), size = 64 * 64;
  ASSERT_EQ(camsim_reset(), 0);
  Node node;
  const u32 id = create(node.fd, record(2, 64, 64, n));
  std::vector<int> offsets;
  for (u32 round = 1; round <= 7; ++round) {
    const int offset = fill_and_submit(node.fd, id, size, 0x01010101u * round);
    ASSERT_GT(offset, 0);
    EXPECT_NE(offset, n > 1 && round > 1 ? offsets.back() : 0);  // not the shown one
    offsets.push_back(offset);
    unsigned char seen = 0;
    ASSERT_EQ(camsim_read_shown_buffer(id, &seen, 1), long{size});
    EXPECT_EQ(seen, round);
  }
  EXPECT_EQ(std::set<int>(offsets.begin(), offsets.end()).size(), n);
  for (std::size_t i = n; i < offsets.size(); ++i) EXPECT_EQ(offsets[i], offsets[i - n]);
  if (n == 1) return;
  // Two writers at once get the other two; a submit frees the shown one.
  const int shown = offsets.back(), a = get_buffer(node.fd, id), b = get_buffer(node.fd, id);
  EXPECT_EQ(std::set<int>({shown, a, b}).size(), 3u);
  EXPECT_EQ(get_buffer(node.fd, id), a);
  ASSERT_EQ(submit(node.fd, id, a), 0);
  const std::set<int> next = {get_buffer(node.fd, id), get_buffer(node.fd, id)};
  EXPECT_EQ(next, std::set<int>({shown, b}));
}

INSTANTIATE_TEST_SUITE_P(OneAndThree, BufferRing, ::testing::Values(1u, 3u));

TEST(Compose, OverlaysLandWhereTheirPositionSays) {
  constexpr u32 kRed = 0xFFFF0000, kGreen = 0xFF00FF00, kBlue = 0xFF0000FF,
                kDark = 0xFF404040;  // the test picture where x / 16 + y / 16 is even
  ASSERT_EQ(camsim_reset(), 0);
  Node node;
  auto shown = [&](internal_overlay r, u32 argb) {
    const u32 id = create(node.fd, r);
    EXPECT_GT(fill_and_submit(node.fd, id, r.width * r.height * 4, argb), 0);
    return id;
  };
  internal_overlay half = record(4, 20, 20, 1, 32, 32), scaled = record(4, 8, 6, 1, 8192, 8192);
  half.visible_width = 10;
  scaled.coord_type = OVERLAY_COORDS_NORMALIZED;                  // at (128, 64) of 256x128
  u32 ids[8] = {shown(half, kRed), shown(scaled, kGreen), 4242};  // place 0 on top
  ids[7] = shown(record(4, 20, 20, 1, 32, 32), kBlue);
  const std::string path = ::testing::TempDir() + "camsim_compose.png";
  ASSERT_EQ(camsim_compose(ids, 256, 128, path.c_str()), 3);
  cairo_surface_t* png = cairo_image_surface_create_from_png(path.c_str());
  unlink(path.c_str());
  ASSERT_EQ(cairo_image_surface_get_width(png), 256);  // 0 when it could not be read
  const auto* data = reinterpret_cast<const u32*>(cairo_image_surface_get_data(png));
  const std::tuple<int, int, u32> points[] = {
      {0, 0, kDark},   {32, 32, kRed},    {41, 51, kRed},    {42, 40, kBlue},  {51, 51, kBlue},
      {52, 52, kDark}, {128, 64, kGreen}, {135, 69, kGreen}, {136, 64, kDark}, {128, 70, kDark}};
  for (auto [x, y, argb] : points) EXPECT_EQ(data[y * 256 + x], argb) << x << "," << y;
  cairo_surface_destroy(png);
}

// Every format that the capabilities list, written in the driver's layout
// of its type (camsim.h) as 2 x 2 blocks of red and blue, comes out of the
// compositor as those blocks.
TEST(Compose, EveryListedFormatIsDrawnInItsLayout) {
  static constexpr u32 kRed = 0xFFFF0000, kBlue = 0xFF0000FF, kW = 8, kH = 4, kN = kW * kH;
  struct Yuv {
    std::uint8_t y, cb, cr;
  };
  static constexpr Yuv kYuv[2] = {{76, 85, 255}, {29, 255, 107}};  // red, blue in full-range BT.601
  // Writes pixel (x, y) as red (blue = false) or blue into a buffer of the type.
  using Put = void (*)(std::vector<std::uint8_t>&, u32, u32, bool);
  auto planes = [](std::vector<std::uint8_t>& b, u32 x, u32 y, bool blue, long alpha) {
    const u32 i = y * kW + x, pair = kN + (y / 2) * kW + 2 * (x / 2);
    b[i] = kYuv[blue].y, b[pair] = kYuv[blue].cr, b[pair + 1] = kYuv[blue].cb;
    if (alpha >= 0) b[alpha + i] = 0xFF;
  };
  static decltype(planes) planar = planes;
  const std::map<int, Put> put = {
      {0, [](auto& b, u32 x, u32 y,
             bool blue) { b[(y * kW + x) / 2] |= (blue ? 2 : 1) << (x % 2 * 4); }},
      {5,
       [](auto& b, u32 x, u32 y, bool blue) {
         b[(y * kW + x) / 2] |= (blue ? 2 : 1) << (x % 2 * 4);
         b[kN / 2 + (y * kW + x) / 2] |= (blue ? 2 : 1) << (4 - x % 2 * 4);
       }},
      {1, [](auto& b, u32 x, u32 y, bool blue) { planar(b, x, y, blue, -1); }},
      {7, [](auto& b, u32 x, u32 y, bool blue) { planar(b, x, y, blue, kN * 3 / 2); }},
      {8, [](auto& b, u32 x, u32 y, bool blue) { planar(b, x, y, blue, kN * 2); }},
      {2, [](auto& b, u32 x, u32 y, bool blue) { b[y * kW + x] = blue ? 0xC3 : 0xF0; }},
      {3,
       [](auto& b, u32 x, u32 y, bool blue) {
         const std::uint16_t v = blue ? 0xF00F : 0xFF00;
         std::memcpy(&b[2 * (y * kW + x)], &v, 2);
       }},
      {4, [](auto& b, u32 x, u32 y,
             bool blue) { std::memcpy(&b[4 * (y * kW + x)], &(blue ? kBlue : kRed), 4); }},
      {6, [](auto& b, u32 x, u32 y,
             bool blue) { b[y * ((kW + 7) / 8) + x / 8] |= (blue ? 1 : 0) << (x % 8); }},
  };
  auto near = [](u32 a, u32 b) {
    for (int shift = 0; shift < 32; shift += 8)
      if (std::abs(int(a >> shift & 0xFF) - int(b >> shift & 0xFF)) > 2) return false;
    return true;
  };
  overlay_caps caps{};
  o_get_overlay_caps(&caps);
  ASSERT_EQ(camsim_reset(), 0);
  Node node;
  for (int bank_index = 1; bank_index <= 2; ++bank_index) {
    const Yuv& c = kYuv[bank_index - 1];
    cam_palette_color colour{std::uint8_t(bank_index), 1, c.y, c.cb, c.cr, 0xFF, {}, 0};
    ASSERT_EQ(command(node.fd, CAM_IOC_SET_PALETTE_COLOR, &colour), 0);
  }
  for (const u32 format : caps.formats) {
    if (format == 0xFFFFFFFFu) break;
    const int type = o_get_overlay_internal_type(format);
    SCOPED_TRACE("format " + std::to_string(format) + ", type " + std::to_string(type));
    ASSERT_EQ(put.count(type), 1u) << "a listed format without a layout";
    internal_overlay r = record(type, kW, kH);
    if (type == 6) r.palette_colors[0] = kRed, r.palette_colors[1] = kBlue;
    u32 ids[8] = {create(node.fd, r)};
    ASSERT_EQ(camsim_get_overlay(ids[0], &r), 0);
    std::vector<std::uint8_t> pixels(r.buffer_size);
    for (u32 y = 0; y < kH; ++y)
      for (u32 x = 0; x < kW; ++x) put.at(type)(pixels, x, y, (x / 2 + y / 2) % 2 == 1);
    const int offset = get_buffer(node.fd, ids[0]);
    void* map = mmap(nullptr, r.buffer_size, PROT_WRITE, MAP_SHARED, node.fd, offset);
    ASSERT_NE(map, MAP_FAILED);
    std::memcpy(map, pixels.data(), pixels.size());
    munmap(map, r.buffer_size);
    ASSERT_EQ(submit(node.fd, ids[0], offset), 0);
    const std::string path = ::testing::TempDir() + "camsim_format.png";
    ASSERT_EQ(camsim_compose(ids, 16, 16, path.c_str()), 1);
    cairo_surface_t* png = cairo_image_surface_create_from_png(path.c_str());
    unlink(path.c_str());
    const auto* data = reinterpret_cast<const u32*>(cairo_image_surface_get_data(png));
    ASSERT_NE(data, nullptr);
    for (u32 y = 0; y < kH; ++y)
      for (u32 x = 0; x < kW; ++x) {
        const u32 want = (x / 2 + y / 2) % 2 == 1 ? kBlue : kRed, got = data[y * 16 + x];
        EXPECT_PRED2(near, got, want) << std::hex << got << " at " << std::dec << x << "," << y;
      }
    cairo_surface_destroy(png);
    destroy(node.fd, ids[0]);
  }
}

}  // namespace
}  // namespace camsim_test
