// The main table as other processes see it after its creation, and after a
// lock holder died inside an operation: a child takes the lock, leaves the
// damage a half-done operation leaves, and dies (killed, or exiting); the
// next locker, this process, finds the tables sound.
#include <signal.h>
#include <sys/wait.h>

#include "table_test_util.h"
#include "zantrel-internal/table_check.h"

namespace zantrel::test {
namespace {

constexpr std::size_t kImageSize = 65476 + sizeof(pthread_mutex_t);

TEST(TableStore, FreshImageAndOldTablesAreGone) {
  const std::vector<unsigned char> junk(kImageSize, 0x55);
  for (const char* name : {"/ovl_table", "/ovl_strm_3", "/other"}) {
    int fd = shm_open(name, O_CREAT | O_RDWR, 0644);
    ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    close(fd);
  }
  ASSERT_EQ(overlay_table_init(), 0);
  EXPECT_NE(access("/dev/shm/ovl_strm_3", F_OK), 0);
  EXPECT_EQ(access("/dev/shm/other", F_OK), 0);
  int fd = shm_open("/ovl_table", O_RDONLY, 0);  // as any other process opens it
  EXPECT_EQ(lseek(fd, 0, SEEK_END), static_cast<off_t>(kImageSize));
  auto* image =
      static_cast<unsigned char*>(mmap(nullptr, kImageSize, PROT_READ, MAP_SHARED, fd, 0));
  close(fd);
  ASSERT_NE(image, MAP_FAILED);
  EXPECT_EQ(image[0] | image[1] | image[2] | image[3], 0) << "version";
  for (std::size_t i = 4; i < 65348; ++i) ASSERT_EQ(image[i], i < 148 ? 0xFF : 0) << i;
  for (uint32_t i = 0; i < 128; ++i) {  // palette slots: A, R, G, B bytes, a zero flag word
    EXPECT_EQ(image[65348 + i], i % 8 < 4 ? static_palette[i / 8] >> (24 - i % 8 * 8) & 0xFF : 0);
  }
  munmap(image, kImageSize);
}

// Overlays 1, 2, 3 (priorities 5, 3, 1): global, channel 3, stream 0; 1, 2 source.
constexpr int kA = 1, kB = 2, kC = 3;
const std::vector<int> kAll{kA, kB, kC};

struct Damage {
  const char* name;
  void (*harm)(overlay_table* t);   // in the dying holder
  std::vector<int> kept;            // in the global set, channel 3 and stream 0
  void (*after)(overlay_table* t);  // more checks, under the lock
};
void PrintTo(const Damage& d, std::ostream* out) { *out << d.name; }

template <int Stream, off_t Size>
void new_stream_file(overlay_table*) {
  int fd = shm_open(table::stream_name(Stream).data(), O_RDWR | O_CREAT | O_EXCL, 0666);
  if (fd < 0 || ftruncate(fd, Size) != 0) _exit(3);
  close(fd);
}
// Removing 2 from every set, killed in the shift: [1, 3, 3] before the last
// member's old place is emptied.
void shift_half_done(overlay_table* t) {
  overlay_stream_table* s = overlay_table_map_stream(0);
  t->global_handles[1] = t->channel_handles[3][1] = s->handles[1] = kC - 1;
}
// A destruction out of the streams and zeroed, but still in the main sets.
void zeroed_not_removed(overlay_table* t) {
  overlay_table_remove_overlay_from_stream(t, kB, 0);
  std::memset(&t->entries[kB - 1], 0, sizeof t->entries[0]);
}
void destroy_after(overlay_table* t) {
  EXPECT_EQ(overlay_table_destroy_overlay(t, kC), 0);
  EXPECT_EQ(read_stream(0), set_of({kA, kB}));
}
void create_after(overlay_table* t) {
  overlay_entry_data data = entry_data(0);
  EXPECT_EQ(overlay_table_create_overlay(t, &data), 4);
}
template <int Stream, int Handle>
void add_to_new_stream(overlay_table* t) {
  EXPECT_EQ(read_stream(Stream), set_of({}));
  EXPECT_EQ(overlay_table_add_overlay_to_stream(t, Handle, Stream), 0);
  EXPECT_EQ(read_stream(Stream), set_of({Handle}));
}
void source_without_b(overlay_table* t) { EXPECT_EQ(handles_of(t->source_handles), set_of({kA})); }
void hole_kept(overlay_table* t) { EXPECT_EQ(handles_of(t->source_handles), set_of({-1, kB})); }
// The source set [-, A, B] with B destroyed half way: B goes, the hole stays.
void hole_and_zeroed(overlay_table* t) {
  t->source_handles[2] = kB - 1;
  t->source_handles[1] = kA - 1;
  t->source_handles[0] = -1;
  zeroed_not_removed(t);
}
void hole_kept_without_b(overlay_table* t) {
  EXPECT_EQ(handles_of(t->source_handles), set_of({-1, kA}));
}

// A new stream table unsized, or 16 zero bytes (inactive, handle 1 eight
// times), as its creator left it. A hole in the source set is sound, stays.
const Damage kDamages[] = {
    {"RemovalMidShift", shift_half_done, {kA, kC}, nullptr},
    {"DestroyZeroedNotRemoved", zeroed_not_removed, {kA, kC}, source_without_b},
    {"HalfZeroed", [](overlay_table* t) { std::memset(&t->entries[2], 0, 8); }, {kA, kB}, nullptr},
    {"CreateBeforeCopy", [](overlay_table* t) { t->entries[3].in_use = 1; }, kAll, create_after},
    {"StreamAddUncounted", [](overlay_table* t) { t->entries[2].stream_count = 0; }, kAll,
     destroy_after},
    {"StreamTableUnsized", new_stream_file<5, 0>, kAll, add_to_new_stream<5, kB>},
    {"StreamTableUnfilled", new_stream_file<6, 16>, kAll, add_to_new_stream<6, kC>},
    {"HoleAndDestroyZeroed", hole_and_zeroed, {kA, kC}, hole_kept_without_b},
    {"NoDamage", [](overlay_table* t) { t->source_handles[0] = -1; }, kAll, hole_kept},
};

class OwnerDeath : public TableTest,
                   public ::testing::WithParamInterface<std::tuple<Damage, bool>> {};

TEST_P(OwnerDeath, NextLockerFindsSoundTables) {
  ZANTREL_SKIP_UNLESS_ROBUST_MUTEXES();
  const auto& [damage, killed] = GetParam();
  overlay_table* t = table_;
  for (int priority : {5, 3, 1}) {
    int h = make(priority);
    ASSERT_EQ(overlay_table_add_overlay_globally(t, h) |
                  overlay_table_add_overlay_to_channel(t, h, 3) |
                  overlay_table_add_overlay_to_stream(t, h, 0) |
                  (h < kC ? overlay_table_add_overlay_to_source(t, h) : 0),
              0);
  }
  EXPECT_EQ(run_in_child([] { return overlay_table_try_lock(overlay_table_map()); }), EBUSY);
  overlay_table_unlock(t);
  const uint32_t version = t->version;
  pid_t pid = spawn_child([harm = damage.harm, killed = killed] {
    overlay_table* own = overlay_table_map();
    if (overlay_table_lock(own) != 0) return 1;
    harm(own);
    if (killed) raise(SIGKILL);
    _exit(0);  // leaves holding the lock
  });
  EXPECT_EQ(wait_child(pid), killed ? 128 + SIGKILL : 0);
  clear_captured_logs();

  ASSERT_EQ(overlay_table_lock(t), 0);
  EXPECT_EQ(table::check_tables(t, false, nullptr, nullptr), 0);
  EXPECT_EQ(t->version, version + 1) << "raised once, so that every encoder gathers again";
  EXPECT_EQ(handles_of(t->global_handles), set_of(damage.kept));
  EXPECT_EQ(handles_of(t->channel_handles[3]), set_of(damage.kept));
  EXPECT_EQ(read_stream(0), set_of(damage.kept));
  if (damage.after != nullptr) damage.after(t);
  ASSERT_EQ(captured_logs().size(), 1u);
  const LogRecord log = captured_logs()[0];
  EXPECT_EQ(log.priority, LOG_WARNING);
  EXPECT_EQ(log.message.find("nothing needed") != std::string::npos, damage.after == hole_kept);
  EXPECT_EQ(overlay_table_unlock(t), 0);
  EXPECT_EQ(run_in_child([] { return overlay_table_try_lock(overlay_table_map()); }), 0);
}

INSTANTIATE_TEST_SUITE_P(HalfDoneOperations, OwnerDeath,
                         ::testing::Combine(::testing::ValuesIn(kDamages), ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_Killed" : "_Exited");
                         });

}  // namespace
}  // namespace zantrel::test
