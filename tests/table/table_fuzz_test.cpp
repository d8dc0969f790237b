// Tables that another process filled with arbitrary bytes: every entry, set,
// stream and query operation must stay inside the table and the caller's
// buffers, end, and write only bytes that name an entry or an empty place.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <random>
#include <string>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

constexpr int kStreams[] = {-1, 0, 1, 2, 3, 4};
constexpr std::size_t kSetBytes = 148 - 4;

class Fuzzer {
 public:
  Fuzzer(overlay_table* table, unsigned seed) : table_(table), rng_(seed) {}

  int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng_); }
  uint32_t word() { return static_cast<uint32_t>(rng_()); }

  // A set byte: empty, an entry, or something no entry is named by.
  int8_t handle_byte() {
    switch (pick(0, 5)) {
      case 0:
      case 1:
        return -1;
      case 2:
      case 3:
        return static_cast<int8_t>(pick(0, 15));
      case 4:
        return static_cast<int8_t>(pick(100, 127));
      default:
        return static_cast<int8_t>(pick(-128, 99));
    }
  }
  template <typename T>
  T one_of(std::initializer_list<T> values, T other) {
    int i = pick(0, static_cast<int>(values.size()));
    return i == static_cast<int>(values.size()) ? other : values.begin()[i];
  }

  // Random bytes over everything but table_mutex, shaped so that sets name
  // entries that are in use often enough for the operations to do work.
  void randomise_table() {
    auto* bytes = reinterpret_cast<unsigned char*>(table_);
    for (std::size_t i = 0; i < offsetof(overlay_table, table_mutex); ++i) {
      bytes[i] = static_cast<unsigned char>(rng_());
    }
    for (std::size_t i = 4; i < 148; ++i) {
      bytes[i] = static_cast<unsigned char>(handle_byte());
    }
    for (overlay_table_entry& e : table_->entries) {
      e.in_use = one_of<uint32_t>({0, 1, 1}, word());
      e.stream_count = one_of<uint32_t>({0, 1, 2}, word());
      e.data.type = one_of<int32_t>({-1, 0, 1, 2, 3, 4, 5, 6, 9}, static_cast<int32_t>(word()));
      e.data.kernel_id = one_of<int32_t>({0, 1, 2}, static_cast<int32_t>(word()));
      overlay& ovl = e.data.description.ovl;
      ovl.priority =
          one_of<int32_t>({-1, 0, 1, 2, 3, INT_MIN, INT_MAX}, static_cast<int32_t>(word()));
      ovl.ignore_stream_filter = one_of<uint32_t>({0, 1}, word());
      ovl.legacy = one_of<uint32_t>({0, 1}, word());
    }
  }

  // Stream tables of every size, including too short to map.
  void randomise_streams() {
    for (int stream : kStreams) {
      std::string name = zantrel::table::stream_name(stream).data();
      shm_unlink(name.c_str());
      if (pick(0, 4) == 0) {
        continue;
      }
      int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0666);
      ASSERT_GE(fd, 0);
      off_t size = one_of<off_t>({16, 16, 16, 0, 8}, 4096);
      ASSERT_EQ(ftruncate(fd, size), 0);
      close(fd);
      if (size >= 16) {
        overlay_stream_table* s = overlay_table_map_stream(stream);
        ASSERT_NE(s, MAP_FAILED);
        s->active = one_of<uint32_t>({0, 1, 1}, word());
        s->version = word();
        for (int8_t& h : s->handles) {
          h = handle_byte();
        }
        overlay_table_unmap_stream(s);
      }
    }
  }

  // Every set byte of the main table and of the streams' tables.
  struct Sets {
    std::array<int8_t, kSetBytes> main;
    std::array<std::array<int8_t, 8>, std::size(kStreams)> streams;
  };
  Sets snapshot() const {
    Sets sets{};
    std::memcpy(sets.main.data(), table_->source_handles, kSetBytes);
    for (std::size_t i = 0; i < std::size(kStreams); ++i) {
      sets.streams[i].fill(-1);
      overlay_stream_table* s = overlay_table_map_stream(kStreams[i]);
      if (s != MAP_FAILED) {
        std::memcpy(sets.streams[i].data(), s->handles, 8);
        overlay_table_unmap_stream(s);
      }
    }
    return sets;
  }
  // Operations move bytes within a set; the only bytes they may bring into
  // a set are empty places and indexes of entries.
  static void expect_set_bounded(const int8_t* was, const int8_t* now, const std::string& where) {
    for (int i = 0; i < 8; ++i) {
      int8_t v = now[i];
      if (v >= -1 && v < 100) {
        continue;
      }
      EXPECT_LE(std::count(now, now + 8, v), std::count(was, was + 8, v))
          << where << " gained byte " << int{v};
    }
  }
  static void expect_written_bytes_bounded(const Sets& before, const Sets& after,
                                           const std::string& op) {
    for (std::size_t set = 0; set < kSetBytes / 8; ++set) {
      expect_set_bounded(&before.main[8 * set], &after.main[8 * set],
                         op + ": table set at " + std::to_string(4 + 8 * set));
    }
    for (std::size_t s = 0; s < std::size(kStreams); ++s) {
      expect_set_bounded(before.streams[s].data(), after.streams[s].data(),
                         op + ": stream " + std::to_string(kStreams[s]));
    }
  }

  int handle() {
    return pick(0, 9) == 0 ? one_of({0, -1, 101, 102, INT_MIN}, INT_MAX) : pick(1, 100);
  }
  unsigned channel() { return static_cast<unsigned>(pick(0, 9) == 0 ? pick(16, 40) : pick(0, 15)); }
  int stream() { return kStreams[pick(0, static_cast<int>(std::size(kStreams)) - 1)]; }

  void expect_member(const int8_t* set, int h, const std::string& op) {
    EXPECT_NE(std::find(set, set + 8, static_cast<int8_t>(h - 1)), set + 8) << op;
  }

  void gather() {
    auto entries = std::make_unique<overlay_table_entry[]>(8);
    auto handles = std::make_unique<int32_t[]>(8);
    unsigned ch = channel();
    unsigned filter = static_cast<unsigned>(pick(0, 8) == 0 ? word() : word() % 8);
    overlay_stream_table* s = overlay_table_map_stream(stream());
    int rc = overlay_table_get_entries(table_, s == MAP_FAILED ? nullptr : s, entries.get(),
                                       handles.get(), ch, 0, filter);
    if (s != MAP_FAILED) {
      overlay_table_unmap_stream(s);
    }
    ASSERT_EQ(rc, ch < 16 ? 0 : -4);
    int64_t last = INT64_MAX;
    for (int i = 0; i < 8; ++i) {
      int h = handles[i];
      if (h == -6) {
        continue;
      }
      ASSERT_TRUE(h >= 1 && h <= 100) << h;
      EXPECT_EQ(std::count(handles.get(), handles.get() + 8, h), 1) << "handle " << h;
      EXPECT_EQ(std::memcmp(&entries[i], &table_->entries[h - 1], sizeof entries[i]), 0);
      EXPECT_EQ(zantrel::table::_overlay_entry_ok(&entries[i], filter), 1);
      EXPECT_LE(entries[i].data.description.ovl.priority, last) << "place " << i;
      last = entries[i].data.description.ovl.priority;
    }
  }

  void step() {
    int h = handle();
    int op = pick(0, 18);
    Sets before = snapshot();
    int rc = 0;
    switch (op) {
      case 0: {
        overlay_entry_data data = entry_data({.priority = pick(-2, 4), .type = pick(0, 6)});
        rc = overlay_table_create_overlay(table_, &data);
        EXPECT_TRUE(rc == -2 || rc == -10 || (rc >= 1 && rc <= 100)) << rc;
        if (rc > 0) {
          EXPECT_EQ(table_->entries[rc - 1].in_use, 1u);
        }
        break;
      }
      case 1:
        rc = overlay_table_destroy_overlay(table_, h);
        EXPECT_EQ(rc, h >= 1 && h <= 100 ? 0 : -6);
        if (rc == 0) {
          EXPECT_EQ(table_->entries[h - 1].in_use, 0u);
          EXPECT_EQ(table_->entries[h - 1].stream_count, 0u);
        }
        break;
      case 2: {
        overlay_entry_data data = entry_data({.priority = pick(-2, 4), .kernel_id = pick(0, 3)});
        int replaced = 0;
        rc = overlay_table_update_overlay(table_, h, &data, &replaced);
        EXPECT_EQ(rc, h >= 1 && h <= 100 ? 0 : -6);
        EXPECT_EQ(overlay_table_get_entry(table_, h), rc == 0 ? &table_->entries[h - 1] : nullptr);
        break;
      }
      case 3:
        rc = overlay_table_find_handle_by_kernel_id(table_, pick(0, 3));
        EXPECT_TRUE(rc == -6 || (rc >= 1 && rc <= 100 && table_->entries[rc - 1].in_use != 0));
        break;
      case 4:
        rc = overlay_table_add_overlay_globally(table_, h);
        EXPECT_TRUE(rc == 0 || rc == -6 || rc == -9) << rc;
        if (rc == 0) expect_member(table_->global_handles, h, "global");
        break;
      case 5:
        rc = overlay_table_add_overlay_to_source(table_, h);
        EXPECT_TRUE(rc == 0 || rc == -6 || rc == -9) << rc;
        if (rc == 0) expect_member(table_->source_handles, h, "source");
        break;
      case 6: {
        unsigned ch = channel();
        rc = overlay_table_add_overlay_to_channel(table_, h, ch);
        EXPECT_TRUE(rc == 0 || rc == -4 || rc == -6 || rc == -9) << rc;
        if (rc == 0) expect_member(table_->channel_handles[ch], h, "channel");
        break;
      }
      case 7:
        rc = overlay_table_remove_overlay_globally(table_, h);
        EXPECT_TRUE(rc == 0 || rc == -6) << rc;
        break;
      case 8:
        rc = overlay_table_remove_overlay_from_source(table_, h);
        EXPECT_TRUE(rc == 0 || rc == -6) << rc;
        break;
      case 9:
        rc = overlay_table_remove_overlay_from_channel(table_, h, channel());
        EXPECT_TRUE(rc == 0 || rc == -4 || rc == -6) << rc;
        break;
      case 10: {
        int s = stream();
        rc = overlay_table_add_overlay_to_stream(table_, h, s);
        EXPECT_TRUE(rc == 0 || rc == -1 || rc == -6 || rc == -9) << rc;
        if (rc == 0) {
          std::vector<int> members = read_stream(s);
          EXPECT_NE(std::find(members.begin(), members.end(), h), members.end());
        }
        break;
      }
      case 11:
        rc = overlay_table_remove_overlay_from_stream(table_, h, stream());
        EXPECT_TRUE(rc == 0 || rc == -1 || rc == -6) << rc;
        break;
      case 12:
      case 13:
      case 14:
        gather();
        break;
      case 15: {
        auto count = static_cast<unsigned>(pick(0, 12));
        auto pointers = std::make_unique<overlay_table_entry*[]>(std::max(count, 1u));
        EXPECT_EQ(overlay_table_get_source_entries(table_, pointers.get(), count), 0);
        for (unsigned i = 0; i < std::min(count, 8u); ++i) {
          overlay_table_entry* p = pointers[i];
          if (p != nullptr) {
            EXPECT_TRUE(p >= table_->entries && p < table_->entries + 100);
            EXPECT_NE(p->in_use, 0u);
          }
        }
        break;
      }
      case 16:
        rc = overlay_table_is_source_entry(table_, h);
        EXPECT_TRUE(rc == 0 || rc == -1);
        overlay_print_table_entry(&table_->entries[pick(0, 99)]);
        break;
      case 17: {
        overlay_palette_color color{1, 2, 3, 4, word()};
        auto index = static_cast<unsigned>(pick(0, 20));
        EXPECT_EQ(overlay_table_set_palette_color(table_, &color, index), index < 16 ? 0 : -2);
        auto all = std::make_unique<overlay_palette_color[]>(16);
        EXPECT_EQ(overlay_table_palette_get_all_colors(table_, all.get()), 0);
        break;
      }
      default: {
        int s = stream();
        unsigned version = 0;
        rc = overlay_table_get_stream_table_version(s, &version);
        EXPECT_TRUE(rc == 0 || rc == -1 || rc == -5) << rc;
        if (pick(0, 9) == 0) {
          rc = overlay_table_remove_stream(s);
          EXPECT_TRUE(rc == 0 || rc == -5) << rc;
        }
        break;
      }
    }
    expect_written_bytes_bounded(before, snapshot(), "operation " + std::to_string(op));
  }

  void run(int rounds, int steps) {
    for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
      randomise_table();
      randomise_streams();
      for (int i = 0; i < steps && !::testing::Test::HasFailure(); ++i) {
        step();
      }
    }
  }

 private:
  overlay_table* table_;
  std::mt19937 rng_;
};

class RandomTable : public ::testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override { alarm(90); }  // a loop that never ends kills the test
  void TearDown() override { alarm(0); }
};

// On the heap, where the sanitizer guards both ends of the table.
TEST_P(RandomTable, HeapImageSurvivesEveryOperation) {
  auto table = std::make_unique<overlay_table>();
  Fuzzer fuzzer(table.get(), GetParam());
  fuzzer.run(4, 300);
}

// In the real shared object, its mutex left intact and still usable.
TEST_P(RandomTable, SharedTableSurvivesEveryOperation) {
  ASSERT_EQ(overlay_table_init(), 0);
  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  ASSERT_EQ(overlay_table_lock(table), 0);
  Fuzzer fuzzer(table, GetParam() * 7919u);
  fuzzer.run(2, 300);
  EXPECT_EQ(overlay_table_unlock(table), 0);
  EXPECT_EQ(run_in_child([] {
              overlay_table* mine = overlay_table_map();
              return mine == MAP_FAILED ? 1 : overlay_table_lock(mine);
            }),
            0);
  EXPECT_EQ(overlay_table_unmap(table), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTable, ::testing::Values(1u, 2u, 3u, 42u, 1234u, 99991u));

}  // namespace
}  // namespace zantrel::test
