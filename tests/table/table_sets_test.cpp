// Handle sets, destruction, which operations count as a change, stream
// tables, and the gathering of what a stream shows.
#include <sys/stat.h>

#include <tuple>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

struct SetKind {
  const char* name;
  int (*add)(overlay_table*, int);
  int (*remove)(overlay_table*, int);
  std::size_t offset;  // of a main-table set; 0 for stream 4
};
void PrintTo(const SetKind& kind, std::ostream* out) { *out << kind.name; }

const SetKind kSetKinds[] = {
    {"global", overlay_table_add_overlay_globally, overlay_table_remove_overlay_globally, 12},
    {"source", overlay_table_add_overlay_to_source, overlay_table_remove_overlay_from_source, 4},
    {"channel15",
     [](overlay_table* t, int h) { return overlay_table_add_overlay_to_channel(t, h, 15); },
     [](overlay_table* t, int h) { return overlay_table_remove_overlay_from_channel(t, h, 15); },
     20 + 15 * 8},
    {"stream4",
     [](overlay_table* t, int h) { return overlay_table_add_overlay_to_stream(t, h, 4); },
     [](overlay_table* t, int h) { return overlay_table_remove_overlay_from_stream(t, h, 4); }, 0},
};

class SetRules : public TableTest, public ::testing::WithParamInterface<SetKind> {
 protected:
  int add(int handle) { return GetParam().add(table_, handle); }
  int remove(int handle) { return GetParam().remove(table_, handle); }
  std::vector<int> members() {
    auto* bytes = reinterpret_cast<int8_t*>(table_);
    return GetParam().offset == 0 ? read_stream(4) : handles_of(bytes + GetParam().offset);
  }
};

TEST_P(SetRules, OrderFullSetRemovalAndStaleMembers) {
  int p5 = make(5), p1 = make(1), p3 = make(3), later_p3 = make(3), p2 = make(2);
  for (int h : {p5, p1, p3, later_p3, p3}) ASSERT_EQ(add(h), 0);
  EXPECT_EQ(members(), set_of({p5, later_p3, p3, p1}));
  for (int bad : {0, 101, 50}) EXPECT_EQ(add(bad), -6) << bad;
  EXPECT_EQ(remove(later_p3), 0);
  EXPECT_EQ(remove(later_p3), -6);
  EXPECT_EQ(members(), set_of({p5, p3, p1}));
  table_->entries[p3 - 1].in_use = 0;  // freed behind the set's back: the next addition replaces it
  ASSERT_EQ(add(p2), 0);
  EXPECT_EQ(members(), set_of({p5, p2, p1}));
  std::vector<int> full{p5, p2, p1};
  for (int i = 0; i < 5; ++i) {
    full.insert(full.begin() + 3, make(0));
    ASSERT_EQ(add(full[3]), 0);
  }
  int extra = make(9);
  EXPECT_EQ(add(extra), -9);
  EXPECT_EQ(add(p2), -9);
  EXPECT_EQ(members(), full);
  EXPECT_EQ(remove(p2), 0);
  EXPECT_EQ(members(), set_of({p5, p1, full[3], full[4], full[5], full[6], full[7]}));
  ASSERT_EQ(add(p2), 0);
  table_->entries[p1 - 1].in_use = 0;  // only a stream purges a stale member of a full set
  EXPECT_EQ(add(extra), GetParam().offset == 0 ? 0 : -9);
}

INSTANTIATE_TEST_SUITE_P(AllSets, SetRules, ::testing::ValuesIn(kSetKinds),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(TableTest, DestroyLeavesEverySetAndFreesTheLowestHandle) {
  int doomed = make(5), other = make(1);
  for (int h : {doomed, other}) {
    ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
    ASSERT_EQ(overlay_table_add_overlay_to_source(table_, h), 0);
    for (unsigned c = 0; c < 16; ++c)
      EXPECT_EQ(overlay_table_add_overlay_to_channel(table_, h, c), 0);
    for (int s : {0, 1}) ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, h, s), 0);
  }
  ASSERT_EQ(overlay_table_destroy_overlay(table_, doomed), 0);
  for (int i = 0; i < 18; ++i) {  // the source, global and channel sets at bytes 4 to 147
    EXPECT_EQ(handles_of(reinterpret_cast<int8_t*>(table_) + 4 + 8 * i), set_of({other})) << i;
  }
  for (int s : {0, 1}) EXPECT_EQ(read_stream(s), set_of({other})) << s;
  EXPECT_EQ(make(1), doomed);  // the lowest free handle
  for (int h = 3; h <= 100; ++h) ASSERT_EQ(make(1), h);
  ASSERT_EQ(overlay_table_destroy_overlay(table_, 37), 0);
  EXPECT_EQ(make(1), 37);
  EXPECT_EQ(make(1), -10);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: No more handles available.\n"));
}

