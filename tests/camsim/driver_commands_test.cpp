// The simulator's commands through real open/ioctl calls: records, results
// and refusals.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "camsim_test_util.h"

// The fortified entry points; declared by the C library only in fortified builds.
extern "C" int __open_2(const char*, int);
extern "C" int __open64_2(const char*, int);
extern "C" int __openat_2(int, const char*, int);
extern "C" int __openat64_2(int, const char*, int);

namespace camsim_test {
namespace {

using DriverCommands = CamsimTest;

struct RefusedCreate {
  const char* name;
  std::function<void(internal_overlay&)> change;
  int error;
};

TEST_F(DriverCommands, CreateRefusesBadRecords) {
  const std::vector<RefusedCreate> cases = {
      {"negative type", [](auto& r) { r.type = -1; }, EINVAL},
      {"type 9", [](auto& r) { r.type = 9; }, EINVAL},
      {"zero width", [](auto& r) { r.width = 0; }, EINVAL},
      {"zero height", [](auto& r) { r.height = 0; }, EINVAL},
      {"no buffers", [](auto& r) { r.nbr_buffers = 0; }, EINVAL},
      {"five buffers", [](auto& r) { r.nbr_buffers = 5; }, EINVAL},
      {"palette bank 2", [](auto& r) { r.palette_bank = 2; }, EINVAL},
      {"visible wider than overlay", [](auto& r) { r.visible_width = r.width + 1; }, EINVAL},
      {"normalized y past the frame",
       [](auto& r) {
         r.coord_type = OVERLAY_COORDS_NORMALIZED;
         r.y = 16385;
       },
       EINVAL},
      {"larger than the arena", [](auto& r) { r.width = r.height = 8192; }, ENOMEM},
  };
  Node node;
  for (const auto& c : cases) {
    internal_overlay r = record(4, 64, 32);
    c.change(r);
    EXPECT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r), -c.error) << c.name;
    EXPECT_EQ(r.id, 0u) << c.name;
  }
  EXPECT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, nullptr), -EFAULT);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_CREATE_OVERLAY), static_cast<long>(cases.size()) + 1);
}

TEST_F(DriverCommands, CreateSizesBuffersByInternalType) {
  struct Case {
    std::int32_t type;
    std::uint32_t w, h, bytes;
  };
  const Case cases[] = {{0, 3, 3, 4},  {1, 3, 3, 13}, {2, 3, 3, 9}, {3, 3, 3, 18},
                        {4, 3, 3, 36}, {5, 3, 3, 9},  {6, 7, 5, 5}, {6, 9, 2, 4},
                        {7, 2, 2, 10}, {8, 3, 3, 27}, {0, 1, 1, 0}};
  Node node;
  for (const auto& c : cases) {
    internal_overlay r = record(c.type, c.w, c.h);
    r.reserved2 = 0xABCD;  // travels with the record
    ASSERT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r), 0) << "type " << c.type;
    EXPECT_NE(r.id, 0u);
    EXPECT_EQ(r.buffer_size, c.bytes) << "type " << c.type << " " << c.w << "x" << c.h;
    internal_overlay got{};
    got.id = r.id;
    ASSERT_EQ(command(node.fd(), CAM_IOC_GET_OVERLAY, &got), 0);
    EXPECT_EQ(std::memcmp(&got, &r, sizeof r), 0) << "type " << c.type;
  }
}

TEST_F(DriverCommands, IdsAreNonZeroAndUniqueAmongLiveOverlays) {
  Node node;
  std::vector<std::uint32_t> ids;
  for (int i = 0; i < 20; ++i) ids.push_back(create(node.fd(), record(2, 8, 8)));
  for (int i = 0; i < 20; i += 2) ASSERT_EQ(destroy(node.fd(), ids[i]), 0);
  for (int i = 0; i < 30; ++i) create(node.fd(), record(2, 8, 8));
  std::vector<std::uint32_t> live(CAMSIM_MAX_OVERLAYS);
  const int n = camsim_live_ids(live.data(), CAMSIM_MAX_OVERLAYS);
  ASSERT_EQ(n, 40);
  live.resize(n);
  EXPECT_EQ(std::set<std::uint32_t>(live.begin(), live.end()).size(), live.size());
  EXPECT_EQ(std::count(live.begin(), live.end(), 0u), 0);
}

