// Stream tables, the per-stream gathering of overlays by priority and filter,
// and the source-set queries.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

constexpr unsigned kAll = OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN;

class StreamTest : public TableTest {
 protected:
  void TearDown() override {
    if (stream_ != MAP_FAILED) {
      overlay_table_unmap_stream(stream_);
    }
    TableTest::TearDown();
  }
  overlay_stream_table* map_stream(int stream) {
    if (stream_ != MAP_FAILED) {
      overlay_table_unmap_stream(stream_);
    }
    stream_ = overlay_table_map_stream(stream);
    return stream_;
  }
  unsigned stream_version(int stream) {
    unsigned version = 0xDEAD;
    EXPECT_EQ(overlay_table_get_stream_table_version(stream, &version), 0);
    return version;
  }
  // Gathers for channel 2 with the given stream table; handles, -6 when empty.
  std::vector<int> gather(overlay_stream_table* stream, unsigned filter = kAll,
                          unsigned channel = 2) {
    int32_t handles[8];
    EXPECT_EQ(overlay_table_get_entries(table_, stream, entries_, handles, channel, 0, filter), 0);
    return {handles, handles + 8};
  }
  static std::vector<int> found(std::initializer_list<int> handles) {
    std::vector<int> out(handles);
    out.resize(8, -6);
    return out;
  }

  overlay_stream_table* stream_ = static_cast<overlay_stream_table*>(MAP_FAILED);
  overlay_table_entry entries_[8];
};

// ---- stream tables ----

TEST_F(StreamTest, FirstAdditionMakesAnActiveStreamTable) {
  int a = make(1);
  int b = make(2);
  EXPECT_EQ(map_stream(2), MAP_FAILED);
  uint32_t version = table_->version;
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, 2), 0);
  struct stat st {};
  ASSERT_EQ(stat("/dev/shm/ovl_strm_2", &st), 0);
  EXPECT_EQ(st.st_size, 16);
  ASSERT_NE(map_stream(2), MAP_FAILED);
  EXPECT_EQ(stream_->active, 1u);
  EXPECT_EQ(stream_->version, 1u);
  EXPECT_EQ(handles_of(stream_->handles), set_of({a}));
  EXPECT_EQ(table_->version, version + 1);
  EXPECT_EQ(entry(a).stream_count, 1u);

  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, b, 2), 0);
  EXPECT_EQ(stream_->version, 2u);
  EXPECT_EQ(table_->version, version + 1);
  EXPECT_EQ(handles_of(stream_->handles), set_of({b, a}));

  // Again for a member: set unchanged, counters raised.
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, 2), 0);
  EXPECT_EQ(handles_of(stream_->handles), set_of({b, a}));
  EXPECT_EQ(stream_->version, 3u);
  EXPECT_EQ(entry(a).stream_count, 2u);

  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, -1), 0);
  EXPECT_TRUE(shm_file_exists("/ovl_strm_-1"));
  EXPECT_TRUE(captured_logs().empty());
}

TEST_F(StreamTest, NinthOverlayOnAStreamChangesNothing) {
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, make(i), 5), 0);
  }
  int ninth = make(50);
  ASSERT_NE(map_stream(5), MAP_FAILED);
  std::vector<int> before = handles_of(stream_->handles);
  uint32_t version = table_->version;
  EXPECT_EQ(overlay_table_add_overlay_to_stream(table_, ninth, 5), -9);
  EXPECT_EQ(handles_of(stream_->handles), before);
  EXPECT_EQ(stream_->version, 8u);
  EXPECT_EQ(table_->version, version);
  EXPECT_EQ(entry(ninth).stream_count, 0u);
  EXPECT_EQ(overlay_table_add_overlay_to_stream(table_, 0, 5), -6);
  EXPECT_EQ(overlay_table_add_overlay_to_stream(table_, 60, 5), -6);  // free
  EXPECT_TRUE(captured_logs().empty());

  // A full stream set with a member whose entry became free is purged first.
  entry(before[3]).in_use = 0;
  EXPECT_EQ(overlay_table_add_overlay_to_stream(table_, ninth, 5), 0);
  std::vector<int> expected = before;
  expected.erase(expected.begin() + 3);
  expected.insert(expected.begin(), ninth);
  EXPECT_EQ(handles_of(stream_->handles), expected);
}

