// Every command through real open/ioctl calls, the buffer ring and composition.
#include <cairo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "camsim_test_util.h"

extern "C" int __open_2(const char*, int);  // the fortified open

namespace camsim_test {
namespace {

using L = std::vector<long>;  // results of commands, collected in order with <<
L operator<<(L results, long v) {
  results.push_back(v);
  return results;
}

int fd;  // each row of the table runs on a reset driver holding `made`
internal_overlay made;

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

TEST(DriverCommands, RecordsAndErrors) {
  using O = internal_overlay;
  struct Row {
    const char* name;
    std::vector<std::pair<const char*, long>> want;  // each command's result, named
    std::function<L()> run;
  };
  const Row rows[] = {
      {"create",
       {{"type -1", -EINVAL},
        {"type 9", -EINVAL},
        {"width 0", -EINVAL},
        {"no buffers", -EINVAL},
        {"5 buffers", -EINVAL},
        {"palette bank 2", -EINVAL},
        {"visible wider than the overlay", -EINVAL},
        {"normalized y above 16384", -EINVAL},
        {"2^20 rows: no memory", -ENOMEM},
        {"normalized y 16384", 0},
        {"no record", -EFAULT},
        {"reserved1 set", -EINVAL},
        {"reserved2 set", -EINVAL},
        {"palette colours of a 4-bit overlay", -EINVAL},
        {"planar of odd width", -EINVAL},
        {"1-bit with its palette colours", 0}},
       [] {
         return L() << create_with(&O::type, -1) << create_with(&O::type, 9)
                    << create_with(&O::width, 0u) << create_with(&O::nbr_buffers, 0u)
                    << create_with(&O::nbr_buffers, 5u) << create_with(&O::palette_bank, 2u)
                    << create_with(&O::visible_width, 65u) << create_with(&O::y, 16385u)
                    << create_with(&O::height, 1u << 20) << create_with(&O::y, 16384u)
                    << command(fd, CAM_IOC_CREATE_OVERLAY, nullptr)
                    << create_as([](O& r) { r.reserved1[1] = 1; }) << create_with(&O::reserved2, 1u)
                    << create_as([](O& r) { r.palette_colors[3] = 1; })  // not a 1-bit overlay
                    << create_as([](O& r) { r.type = 8, r.width = r.visible_width = 63; })
                    << create_as([](O& r) { r.type = 6, r.palette_colors[1] = ~0u; });
       }},
      {"buffer sizes by type",
       {{"type 0, 3x3", 4},
        {"type 0, 1x1", 0},
        {"type 1, 3x3", 13},
        {"type 2, 3x3", 9},
        {"type 3, 3x3", 18},
        {"type 4, 3x3", 36},
        {"type 5, 3x3", 9},
        {"type 6, 7x5", 5},
        {"type 6, 9x2", 4},
        {"type 7, 2x2", 10},
        {"type 8, 4x2", 24}},
       [] {
         return L() << size_of(0, 3, 3) << size_of(0, 1, 1) << size_of(1, 3, 3) << size_of(2, 3, 3)
                    << size_of(3, 3, 3) << size_of(4, 3, 3) << size_of(5, 3, 3) << size_of(6, 7, 5)
                    << size_of(6, 9, 2) << size_of(7, 2, 2) << size_of(8, 4, 2);
       }},
      {"reserved bytes zero, a get record nothing but its id",
       {{"get with x set", -EINVAL},
        {"modify with reserved1", -EINVAL},
        {"buffer query with a reserved word", -EINVAL},
        {"source add with a reserved word", -EINVAL},
        {"palette colour with a reserved byte", -EINVAL}},
       [] {
         internal_overlay get{}, modify = made;
         get.id = made.id, get.x = 1, modify.reserved1[0] = 1;
         cam_buffer_query query{made.id, {0, 0, 0, 0, 1}};
         cam_source_params add{CAM_SOURCE_ADD, made.id, {0, 1, 0}};
         cam_palette_color colour{3, 1, 76, 85, 255, 200, {0, 1}, 1};
         return L() << command(fd, CAM_IOC_GET_OVERLAY, &get)
                    << command(fd, CAM_IOC_MODIFY_OVERLAY, &modify)
                    << command(fd, CAM_IOC_GET_BUFFER, &query)
                    << command(fd, CAM_IOC_SOURCE_PARAMS, &add)
                    << command(fd, CAM_IOC_SET_PALETTE_COLOR, &colour);
       }},
      {"256 live overlays, ids non-zero and unique; a lower limit",
       {{"live ids", 256},
        {"ids of 0", 0},
        {"the 257th", -ENOMEM},
        {"limit 0 refused", -1},
        {"limit 2 set", 0},
        {"second of limit 2", 0},
        {"third of limit 2", -ENOMEM}},
       [] {
         u32 ids[CAMSIM_MAX_OVERLAYS] = {create(fd, record(2, 8, 8)), create(fd, record(2, 8, 8))};
         destroy(fd, ids[0]);
         while (camsim_live_count() < CAMSIM_MAX_OVERLAYS) create(fd, record(2, 8, 8));
         const std::set<u32> live(ids, ids + camsim_live_ids(ids, CAMSIM_MAX_OVERLAYS));
         L r = L() << live.size() << live.count(0) << create_with(&O::x, 0u)
                   << camsim_set_overlay_limit(0);
         for (u32 id : live)
           if (id != made.id) destroy(fd, id);
         return r << camsim_set_overlay_limit(2) << create_with(&O::x, 0u)
                  << create_with(&O::x, 0u);
       }},
      {"modify takes position, visible size and coordinates only",
       {{"modify", 0},
        {"get", 0},
        {"record differs from the wanted one", 0},
        {"visible taller than the overlay", -EINVAL},
        {"unknown id", -EINVAL},
        {"refresh (no record)", 0},
        {"refreshes", 1}},
       [] {
         internal_overlay m = record(2, 1, 1, 1, 8192, 16384), got{}, want = made;
         internal_overlay tall = made, gone = made;
         want.id = m.id = made.id, tall.visible_height = 33, gone.id = 4242;
         want.x = 8192, want.y = 16384, want.visible_width = want.visible_height = 1;
         want.coord_type = 0;  // pixels
         return L() << command(fd, CAM_IOC_MODIFY_OVERLAY, &m) << camsim_get_overlay(made.id, &got)
                    << std::memcmp(&got, &want, sizeof got)
                    << command(fd, CAM_IOC_MODIFY_OVERLAY, &tall)
                    << command(fd, CAM_IOC_MODIFY_OVERLAY, &gone)
                    << command(fd, CAM_IOC_MODIFY_OVERLAY, nullptr) << camsim_refresh_count();
       }},
      {"buffers and destroy",
       {{"another overlay's buffer", -EINVAL},
        {"an offset inside the buffer", -EINVAL},
        {"own buffer with param 7", 0},
        {"info", 0},
        {"last param", 7},
        {"submitted again", -EINVAL},
        {"never handed out", -EINVAL},
        {"destroy", 0},
        {"live after destroy", 1},
        {"destroy again", -EINVAL},
        {"get buffer of a destroyed one", -EINVAL},
        {"submit to a destroyed one", -EINVAL},
        {"get a destroyed one", -ENOENT}},
       [] {
         camsim_overlay_info info{};
         internal_overlay gone{};
         gone.id = made.id;
         const int own = get_buffer(fd, made.id);
         return L() << submit(fd, made.id, get_buffer(fd, create(fd, record(2, 8, 8))))
                    << submit(fd, made.id, own + 1) << submit(fd, made.id, own, 7)
                    << camsim_get_overlay_info(made.id, &info) << info.last_param
                    << submit(fd, made.id,
                              own)  // submitted already, not handed out again
                    << submit(fd, made.id, info.buffer_offsets[1])  // never handed out
                    << destroy(fd, made.id) << camsim_live_count() << destroy(fd, made.id)
                    << get_buffer(fd, made.id) << submit(fd, made.id, own)
                    << command(fd, CAM_IOC_GET_OVERLAY, &gone);
       }},
      {"fresh buffers hold the pattern, also on reused pages",
       {{"fresh bytes of the first page", 4096}},
       [] {
         destroy(fd, made.id);
         const u32 id = create(fd, record(2, 64, 64));
         auto* map = static_cast<unsigned char*>(
             mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, get_buffer(fd, id)));
         return L() << std::count(map, map + 4096, CAMSIM_FRESH_BYTE) + munmap(map, 4096);
       }},
      {"nodes own their commands; only handed-out buffers map, within their pages",
       {{"create on camquad", -ENOTTY},
        {"get buffer on cam3", -ENOTTY},
        {"map offset 0", -EINVAL},
        {"map a buffer never handed out", -EINVAL},
        {"map the handed-out buffer", 0},
        {"map one byte past it", -EINVAL},
        {"map 1 MiB", -EINVAL},
        {"map through cam3", -ENODEV},
        {"map read-only node writable", -EACCES}},
       [] {
         const int quad = open("/dev/camquad", O_RDWR), cam3 = open("/dev/cam3", O_RDWR),
                   read_only = open("/dev/cam0", O_RDONLY);
         internal_overlay r = record(2, 8, 8);
         camsim_overlay_info info{};
         camsim_get_overlay_info(made.id, &info);  // 8192 bytes a buffer
         L results = L() << command(quad, CAM_IOC_CREATE_OVERLAY, &r) << get_buffer(cam3, made.id)
                         << map(fd, 0, 4096) << map(fd, info.buffer_offsets[1], 4096);
         const int own = get_buffer(fd, made.id);
         results = results << map(fd, own, 8192) << map(fd, own, 8193) << map(fd, own, 1 << 20)
                           << map(cam3, own, 4096) << map(read_only, own, 4096);
         for (int node : {quad, cam3, read_only}) close(node);
         return results;
       }},
      {"source list of 8",
       {{"add", 0},
        {"add again", 0},
        {"add 2nd", 0},
        {"add 3rd", 0},
        {"add 4th", 0},
        {"add 5th", 0},
        {"add 6th", 0},
        {"add 7th", 0},
        {"add 8th", 0},
        {"info", 0},
        {"in source", 1},
        {"add 9th", -ENOBUFS},
        {"remove one not in it", -ENOENT},
        {"add an unknown id", -EINVAL},
        {"unknown operation", -EINVAL},
        {"destroy a member", 0},
        {"add 9th then", 0}},
       [] {
         L r = L() << source(CAM_SOURCE_ADD, made.id) << source(CAM_SOURCE_ADD, made.id);
         for (int i = 0; i < 7; ++i) r = r << source(CAM_SOURCE_ADD, create(fd, record(2, 8, 8)));
         const u32 ninth = create(fd, record(2, 8, 8));
         camsim_overlay_info info{};
         return r << camsim_get_overlay_info(made.id, &info) << info.in_source
                  << source(CAM_SOURCE_ADD, ninth) << source(CAM_SOURCE_REMOVE, ninth)
                  << source(CAM_SOURCE_ADD, 4242) << source(2, ninth) << destroy(fd, made.id)
                  << source(CAM_SOURCE_ADD, ninth);
       }},
      {"palette: refused entries are not written",
       {{"entry 3 of bank 1", 0},
        {"entry 16", -EINVAL},
        {"bank 2", -EINVAL},
        {"read bank 1", 0},
        {"entries written", 1},
        {"entry 3 written", 1}},
       [] {
         cam_palette_color c[] = {{3, 1, 76, 85, 255, 200, {}, 1},
                                  {16, 0, 0, 0, 0, 0, {}, 0},
                                  {2, 2, 0, 0, 0, 0, {}, 0}};
         std::uint8_t written[16];
         return L() << command(fd, CAM_IOC_SET_PALETTE_COLOR, &c[0])
                    << command(fd, CAM_IOC_SET_PALETTE_COLOR, &c[1])
                    << command(fd, CAM_IOC_SET_PALETTE_COLOR, &c[2])
                    << camsim_read_palette(1, nullptr, written)
                    << std::count(written, written + 16, 1) << written[3];
       }},
      {"stream configuration and nodes",
       {{"cam14, channel 15", 655},
        {"camquad, channel 0", 700},
        {"cam3 through the fortified open", 1920},
        {"cam0, a key naming no channel", -EINVAL},
        {"cam0, key 1", -EINVAL},
        {"a node not the simulator's", -unknown_command_errno("/dev/null")},
        {"cam15 does not exist", -1},
        {"an unknown command", -ENOTTY},
        {"unknown commands counted", 1}},
       [] {
         camsim_set_resolution(15, 655, 1), camsim_set_resolution(0, 700, 1);
         return L() << max_width("/dev/cam14", 0xE00) << max_width("/dev/camquad", 0xFF00)
                    << max_width("/dev/cam3", 0x200, true) << max_width("/dev/cam0", 0xF00)
                    << max_width("/dev/cam0", 1) << max_width("/dev/null", 0)
                    << open("/dev/cam15", O_RDWR) << command(fd, 0x40043799u, nullptr)
                    << camsim_call_count(CAMSIM_UNKNOWN_COMMAND);
       }},
  };
  for (const auto& [name, want, run] : rows) {
    SCOPED_TRACE(name);
    ASSERT_EQ(camsim_reset(), 0);
    Node node;
    fd = node.fd;
    made = record(4, 64, 32, 2);
    made.coord_type = OVERLAY_COORDS_NORMALIZED;
    ASSERT_EQ(command(fd, CAM_IOC_CREATE_OVERLAY, &made), 0);
    const L got = run();
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], want[i].second) << want[i].first;
  }
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