TEST_F(TableTest, VersionCountsOnlyChangesTheEncoderReads) {
  int a = make(3), b = make(2), in_global = make(5), in_channel = make(6);
  ASSERT_EQ(overlay_table_add_overlay_globally(table_, in_global), 0);
  ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, in_channel, 15), 0);
  overlay_entry_data data = entry_data(4), bad_type = entry_data(0, 6);
  overlay_palette_color color{1, 2, 3, 4, 0};
  overlay_table* t = table_;
  const std::tuple<const char*, std::function<int()>, int, uint32_t> steps[] = {
      {"create", [&] { return make(1); }, 5, 1},
      {"create, bad type", [&] { return overlay_table_create_overlay(t, &bad_type); }, -2, 0},
      {"update", [&] { return overlay_table_update_overlay(t, a, &data, nullptr); }, 0, 1},
      {"add global", [&] { return overlay_table_add_overlay_globally(t, a); }, 0, 1},
      {"add global again", [&] { return overlay_table_add_overlay_globally(t, a); }, 0, 1},
      {"add channel", [&] { return overlay_table_add_overlay_to_channel(t, b, 7); }, 0, 1},
      {"bad channel", [&] { return overlay_table_add_overlay_to_channel(t, b, 16); }, -4, 0},
      {"remove channel", [&] { return overlay_table_remove_overlay_from_channel(t, b, 7); }, 0, 1},
      {"add source", [&] { return overlay_table_add_overlay_to_source(t, b); }, 0, 0},
      {"palette", [&] { return overlay_table_set_palette_color(t, &color, 3); }, 0, 0},
      {"new stream", [&] { return overlay_table_add_overlay_to_stream(t, a, 1); }, 0, 1},
      {"active stream", [&] { return overlay_table_add_overlay_to_stream(t, b, 1); }, 0, 0},
      {"stream removal", [&] { return overlay_table_remove_overlay_from_stream(t, b, 1); }, 0, 0},
      {"gathering", [&] { return gather(nullptr)[0]; }, in_global, 0},
      {"remove global", [&] { return overlay_table_remove_overlay_globally(t, a); }, 0, 1},
      {"destroy, in a stream only", [&] { return overlay_table_destroy_overlay(t, a); }, 0, 0},
      {"destroy, in the global set", [&] { return overlay_table_destroy_overlay(t, in_global); }, 0,
       1},
      {"destroy, in a channel", [&] { return overlay_table_destroy_overlay(t, in_channel); }, 0, 1},
      {"destroy, in no set", [&] { return overlay_table_destroy_overlay(t, 5); }, 0, 0},
  };
  for (const auto& [what, op, result, raised] : steps) {
    uint32_t before = table_->version;
    EXPECT_EQ(op(), result) << what;
    EXPECT_EQ(table_->version - before, raised) << what;
  }
}

TEST_F(TableTest, StreamTablesAreMadeOnFirstUseAndForeignOnesRefused) {
  int a = make(1), b = make(2);
  const mode_t mask = umask(022);  // open to every user, as the main table is
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, a, 2), 0);
  umask(mask);
  struct stat st {};
  EXPECT_TRUE(stat("/dev/shm/ovl_strm_2", &st) == 0 && (st.st_mode & 0777) == 0666);
  overlay_stream_table* stream = overlay_table_map_stream(2);
  ASSERT_NE(stream, MAP_FAILED);
  EXPECT_EQ(std::tuple(stream->active, stream->version), std::tuple(1u, 1u));
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, b, 2), 0);
  EXPECT_EQ(stream->version, 2u);
  EXPECT_EQ(handles_of(stream->handles), set_of({b, a}));
  EXPECT_EQ(table_->entries[b - 1].stream_count, 1u);
  ASSERT_EQ(overlay_table_remove_overlay_from_stream(table_, b, 2), 0);
  EXPECT_EQ(table_->entries[b - 1].stream_count, 0u) << "counted out of the stream";
  ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, b, 2), 0);
  overlay_table_unmap_stream(stream);
  EXPECT_EQ(overlay_table_remove_overlay_from_stream(table_, a, 9), -1);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: Could not map the stream overlay table.\n"));
  clear_captured_logs();
  unsigned version = 0;
  EXPECT_EQ(overlay_table_get_stream_table_version(9, &version), -5);
  EXPECT_EQ(overlay_table_remove_stream(9), -5);
  EXPECT_TRUE(captured_logs().empty());
  // Another process's empty "ovl_strm_7" is never mapped, also not when a
  // destruction sweeps the stream tables.
  close(shm_open("/ovl_strm_7", O_CREAT | O_RDWR, 0666));
  EXPECT_EQ(overlay_table_map_stream(7), MAP_FAILED);
  EXPECT_EQ(overlay_table_add_overlay_to_stream(table_, a, 7), -1);
  EXPECT_EQ(overlay_table_destroy_overlay(table_, a), 0);
  EXPECT_EQ(read_stream(2), set_of({b}));
}