TEST_F(StreamTest, RemovalFromAStream) {
  int a = make(1);
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, 3), 0);
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, 3), 0);
  uint32_t version = table_->version;
  EXPECT_EQ(overlay_table_remove_overlay_from_stream(table_, a, 3), 0);
  EXPECT_EQ(stream_version(3), 3u);
  EXPECT_EQ(entry(a).stream_count, 1u);
  EXPECT_EQ(overlay_table_remove_overlay_from_stream(table_, a, 3), -6);
  EXPECT_EQ(stream_version(3), 3u);
  EXPECT_EQ(entry(a).stream_count, 1u);
  EXPECT_EQ(overlay_table_remove_overlay_from_stream(table_, 101, 3), -6);
  EXPECT_EQ(table_->version, version);
  EXPECT_TRUE(captured_logs().empty());
}

TEST_F(StreamTest, AStreamWithoutTable) {
  int a = make(1);
  EXPECT_EQ(overlay_table_remove_overlay_from_stream(table_, a, 9), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Could not map the stream overlay table.\n"));
  clear_captured_logs();
  unsigned version = 1234;
  EXPECT_EQ(overlay_table_get_stream_table_version(9, &version), -5);
  EXPECT_EQ(version, 1234u);
  EXPECT_EQ(overlay_table_remove_stream(9), -5);
  EXPECT_EQ(overlay_table_map_stream(9), MAP_FAILED);
  EXPECT_TRUE(captured_logs().empty());
}

// Someone else's empty "ovl_strm_7": every operation refuses it and goes on.
TEST_F(StreamTest, EmptyStreamFileOfAnotherProcessIsNeverMapped) {
  int fd = open("/dev/shm/ovl_strm_7", O_RDWR | O_CREAT, 0666);
  ASSERT_GE(fd, 0);
  close(fd);
  int a = make(4);
  // Stream 8's file comes after the empty one in the sweep of a destruction.
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, 8), 0);
  uint32_t version = table_->version;

  EXPECT_EQ(overlay_table_map_stream(7), MAP_FAILED);
  EXPECT_EQ(overlay_table_add_overlay_to_stream(table_, a, 7), -1);
  EXPECT_EQ(overlay_table_remove_overlay_from_stream(table_, a, 7), -1);
  unsigned stream_version = 0;
  EXPECT_EQ(overlay_table_get_stream_table_version(7, &stream_version), -1);
  EXPECT_EQ(table_->version, version);
  EXPECT_EQ(entry(a).stream_count, 1u);
  EXPECT_EQ(gather(nullptr), found({}));
  ASSERT_EQ(overlay_table_destroy_overlay(table_, a), 0);
  EXPECT_EQ(read_stream(8), set_of({}));
  EXPECT_EQ(overlay_table_init(), 0);
  EXPECT_FALSE(shm_file_exists("/ovl_strm_7"));
}

// ---- gathering a stream's overlays ----

TEST_F(StreamTest, MergesGlobalChannelAndStreamByPriority) {
  int global = make(1);
  int channel = make(5);
  int stream = make(3);
  ASSERT_EQ(overlay_table_add_overlay_globally(table_, global), 0);
  ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, channel, 2), 0);
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, stream, 0), 0);
  ASSERT_NE(map_stream(0), MAP_FAILED);

  std::memset(entries_, 0xAB, sizeof entries_);
  EXPECT_EQ(gather(stream_), found({channel, stream, global}));
  for (int i = 0; i < 3; ++i) {
    int h = std::vector<int>{channel, stream, global}[i];
    EXPECT_EQ(std::memcmp(&entries_[i], &entry(h), sizeof entries_[i]), 0) << i;
  }
  // Empty places: in_use and kernel_id cleared, the rest left alone.
  for (int i = 3; i < 8; ++i) {
    EXPECT_EQ(entries_[i].in_use, 0u);
    EXPECT_EQ(entries_[i].data.kernel_id, 0);
    EXPECT_EQ(entries_[i].data.width, 0xABABABABu);
  }
  // Other channels and streams do not see the channel or stream members.
  EXPECT_EQ(gather(nullptr, kAll, 3), found({global}));
}

TEST_F(StreamTest, EqualPrioritiesListStreamThenChannelThenGlobalAndEachOnce) {
  int g1 = make(2);
  int g2 = make(2);
  int c = make(2);
  int s = make(2);
  int everywhere = make(2);
  for (int h : {g1, g2, everywhere}) {
    ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
  }
  for (int h : {c, everywhere}) {
    ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, 2), 0);
  }
  for (int h : {s, everywhere}) {
    ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, h, 1), 0);
  }
  ASSERT_NE(map_stream(1), MAP_FAILED);
  ASSERT_EQ(handles_of(table_->global_handles), set_of({everywhere, g2, g1}));
  // The overlay in all three sets keeps the place of its global membership.
  EXPECT_EQ(gather(stream_), found({s, c, everywhere, g2, g1}));
  // Inactive or absent stream tables count for nothing.
  EXPECT_EQ(gather(nullptr), found({c, everywhere, g2, g1}));
  stream_->active = 0;
  EXPECT_EQ(gather(stream_), found({c, everywhere, g2, g1}));
  stream_->active = 2;
  EXPECT_EQ(gather(stream_), found({c, everywhere, g2, g1}));
}

