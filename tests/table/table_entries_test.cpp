// Entries and handles, the rules of the priority-ordered handle sets, and the
// main table's change counter.
#include <functional>
#include <string>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

TEST_F(TableTest, HandlesAreTakenLowestFirstAndReused) {
  for (int expected = 1; expected <= 100; ++expected) {
    ASSERT_EQ(make(expected), expected);
  }
  uint32_t version = table_->version;
  EXPECT_EQ(version, 100u);
  EXPECT_EQ(make(7), -10);
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: No more handles available.\n"));
  EXPECT_EQ(table_->version, version);

  ASSERT_EQ(overlay_table_destroy_overlay(table_, 37), 0);
  ASSERT_EQ(overlay_table_destroy_overlay(table_, 5), 0);
  EXPECT_EQ(make(1), 5);
  EXPECT_EQ(make(1), 37);
  EXPECT_EQ(make(1), -10);
}

TEST_F(TableTest, CreationStoresTheDataAndRefusesUnknownTypes) {
  for (int32_t type : {0, 6, -1, 1000}) {
    EXPECT_EQ(make(OverlaySpec{.type = type}), -2) << type;
  }
  EXPECT_EQ(table_->version, 0u);
  EXPECT_EQ(table_->entries[0].in_use, 0u);
  EXPECT_TRUE(captured_logs().empty());

  for (int32_t type = OVERLAY_TYPE_PLAIN; type <= OVERLAY_TYPE_SCALABLE_IMAGE; ++type) {
    overlay_entry_data data = entry_data({.priority = 3 * type, .type = type, .kernel_id = type});
    int handle = overlay_table_create_overlay(table_, &data);
    ASSERT_EQ(handle, type);
    EXPECT_EQ(entry(handle).in_use, 1u);
    EXPECT_EQ(entry(handle).stream_count, 0u);
    EXPECT_EQ(std::memcmp(&entry(handle).data, &data, sizeof data), 0);
  }
}

// ---- the set rules, the same for every kind of set ----

struct SetKind {
  const char* name;
  std::function<int(overlay_table*, int)> add;
  std::function<int(overlay_table*, int)> remove;
  std::function<std::vector<int>(overlay_table*)> read;
};

void PrintTo(const SetKind& kind, std::ostream* out) { *out << kind.name; }

SetKind channel_kind(const char* name, unsigned channel) {
  return {name,
          [channel](overlay_table* t, int h) {
            return overlay_table_add_overlay_to_channel(t, h, channel);
          },
          [channel](overlay_table* t, int h) {
            return overlay_table_remove_overlay_from_channel(t, h, channel);
          },
          [channel](overlay_table* t) { return handles_of(t->channel_handles[channel]); }};
}

const SetKind kSetKinds[] = {
    {"global", overlay_table_add_overlay_globally, overlay_table_remove_overlay_globally,
     [](overlay_table* t) { return handles_of(t->global_handles); }},
    {"source", overlay_table_add_overlay_to_source, overlay_table_remove_overlay_from_source,
     [](overlay_table* t) { return handles_of(t->source_handles); }},
    channel_kind("channel0", 0),
    channel_kind("channel15", 15),
    {"stream4",
     [](overlay_table* t, int h) { return overlay_table_add_overlay_to_stream(t, h, 4); },
     [](overlay_table* t, int h) { return overlay_table_remove_overlay_from_stream(t, h, 4); },
     [](overlay_table*) { return read_stream(4); }},
};

class SetRules : public TableTest, public ::testing::WithParamInterface<SetKind> {
 protected:
  int add(int handle) { return GetParam().add(table_, handle); }
  int remove(int handle) { return GetParam().remove(table_, handle); }
  std::vector<int> members() { return GetParam().read(table_); }
};