TEST_F(DriverCommands, UnknownIdsAreRefused) {
  Node node;
  const std::uint32_t id = create(node.fd(), record(2, 8, 8));
  ASSERT_EQ(destroy(node.fd(), id), 0);  // a destroyed id is unknown again
  for (std::uint32_t unknown : {0u, id, 4242u}) {
    internal_overlay r = record(2, 8, 8);
    r.id = unknown;
    EXPECT_EQ(command(node.fd(), CAM_IOC_GET_OVERLAY, &r), -ENOENT) << unknown;
    EXPECT_EQ(command(node.fd(), CAM_IOC_MODIFY_OVERLAY, &r), -EINVAL) << unknown;
    EXPECT_EQ(destroy(node.fd(), unknown), -EINVAL) << unknown;
    EXPECT_EQ(submit(node.fd(), unknown, 0x10000), -EINVAL) << unknown;
    EXPECT_EQ(get_buffer(node.fd(), unknown), -EINVAL) << unknown;
    cam_source_params p{CAM_SOURCE_ADD, unknown, {}};
    EXPECT_EQ(command(node.fd(), CAM_IOC_SOURCE_PARAMS, &p), -EINVAL) << unknown;
  }
}

TEST_F(DriverCommands, ModifyMovesTheOverlayAndNullRefreshes) {
  Node node;
  const std::uint32_t id = create(node.fd(), record(4, 100, 50));
  internal_overlay m = record(2, 1, 1);  // size and type of a modify are not taken
  m.id = id;
  m.x = 8192;
  m.y = 16384;
  m.visible_width = 100;
  m.visible_height = 25;
  m.coord_type = OVERLAY_COORDS_NORMALIZED;
  ASSERT_EQ(command(node.fd(), CAM_IOC_MODIFY_OVERLAY, &m), 0);
  internal_overlay got{};
  ASSERT_EQ(camsim_get_overlay(id, &got), 0);
  EXPECT_EQ(got.x, 8192u);
  EXPECT_EQ(got.y, 16384u);
  EXPECT_EQ(got.visible_height, 25u);
  EXPECT_EQ(got.coord_type, 2u);
  EXPECT_EQ(got.width, 100u);
  EXPECT_EQ(got.type, 4);

  m.visible_width = 101;
  EXPECT_EQ(command(node.fd(), CAM_IOC_MODIFY_OVERLAY, &m), -EINVAL);
  EXPECT_EQ(camsim_refresh_count(), 0);
  EXPECT_EQ(command(node.fd(), CAM_IOC_MODIFY_OVERLAY, nullptr), 0);
  EXPECT_EQ(camsim_refresh_count(), 1);
  EXPECT_EQ(camsim_call_count(CAMSIM_MODIFY_OVERLAY), 3);
}

TEST_F(DriverCommands, SourceListHoldsEightOverlays) {
  Node node;
  std::vector<std::uint32_t> ids;
  for (int i = 0; i < 9; ++i) ids.push_back(create(node.fd(), record(2, 8, 8)));
  auto source = [&](std::uint32_t op, std::uint32_t id) {
    cam_source_params p{op, id, {}};
    return command(node.fd(), CAM_IOC_SOURCE_PARAMS, &p);
  };
  for (int i = 0; i < 8; ++i) ASSERT_EQ(source(CAM_SOURCE_ADD, ids[i]), 0);
  EXPECT_EQ(source(CAM_SOURCE_ADD, ids[0]), 0);  // already there: no second place
  EXPECT_EQ(source(CAM_SOURCE_ADD, ids[8]), -ENOBUFS);
  EXPECT_EQ(source(CAM_SOURCE_REMOVE, ids[8]), -ENOENT);
  EXPECT_EQ(source(CAM_SOURCE_REMOVE, 999), -EINVAL);
  EXPECT_EQ(source(2, ids[0]), -EINVAL);

  camsim_overlay_info info{};
  ASSERT_EQ(camsim_get_overlay_info(ids[3], &info), 0);
  EXPECT_EQ(info.in_source, 1u);
  ASSERT_EQ(destroy(node.fd(), ids[3]), 0);  // destroy frees its place
  EXPECT_EQ(source(CAM_SOURCE_ADD, ids[8]), 0);
  ASSERT_EQ(source(CAM_SOURCE_REMOVE, ids[0]), 0);
  EXPECT_EQ(source(CAM_SOURCE_REMOVE, ids[0]), -ENOENT);
}