TEST_F(StreamTest, MoreThanEightAdmittedYieldTheEightHighest) {
  // 24 members, priorities interleaved over the three sets.
  for (int i = 0; i < 24; ++i) {
    int h = make((i * 7) % 24);
    int rc = i % 3 == 0   ? overlay_table_add_overlay_globally(table_, h)
             : i % 3 == 1 ? overlay_table_add_overlay_to_channel(table_, h, 2)
                          : overlay_table_add_overlay_to_stream(table_, h, 0);
    ASSERT_EQ(rc, 0) << i;
  }
  ASSERT_NE(map_stream(0), MAP_FAILED);
  std::vector<int> got = gather(stream_);
  for (int i = 0; i < 8; ++i) {
    ASSERT_GT(got[i], 0);
    EXPECT_EQ(entry(got[i]).data.description.ovl.priority, 23 - i) << i;
    EXPECT_EQ(entries_[i].data.description.ovl.priority, 23 - i) << i;
  }
}

struct FilterCase {
  int32_t type;
  uint32_t legacy;
  uint32_t ignore;
  unsigned filter;
  bool admitted;
};

const FilterCase kFilterCases[] = {
    {OVERLAY_TYPE_PLAIN, 0, 0, 4, true},
    {OVERLAY_TYPE_PLAIN, 0, 0, 3, false},
    {OVERLAY_TYPE_PLAIN, 1, 0, 1, false},
    {OVERLAY_TYPE_PLAIN, 0, 1, 0, true},
    {OVERLAY_TYPE_TEXT, 1, 0, 1, true},
    {OVERLAY_TYPE_TEXT, 1, 0, 6, false},
    {OVERLAY_TYPE_TEXT, 0, 0, 2, true},
    {OVERLAY_TYPE_TEXT, 0, 0, 5, false},
    {OVERLAY_TYPE_MODIFIABLE_TEXT, 2, 0, 2, true},
    {OVERLAY_TYPE_MODIFIABLE_TEXT, 2, 0, 1, false},
    {OVERLAY_TYPE_IMAGE, 0, 0, 4, false},
    {OVERLAY_TYPE_IMAGE, 0, 1, 0, true},
    {OVERLAY_TYPE_SCALABLE_IMAGE, 1, 0, 7, true},
    {OVERLAY_TYPE_SCALABLE_IMAGE, 0, 2, 1, false},
    {OVERLAY_TYPE_TEXT, 0, 0, 0xF8, false},
    {OVERLAY_TYPE_TEXT, 0, 0, 0xFFFFFFFF, true},
};

TEST_F(StreamTest, FilterAdmitsByTypeLegacyAndIgnoreFlag) {
  for (const FilterCase& c : kFilterCases) {
    SCOPED_TRACE(::testing::Message() << "type " << c.type << " legacy " << c.legacy << " ignore "
                                      << c.ignore << " filter " << c.filter);
    int h = make(
        OverlaySpec{.priority = 1, .type = c.type, .legacy = c.legacy, .ignore_filter = c.ignore});
    EXPECT_EQ(zantrel::table::_overlay_entry_ok(&entry(h), c.filter), c.admitted ? 1 : 0);
    ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, 2), 0);
    EXPECT_EQ(gather(nullptr, c.filter), c.admitted ? found({h}) : found({}));
    ASSERT_EQ(overlay_table_destroy_overlay(table_, h), 0);
  }
  // A free member is never admitted, whatever the filter says.
  int h = make(OverlaySpec{.ignore_filter = 1});
  ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
  entry(h).in_use = 0;
  EXPECT_EQ(zantrel::table::_overlay_entry_ok(&entry(h), kAll), 0);
  EXPECT_EQ(gather(nullptr), found({}));
}

