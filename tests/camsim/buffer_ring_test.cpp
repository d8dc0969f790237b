// Buffers: the get/fill/submit ring, what the hardware shows, and the arena.
#include <cstring>
#include <set>
#include <vector>

#include "camsim_test_util.h"

namespace camsim_test {
namespace {

class BufferRing : public CamsimTest, public ::testing::WithParamInterface<std::uint32_t> {};

TEST_P(BufferRing, HandsOutTheOldestBufferNotShown) {
  const std::uint32_t buffers = GetParam();
  Node node;
  const std::uint32_t id = create(node.fd(), record(2, 64, 64, buffers));
  const std::uint32_t size = 64 * 64;
  std::vector<unsigned char> seen(size);
  EXPECT_EQ(camsim_read_shown_buffer(id, seen.data(), size), CAMSIM_NOTHING_SHOWN);

  std::vector<int> offsets;
  int shown = -1;
  for (int round = 0; round < 7; ++round) {
    const int offset = fill_and_submit(
        node.fd(), id, size,
        [round](unsigned char* p, std::uint32_t n) { std::memset(p, 0x10 + round, n); });
    ASSERT_GT(offset, 0);
    EXPECT_EQ(offset % 4096, 0);
    if (buffers > 1) {
      EXPECT_NE(offset, shown) << "round " << round;
    }
    offsets.push_back(offset);
    shown = offset;
    ASSERT_EQ(camsim_read_shown_buffer(id, seen.data(), size), static_cast<long>(size));
    EXPECT_EQ(seen[0], 0x10 + round);
    EXPECT_EQ(seen[size - 1], 0x10 + round);
  }
  // With a ring the buffers take turns in order; with one buffer it is
  // always that buffer.
  EXPECT_EQ(std::set<int>(offsets.begin(), offsets.end()).size(), buffers);
  for (std::size_t i = buffers; i < offsets.size(); ++i)
    EXPECT_EQ(offsets[i], offsets[i - buffers]);

  camsim_overlay_info info{};
  ASSERT_EQ(camsim_get_overlay_info(id, &info), 0);
  EXPECT_EQ(info.submit_count, 7u);
  EXPECT_EQ(static_cast<int>(info.buffer_offsets[info.shown]), shown);
}

INSTANTIATE_TEST_SUITE_P(OneAndThree, BufferRing, ::testing::Values(1u, 3u));

TEST_F(CamsimTest, WriterNeverGetsTheShownBufferWhileAnotherIsBeingFilled) {
  Node node;
  const std::uint32_t id = create(node.fd(), record(4, 16, 16, 3));
  const int first = get_buffer(node.fd(), id);
  ASSERT_EQ(submit(node.fd(), id, static_cast<std::uint32_t>(first)), 0);
  const int filling = get_buffer(node.fd(), id);  // not submitted yet
  const int spare = get_buffer(node.fd(), id);
  EXPECT_NE(filling, first);
  EXPECT_NE(spare, first);
  EXPECT_NE(spare, filling);
  // The shown buffer is now the one handed out longest ago; the next
  // writer still gets the oldest of the others.
  EXPECT_EQ(get_buffer(node.fd(), id), filling);
}

TEST_F(CamsimTest, SubmitRefusesBuffersOfOtherOverlays) {
  Node node;
  const std::uint32_t a = create(node.fd(), record(2, 16, 16, 2));
  const std::uint32_t b = create(node.fd(), record(2, 16, 16, 2));
  const int b_offset = get_buffer(node.fd(), b);
  ASSERT_GT(b_offset, 0);
  EXPECT_EQ(submit(node.fd(), a, static_cast<std::uint32_t>(b_offset)), -EINVAL);
  EXPECT_EQ(submit(node.fd(), a, static_cast<std::uint32_t>(b_offset) + 1), -EINVAL);
  EXPECT_EQ(submit(node.fd(), b, static_cast<std::uint32_t>(b_offset), 7), 0);
  camsim_overlay_info info{};
  ASSERT_EQ(camsim_get_overlay_info(b, &info), 0);
  EXPECT_EQ(info.last_param, 7u);
  EXPECT_EQ(camsim_read_shown_buffer(a, nullptr, 0), CAMSIM_NOTHING_SHOWN);
  EXPECT_EQ(camsim_read_shown_buffer(999, nullptr, 0), CAMSIM_NO_OVERLAY);
}

TEST_F(CamsimTest, FullArenaRefusesAndFreedSpaceIsReused) {
  Node node;
  // Three buffers of 32 MiB each leave a quarter of the arena.
  const internal_overlay big = record(4, 4096, 2048, 3);
  const std::uint32_t first = create(node.fd(), big);
  internal_overlay r = big;
  EXPECT_EQ(command(node.fd(), CAM_IOC_CREATE_OVERLAY, &r), -ENOMEM);
  EXPECT_EQ(camsim_live_count(), 1);
  const std::uint32_t size = 4096 * 2048 * 4;
  ASSERT_GT(fill_and_submit(node.fd(), first, size,
                            [](unsigned char* p, std::uint32_t n) { std::memset(p, 0xEE, n); }),
            0);
  ASSERT_EQ(destroy(node.fd(), first), 0);
  const std::uint32_t again = create(node.fd(), big);
  ASSERT_NE(again, 0u);
  // Reused space does not show the previous owner's pixels.
  const int offset = get_buffer(node.fd(), again);
  ASSERT_GT(offset, 0);
  ASSERT_EQ(submit(node.fd(), again, static_cast<std::uint32_t>(offset)), 0);
  std::vector<unsigned char> seen(4096);
  ASSERT_EQ(camsim_read_shown_buffer(again, seen.data(), seen.size()), static_cast<long>(size));
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 4096);
}

}  // namespace
}  // namespace camsim_test