TEST_F(DriverCommands, PaletteBanksKeepTheRecordsReceived) {
  Node node;
  struct Case {
    std::uint8_t index, bank;
    int result;
  };
  const Case cases[] = {{0, 0, 0},        {15, 1, 0},      {3, 1, 0},
                        {16, 0, -EINVAL}, {2, 2, -EINVAL}, {255, 1, -EINVAL}};
  for (const auto& c : cases) {
    cam_palette_color color{c.index, c.bank, 76, 85, 255, 200, {0, 0}, 1};
    EXPECT_EQ(command(node.fd(), CAM_IOC_SET_PALETTE_COLOR, &color), c.result)
        << int{c.index} << "/" << int{c.bank};
  }
  cam_palette_color entries[2][16];
  std::uint8_t written[2][16];
  ASSERT_EQ(camsim_read_palette(0, entries[0], written[0]), 0);
  ASSERT_EQ(camsim_read_palette(1, entries[1], written[1]), 0);
  int count = 0;
  for (int bank = 0; bank < 2; ++bank)
    for (int i = 0; i < 16; ++i) count += written[bank][i];
  EXPECT_EQ(count, 3);
  EXPECT_TRUE(written[0][0] && written[1][15] && written[1][3]);
  EXPECT_EQ(entries[1][3].luma, 76);
  EXPECT_EQ(entries[1][3].cr, 255);
  EXPECT_EQ(entries[1][3].alpha, 200);
  EXPECT_EQ(entries[1][3].flag, 1);
  EXPECT_EQ(camsim_read_palette(2, entries[0], written[0]), -1);
}

TEST_F(DriverCommands, StreamConfigurationReportsChannelResolution) {
  struct Case {
    unsigned channel;
    const char* node;
    std::uint32_t key;
  };
  const Case cases[] = {
      {0, "/dev/camquad", 0xFF00}, {1, "/dev/cam0", 0x0000}, {15, "/dev/cam14", 0x0E00}};
  for (const auto& c : cases)
    ASSERT_EQ(camsim_set_resolution(c.channel, 640 + c.channel, 480 + c.channel), 0);
  for (const auto& c : cases) {
    Node node(c.node);
    ASSERT_GE(node.fd(), 0) << c.node;
    cam_stream_config config{};
    config.channel_key = c.key;
    std::memset(config.reserved2, 0x5A, sizeof config.reserved2);
    ASSERT_EQ(command(node.fd(), CAM_IOC_GET_STREAM_CONFIG, &config), 0) << c.node;
    EXPECT_EQ(config.max_width, 640 + c.channel);
    EXPECT_EQ(config.max_height, 480 + c.channel);
    EXPECT_EQ(config.reserved2[379], 0x5A);
    EXPECT_EQ(command(node.fd(), CAM_IOC_RETURN_STREAM_CONFIG, &config), 0);
  }
  Node node("/dev/cam3");
  cam_stream_config config{};
  config.channel_key = 0x0200;  // channel 3 keeps the default
  ASSERT_EQ(command(node.fd(), CAM_IOC_GET_STREAM_CONFIG, &config), 0);
  EXPECT_EQ(config.max_width, 1920u);
  EXPECT_EQ(config.max_height, 1080u);
  for (std::uint32_t bad : {0x0F00u, 0x0001u, 0x10000u}) {
    config.channel_key = bad;
    EXPECT_EQ(command(node.fd(), CAM_IOC_GET_STREAM_CONFIG, &config), -EINVAL) << bad;
  }
}