// Nine admitted: the eight highest, stream before channel before global among
// equals, a member of several sets once.
TEST_F(TableTest, GatheringMergesByPriorityThenStreamChannelGlobal) {
  int c5 = make(5), g1 = make(1), g3 = make(3), c3 = make(3), s3 = make(3), all3 = make(3);
  int z1 = make(0), z2 = make(0), z3 = make(0);
  for (int h : {g1, g3, all3, z1, z2, z3})
    ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
  for (int h : {c5, c3, all3}) ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, 2), 0);
  for (int h : {s3, all3}) ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, h, 0), 0);
  overlay_stream_table* stream = overlay_table_map_stream(0);
  ASSERT_NE(stream, MAP_FAILED);
  EXPECT_EQ(gather(stream), (std::vector<int>{c5, s3, c3, all3, g3, g1, z3, z2}));
  EXPECT_EQ(std::memcmp(&entries_[1], &table_->entries[s3 - 1], sizeof entries_[1]), 0);
  EXPECT_EQ(gather(nullptr, 7, 3), set_of({all3, g3, g1, z3, z2, z1}, -6));
  stream->active = 0;
  EXPECT_EQ(gather(stream), (std::vector<int>{c5, c3, all3, g3, g1, z3, z2, z1}));
  overlay_table_unmap_stream(stream);
}

TEST_F(TableTest, FilterAdmitsByTypeLegacyAndIgnoreFlagAndResortsWhatItDrops) {
  const std::tuple<int32_t, uint32_t, uint32_t, unsigned, bool> cases[] = {
      {OVERLAY_TYPE_PLAIN, 0, 0, 4, true},  {OVERLAY_TYPE_PLAIN, 0, 0, 3, false},
      {OVERLAY_TYPE_PLAIN, 1, 0, 1, false}, {OVERLAY_TYPE_PLAIN, 0, 1, 0, true},
      {OVERLAY_TYPE_TEXT, 1, 0, 1, true},   {OVERLAY_TYPE_TEXT, 1, 0, 6, false},
      {OVERLAY_TYPE_TEXT, 0, 0, 2, true},   {OVERLAY_TYPE_TEXT, 0, 0, 5, false},
      {OVERLAY_TYPE_IMAGE, 2, 0, 2, true},  {OVERLAY_TYPE_IMAGE, 2, 0, 1, false},
      {OVERLAY_TYPE_IMAGE, 0, 2, 1, false}, {OVERLAY_TYPE_SCALABLE_IMAGE, 0, 1, 0, true},
  };
  for (const auto& [type, legacy, ignore, filter, admitted] : cases) {
    int h = make(1, type, legacy, ignore);
    ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, 2), 0);
    EXPECT_EQ(gather(nullptr, filter), admitted ? set_of({h}, -6) : set_of({}, -6))
        << "type " << type << " legacy " << legacy << " ignore " << ignore << " filter " << filter;
    ASSERT_EQ(overlay_table_destroy_overlay(table_, h), 0);
  }
  // Only a set that lost a member to the filter is re-sorted, reversing equals.
  int a = make(3), b = make(3), plain = make(1, OVERLAY_TYPE_PLAIN);
  for (int h : {a, b, plain}) ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
  EXPECT_EQ(gather(nullptr, 7), set_of({b, a, plain}, -6));
  EXPECT_EQ(handles_of(table_->global_handles), set_of({b, a, plain}));
  EXPECT_EQ(gather(nullptr, OVERLAY_FILTER_NON_LEGACY), set_of({b, a}, -6));
  EXPECT_EQ(handles_of(table_->global_handles), set_of({a, b, plain}));
}

}  // namespace
}  // namespace zantrel::test