// A member filtered out makes the gathering re-sort that set in the table:
// members move back past equal keys, empty places stay where they are.
TEST_F(StreamTest, FilteredSetsAreResortedInPlace) {
  int a = make(OverlaySpec{.priority = 3});
  int b = make(OverlaySpec{.priority = 3});
  int plain = make(OverlaySpec{.priority = 1, .type = OVERLAY_TYPE_PLAIN});
  for (int h : {a, b, plain}) {
    ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
    ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, 2), 0);
    ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, h, 0), 0);
  }
  ASSERT_NE(map_stream(0), MAP_FAILED);
  const std::vector<int> added = set_of({b, a, plain});
  ASSERT_EQ(handles_of(table_->global_handles), added);

  // Nothing filtered out: nothing re-sorted.
  EXPECT_EQ(gather(stream_, kAll), found({b, a, plain}));
  EXPECT_EQ(handles_of(table_->global_handles), added);

  EXPECT_EQ(gather(stream_, OVERLAY_FILTER_NON_LEGACY), found({b, a}));
  const std::vector<int> swapped = set_of({a, b, plain});
  EXPECT_EQ(handles_of(table_->global_handles), swapped);
  EXPECT_EQ(handles_of(table_->channel_handles[2]), swapped);
  EXPECT_EQ(handles_of(stream_->handles), swapped);
  EXPECT_EQ(handles_of(table_->channel_handles[3]), set_of({}));

  // Holes and foreign bytes: the sort leaves holes and clears bytes that name
  // no entry (place 0 is not examined).
  int8_t* g = table_->global_handles;
  const int8_t image[8] = {static_cast<int8_t>(plain - 1),
                           -1,
                           static_cast<int8_t>(a - 1),
                           120,
                           static_cast<int8_t>(b - 1),
                           -7,
                           -1,
                           -1};
  std::memcpy(g, image, 8);
  EXPECT_EQ(gather(nullptr, OVERLAY_FILTER_NON_LEGACY), found({a, b}));
  EXPECT_EQ(handles_of(g), (std::vector<int>{plain, -1, a, -1, b, -1, -1, -1}));
}

TEST_F(StreamTest, ChannelOutsideTheSixteenGathersNothing) {
  int h = make(1);
  ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, 15), 0);
  EXPECT_EQ(gather(nullptr, kAll, 15), found({h}));
  for (unsigned channel : {16u, 17u, 0xFFFFFFFFu}) {
    int32_t handles[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(overlay_table_get_entries(table_, nullptr, entries_, handles, channel, 0, kAll), -4);
    EXPECT_EQ(std::vector<int>(handles, handles + 8), found({}));
  }
}

// ---- the source set ----

TEST_F(StreamTest, SourceEntriesLeaveHolesForFreeMembers) {
  int a = make(4);
  int b = make(3);
  int c = make(2);
  int d = make(1);
  for (int h : {a, b, c, d}) {
    ASSERT_EQ(overlay_table_add_overlay_to_source(table_, h), 0);
  }
  entry(b).in_use = 0;
  entry(d).in_use = 0;
  table_->source_handles[2] = -1;  // a hole before d
  table_->source_handles[3] = static_cast<int8_t>(d - 1);

  overlay_table_entry* sentinel = &table_->entries[99];
  std::vector<overlay_table_entry*> pointers(12, sentinel);
  EXPECT_EQ(overlay_table_get_source_entries(table_, pointers.data(), 0), 0);
  EXPECT_EQ(pointers[0], sentinel);
  EXPECT_EQ(overlay_table_get_source_entries(table_, pointers.data(), 3), 0);
  EXPECT_EQ(pointers[0], &entry(a));
  EXPECT_EQ(pointers[1], nullptr);
  EXPECT_EQ(pointers[2], nullptr);
  EXPECT_EQ(pointers[3], sentinel);
  EXPECT_EQ(handles_of(table_->source_handles), (std::vector<int>{a, -1, -1, d, -1, -1, -1, -1}));

  EXPECT_EQ(overlay_table_get_source_entries(table_, pointers.data(), 12), 0);
  EXPECT_EQ(pointers[3], nullptr);
  EXPECT_EQ(pointers[8], sentinel);
  EXPECT_EQ(handles_of(table_->source_handles), set_of({a}));

  // Membership test, with a member standing behind a hole.
  table_->source_handles[5] = static_cast<int8_t>(c - 1);
  EXPECT_EQ(overlay_table_is_source_entry(table_, a), 0);
  EXPECT_EQ(overlay_table_is_source_entry(table_, c), 0);
  EXPECT_EQ(overlay_table_is_source_entry(table_, b), -1);
  for (int bad : {0, 101, -1}) {
    EXPECT_EQ(overlay_table_is_source_entry(table_, bad), -1) << bad;
  }
  // Holes are ends of the members for additions.
  int e = make(9);
  ASSERT_EQ(overlay_table_add_overlay_to_source(table_, e), 0);
  EXPECT_EQ(handles_of(table_->source_handles), (std::vector<int>{e, a, -1, -1, -1, c, -1, -1}));
  EXPECT_EQ(table_->version, 5u);  // the five creations only
}

}  // namespace
}  // namespace zantrel::test