TEST_F(DriverCommands, OnlyTheSimulatorsNodesAndDescriptorsAreTakenOver) {
  for (const char* path : {"/dev/cam15", "/dev/cam", "/dev/cam01", "/dev/camquad0"}) {
    errno = 0;
    EXPECT_LT(open(path, O_RDWR), 0) << path;
    EXPECT_EQ(errno, ENOENT) << path;
  }
  // Every entry point the C library offers for opening, fortified ones too.
  const std::vector<std::pair<const char*, std::function<int(const char*)>>> openers = {
      {"open", [](const char* p) { return open(p, O_RDWR); }},
      {"open64", [](const char* p) { return open64(p, O_RDWR); }},
      {"openat", [](const char* p) { return openat(AT_FDCWD, p, O_RDWR); }},
      {"openat64", [](const char* p) { return openat64(AT_FDCWD, p, O_RDWR); }},
      {"__open_2", [](const char* p) { return __open_2(p, O_RDWR); }},
      {"__open64_2", [](const char* p) { return __open64_2(p, O_RDWR); }},
      {"__openat_2", [](const char* p) { return __openat_2(AT_FDCWD, p, O_RDWR); }},
      {"__openat64_2", [](const char* p) { return __openat64_2(AT_FDCWD, p, O_RDWR); }},
  };
  const char* nodes[] = {"/dev/cam0", "/dev/cam9", "/dev/cam14", "/dev/camquad"};
  for (std::size_t i = 0; i < openers.size(); ++i) {
    const int fd = openers[i].second(nodes[i % 4]);
    cam_stream_config config{};
    EXPECT_EQ(command(fd, CAM_IOC_GET_STREAM_CONFIG, &config), 0) << openers[i].first;
    close(fd);
    const int other = openers[i].second("/dev/null");
    EXPECT_EQ(command(other, CAM_IOC_GET_STREAM_CONFIG, &config), -ENOTTY) << openers[i].first;
    close(other);
  }
  EXPECT_EQ(camsim_open_count(), 8);
  EXPECT_EQ(camsim_call_count(CAMSIM_GET_STREAM_CONFIG), 8);
  ASSERT_EQ(camsim_reset(), 0);

  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  internal_overlay r = record(2, 8, 8);
  EXPECT_EQ(command(pipe_fds[0], CAM_IOC_CREATE_OVERLAY, &r), -ENOTTY);  // the kernel's answer
  close(pipe_fds[0]);
  close(pipe_fds[1]);
  EXPECT_EQ(camsim_total_calls(), 0);

  Node node;
  const int copy = dup(node.fd());
  EXPECT_EQ(command(copy, 0x40043799u, nullptr), -ENOTTY);
  close(copy);
  EXPECT_EQ(camsim_call_count(CAMSIM_UNKNOWN_COMMAND), 1);

  EXPECT_EQ(access("/dev/galcore", F_OK), 0);
  ASSERT_EQ(camsim_set_galcore(0), 0);
  EXPECT_EQ(access("/dev/galcore", F_OK), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(DriverCommands, InjectedFaultsRefuseTheNextCalls) {
  Node node;
  ASSERT_EQ(camsim_inject_fault(CAMSIM_CREATE_OVERLAY, 2, EIO), 0);
  internal_overlay r = record(2, 8, 8);
  EXPECT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r), -EIO);
  EXPECT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r), -EIO);
  EXPECT_EQ(camsim_live_count(), 0);
  EXPECT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r), 0);
  EXPECT_EQ(camsim_live_count(), 1);
  EXPECT_EQ(camsim_call_count(CAMSIM_CREATE_OVERLAY), 3);
  EXPECT_EQ(camsim_call_count(CAMSIM_GET_OVERLAY), 0);
  EXPECT_EQ(camsim_inject_fault(CAMSIM_UNKNOWN_COMMAND, 1, EIO), -1);
}

}  // namespace
}  // namespace camsim_test