TEST_P(SetRules, MembersStandByFallingPriorityLaterFirstAmongEquals) {
  int p5 = make(5);
  int p1 = make(1);
  int p3 = make(3);
  int later_p3 = make(3);
  for (int h : {p5, p1, p3}) {
    ASSERT_EQ(add(h), 0);
  }
  EXPECT_EQ(members(), set_of({p5, p3, p1}));
  ASSERT_EQ(add(later_p3), 0);
  EXPECT_EQ(members(), set_of({p5, later_p3, p3, p1}));
  // A second addition changes nothing.
  EXPECT_EQ(add(p3), 0);
  EXPECT_EQ(members(), set_of({p5, later_p3, p3, p1}));
}

TEST_P(SetRules, FullSetRefusesNewAndExistingMembers) {
  std::vector<int> handles;
  for (int i = 0; i < 8; ++i) {
    handles.push_back(make(i));
    ASSERT_EQ(add(handles.back()), 0);
  }
  std::vector<int> full = members();
  EXPECT_EQ(full, std::vector<int>(handles.rbegin(), handles.rend()));
  EXPECT_EQ(add(make(100)), -9);
  EXPECT_EQ(add(handles[3]), -9);
  EXPECT_EQ(members(), full);
}

TEST_P(SetRules, RemovalClosesTheGap) {
  int a = make(3);
  int b = make(2);
  int c = make(1);
  for (int h : {a, b, c}) {
    ASSERT_EQ(add(h), 0);
  }
  EXPECT_EQ(remove(b), 0);
  EXPECT_EQ(members(), set_of({a, c}));
  EXPECT_EQ(remove(b), -6);
  EXPECT_EQ(remove(a), 0);
  EXPECT_EQ(members(), set_of({c}));
  // Removal accepts a member whose entry is free.
  entry(c).in_use = 0;
  EXPECT_EQ(remove(c), 0);
  EXPECT_EQ(members(), set_of({}));
}

TEST_P(SetRules, InvalidAndFreeHandlesAreRefused) {
  int h = make(1);
  ASSERT_EQ(add(h), 0);
  for (int bad : {0, 101, -1, 1000}) {
    EXPECT_EQ(add(bad), -6) << bad;
    EXPECT_EQ(remove(bad), -6) << bad;
  }
  EXPECT_EQ(add(h + 1), -6);  // never created
  EXPECT_EQ(members(), set_of({h}));
}

// A member whose entry was freed behind the set's back gives way to the next
// addition.
TEST_P(SetRules, StaleMemberLeavesOnAddition) {
  int p5 = make(5);
  int p3 = make(3);
  int p1 = make(1);
  for (int h : {p5, p3, p1}) {
    ASSERT_EQ(add(h), 0);
  }
  int p2 = make(2);
  entry(p3).in_use = 0;
  ASSERT_EQ(add(p2), 0);
  EXPECT_EQ(members(), set_of({p5, p2, p1}));
}

INSTANTIATE_TEST_SUITE_P(AllSets, SetRules, ::testing::ValuesIn(kSetKinds),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- channels, destruction, update and look-ups ----

TEST_F(TableTest, DestroyEndsEveryMembership) {
  int doomed = make(5);
  int other = make(1);
  for (int h : {doomed, other}) {
    ASSERT_EQ(overlay_table_add_overlay_globally(table_, h), 0);
    ASSERT_EQ(overlay_table_add_overlay_to_source(table_, h), 0);
    for (unsigned c = 0; c < 16; ++c) {
      ASSERT_EQ(overlay_table_add_overlay_to_channel(table_, h, c), 0);
    }
    for (int s : {0, 1}) {
      ASSERT_EQ(overlay_table_add_overlay_to_stream(table_, h, s), 0);
    }
  }
  unsigned stream_versions[2];
  for (int s : {0, 1}) {
    ASSERT_EQ(overlay_table_get_stream_table_version(s, &stream_versions[s]), 0);
  }
  uint32_t version = table_->version;

  ASSERT_EQ(overlay_table_destroy_overlay(table_, doomed), 0);
  EXPECT_EQ(table_->version, version + 1);
  EXPECT_EQ(handles_of(table_->global_handles), set_of({other}));
  EXPECT_EQ(handles_of(table_->source_handles), set_of({other}));
  for (unsigned c = 0; c < 16; ++c) {
    EXPECT_EQ(handles_of(table_->channel_handles[c]), set_of({other})) << c;
  }
  for (int s : {0, 1}) {
    EXPECT_EQ(read_stream(s), set_of({other})) << s;
    unsigned now = 0;
    ASSERT_EQ(overlay_table_get_stream_table_version(s, &now), 0);
    EXPECT_EQ(now, stream_versions[s] + 1) << s;
  }
  const overlay_table_entry zero{};
  EXPECT_EQ(std::memcmp(&entry(doomed), &zero, sizeof zero), 0);
  EXPECT_EQ(entry(other).stream_count, 2u);
}

TEST_F(TableTest, DestroyOfInvalidFreeOrLoneOverlays) {
  for (int bad : {0, 101, -3}) {
    clear_captured_logs();
    EXPECT_EQ(overlay_table_destroy_overlay(table_, bad), -6);
    EXPECT_TRUE(
        logged_once(LOG_ERR, "libzantrel: Not a valid handle (was " + std::to_string(bad) + ")\n"));
  }
  clear_captured_logs();
  EXPECT_EQ(overlay_table_destroy_overlay(table_, 9), 0);  // free
  int lone = make(2);
  uint32_t version = table_->version;
  EXPECT_EQ(overlay_table_destroy_overlay(table_, lone), 0);
  EXPECT_EQ(table_->version, version);  // was in no set
  EXPECT_EQ(entry(lone).in_use, 0u);
  EXPECT_TRUE(captured_logs().empty());
}

// Every step of this script starts where the previous one left the table.
TEST_F(TableTest, VersionCountsExactlyTheListedChanges) {
  int a = make(3);
  int b = make(2);
  ASSERT_EQ(table_->version, 2u);
  overlay_entry_data data = entry_data({.priority = 3, .kernel_id = 4});
  overlay_palette_color color{1, 2, 3, 4, 1};
  overlay_table_entry entries[8];
  int32_t handles[8];
  struct Step {
    const char* what;
    std::function<int()> op;
    int result;
    uint32_t raised;
  };
  overlay_table* t = table_;
  const Step steps[] = {
      {"create", [&] { return make(1); }, 3, 1},
      {"update", [&] { return overlay_table_update_overlay(t, a, &data, nullptr); }, 0, 1},
      {"add global", [&] { return overlay_table_add_overlay_globally(t, a); }, 0, 1},
      {"add global again", [&] { return overlay_table_add_overlay_globally(t, a); }, 0, 1},
      {"remove global non-member", [&] { return overlay_table_remove_overlay_globally(t, b); }, -6,
       0},
      {"add free handle", [&] { return overlay_table_add_overlay_globally(t, 50); }, -6, 0},
      {"add channel", [&] { return overlay_table_add_overlay_to_channel(t, b, 7); }, 0, 1},
      {"bad channel", [&] { return overlay_table_add_overlay_to_channel(t, b, 16); }, -4, 0},
      {"bad handle and channel", [&] { return overlay_table_add_overlay_to_channel(t, 0, 16); }, -6,
       0},
      {"remove channel", [&] { return overlay_table_remove_overlay_from_channel(t, b, 7); }, 0, 1},
      {"add source", [&] { return overlay_table_add_overlay_to_source(t, b); }, 0, 0},
      {"remove source", [&] { return overlay_table_remove_overlay_from_source(t, b); }, 0, 0},
      {"palette", [&] { return overlay_table_set_palette_color(t, &color, 3); }, 0, 0},
      {"first stream addition", [&] { return overlay_table_add_overlay_to_stream(t, a, 1); }, 0, 1},
      {"second stream addition", [&] { return overlay_table_add_overlay_to_stream(t, b, 1); }, 0,
       0},
      {"stream removal", [&] { return overlay_table_remove_overlay_from_stream(t, b, 1); }, 0, 0},
      {"another new stream", [&] { return overlay_table_add_overlay_to_stream(t, b, 2); }, 0, 1},
      {"gathering",
       [&] { return overlay_table_get_entries(t, nullptr, entries, handles, 0, 0, 0); }, 0, 0},
      {"remove global", [&] { return overlay_table_remove_overlay_globally(t, a); }, 0, 1},
      {"destroy stream-only member", [&] { return overlay_table_destroy_overlay(t, b); }, 0, 0},
      {"remove stream table", [&] { return overlay_table_remove_stream(1); }, 0, 0},
  };
  for (const Step& step : steps) {
    uint32_t before = table_->version;
    EXPECT_EQ(step.op(), step.result) << step.what;
    EXPECT_EQ(table_->version - before, step.raised) << step.what;
  }
  table_->version = 0xFFFFFFFFu;
  EXPECT_EQ(overlay_table_add_overlay_to_channel(t, a, 0), 0);
  EXPECT_EQ(table_->version, 0u);
}

TEST_F(TableTest, UpdateReportsOnlyAReplacedNonZeroKernelId) {
  struct Case {
    int32_t old_id;
    int32_t new_id;
    int reported;
  };
  for (const Case& c : {Case{0, 5, -77}, Case{5, 5, -77}, Case{5, 7, 5}, Case{5, 0, 5}}) {
    int h = make(OverlaySpec{.priority = 1, .kernel_id = c.old_id});
    entry(h).stream_count = 3;
    overlay_entry_data data = entry_data({.priority = 8, .type = 4, .kernel_id = c.new_id});
    int replaced = -77;
    EXPECT_EQ(overlay_table_update_overlay(table_, h, &data, &replaced), 0);
    EXPECT_EQ(replaced, c.reported) << c.old_id << " -> " << c.new_id;
    EXPECT_EQ(std::memcmp(&entry(h).data, &data, sizeof data), 0);
    EXPECT_EQ(entry(h).in_use, 1u);
    EXPECT_EQ(entry(h).stream_count, 3u);
  }
  overlay_entry_data data = entry_data({.priority = 4});
  EXPECT_EQ(overlay_table_update_overlay(table_, 0, &data, nullptr), -6);
  EXPECT_EQ(overlay_table_update_overlay(table_, 101, &data, nullptr), -6);
  // A free slot takes the data and stays free.
  EXPECT_EQ(overlay_table_get_entry(table_, 60), &table_->entries[59]);
  EXPECT_EQ(overlay_table_update_overlay(table_, 60, &data, nullptr), 0);
  EXPECT_EQ(entry(60).in_use, 0u);
  EXPECT_EQ(entry(60).data.description.ovl.priority, 4);
  EXPECT_EQ(overlay_table_get_entry(table_, 0), nullptr);
  EXPECT_EQ(overlay_table_get_entry(table_, 101), nullptr);
}

TEST_F(TableTest, PaletteCopyStaysInsideItsSixteenSlots) {
  unsigned char after[sizeof table_->table_mutex];
  std::memcpy(after, table_->table_mutex, sizeof after);
  for (unsigned i = 0; i < 16; ++i) {
    overlay_palette_color color{static_cast<uint8_t>(i), 0x11, 0x22, 0x33, i * 7};
    ASSERT_EQ(overlay_table_set_palette_color(table_, &color, i), 0);
  }
  overlay_palette_color refused{0xEE, 0xEE, 0xEE, 0xEE, 0xEEEEEEEE};
  EXPECT_EQ(overlay_table_set_palette_color(table_, &refused, 16), -2);
  EXPECT_EQ(overlay_table_set_palette_color(table_, &refused, 0xFFFFFFFFu), -2);
  EXPECT_EQ(std::memcmp(after, table_->table_mutex, sizeof after), 0);

  overlay_palette_color all[16];
  ASSERT_EQ(overlay_table_palette_get_all_colors(table_, all), 0);
  for (unsigned i = 0; i < 16; ++i) {
    EXPECT_EQ(all[i].alpha, i);
    EXPECT_EQ(all[i].green, 0x22);
    EXPECT_EQ(all[i].flag, i * 7);
  }
  EXPECT_EQ(table_->version, 0u);
}

}  // namespace
}  // namespace zantrel::test
