// The main table as other processes see it: its byte image, creation and
// removal of every table, mapping, and the robust process-shared lock.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

constexpr std::size_t kImageSize = 65476 + sizeof(pthread_mutex_t);

void make_file(const char* path, std::size_t size) {
  int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
  close(fd);
}

uint32_t word_at(const unsigned char* image, std::size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, image + offset, sizeof value);
  return value;
}

// What a second process sees when it opens "/ovl_table" with nothing but
// shm_open and mmap.
struct ForeignView {
  int status = -1;
  long long size = -1;
  unsigned mode = 0;
  unsigned char image[kImageSize];
};

TEST(TableImage, SecondProcessReadsTheFixedLayout) {
  umask(022);  // the object must still end up 0666
  ASSERT_EQ(overlay_table_init(), 0);

  void* shared =
      mmap(nullptr, sizeof(ForeignView), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* view = new (shared) ForeignView();
  view->status = run_in_child([view] {
    int fd = shm_open("/ovl_table", O_RDONLY, 0);
    if (fd < 0) {
      return 1;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0) {
      return 2;
    }
    view->size = st.st_size;
    view->mode = st.st_mode & 07777;
    void* image = mmap(nullptr, kImageSize, PROT_READ, MAP_SHARED, fd, 0);
    if (image == MAP_FAILED) {
      return 3;
    }
    std::memcpy(view->image, image, kImageSize);
    return 0;
  });
  ASSERT_EQ(view->status, 0);
  EXPECT_EQ(view->size, static_cast<long long>(kImageSize));
  EXPECT_EQ(view->mode, 0666u);

  const unsigned char* image = view->image;
  EXPECT_EQ(word_at(image, 0), 0u) << "version";
  for (std::size_t offset = 4; offset < 148; ++offset) {
    ASSERT_EQ(image[offset], 0xFF) << "set byte at " << offset;
  }
  for (std::size_t offset = 148; offset < 65348; ++offset) {
    ASSERT_EQ(image[offset], 0) << "entry byte at " << offset;
  }
  const uint32_t* colors = nullptr;
  int first = -1;
  ASSERT_EQ(palette_get_default(&colors, &first), 16);
  ASSERT_EQ(first, 0);
  for (int i = 0; i < 16; ++i) {
    const unsigned char* slot = image + 65348 + 8 * i;
    uint32_t argb = static_cast<uint32_t>(slot[0]) << 24 | static_cast<uint32_t>(slot[1]) << 16 |
                    static_cast<uint32_t>(slot[2]) << 8 | slot[3];
    EXPECT_EQ(argb, colors[i]) << "palette slot " << i;
    EXPECT_EQ(argb, static_palette[i]) << "palette slot " << i;
    EXPECT_EQ(word_at(slot, 4), 0u) << "flag of slot " << i;
  }
  munmap(shared, sizeof(ForeignView));
}

TEST(TableStore, InitRemovesEarlierTablesAndStrayObjects) {
  ASSERT_EQ(overlay_table_init(), 0);
  overlay_table* old_table = overlay_table_map();
  ASSERT_NE(old_table, MAP_FAILED);
  ASSERT_EQ(overlay_table_lock(old_table), 0);
  overlay_entry_data data = entry_data({.priority = 4});
  int handle = overlay_table_create_overlay(old_table, &data);
  ASSERT_EQ(handle, 1);
  ASSERT_EQ(overlay_table_add_overlay_globally(old_table, handle), 0);
  ASSERT_EQ(overlay_table_add_overlay_to_stream(old_table, handle, 3), 0);
  ASSERT_EQ(overlay_table_unlock(old_table), 0);
  make_file("/dev/shm/ovl_somebody_else", 10);
  make_file("/dev/shm/other_object", 10);

  clear_captured_logs();
  ASSERT_EQ(overlay_table_init(), 0);
  EXPECT_TRUE(captured_logs().empty());
  EXPECT_FALSE(shm_file_exists("/ovl_strm_3"));
  EXPECT_FALSE(shm_file_exists("/ovl_somebody_else"));
  EXPECT_TRUE(shm_file_exists("/other_object"));

  // The old mapping keeps the removed image; a new one sees a fresh table.
  EXPECT_EQ(old_table->entries[0].in_use, 1u);
  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  EXPECT_EQ(table->version, 0u);
  EXPECT_EQ(table->entries[0].in_use, 0u);
  EXPECT_EQ(handles_of(table->global_handles), set_of({}));
  EXPECT_EQ(overlay_table_unmap(table), 0);
  EXPECT_EQ(overlay_table_unmap(old_table), 0);
}

TEST(TableStore, DeinitRemovesEveryOvlObjectAndGoesOnAfterAFailure) {
  ASSERT_EQ(overlay_table_init(), 0);
  make_file("/dev/shm/ovl_strm_1", 16);
  make_file("/dev/shm/ovl_zzz", 0);
  make_file("/dev/shm/not_ours", 0);
  ASSERT_EQ(mkdir("/dev/shm/ovl_a_directory", 0755), 0);
  clear_captured_logs();

  EXPECT_EQ(overlay_table_deinit(), 0);
  EXPECT_FALSE(shm_file_exists("/ovl_table"));
  EXPECT_FALSE(shm_file_exists("/ovl_strm_1"));
  EXPECT_FALSE(shm_file_exists("/ovl_zzz"));
  EXPECT_TRUE(shm_file_exists("/not_ours"));
  EXPECT_TRUE(logged_once(LOG_ERR, std::string("libzantrel: could not remove overlay stream file "
                                               "(/ovl_a_directory). ") +
                                       std::strerror(EISDIR) + "\n"));
  EXPECT_EQ(captured_logs().size(), 1u);
}

TEST(TableStore, WithoutATableNothingIsFoundAndNothingLogged) {
  EXPECT_EQ(overlay_table_deinit(), 0);
  EXPECT_EQ(overlay_table_exists(), 0);
  EXPECT_EQ(overlay_table_map(), MAP_FAILED);
  EXPECT_TRUE(captured_logs().empty());

  ASSERT_EQ(overlay_table_init(), 0);
  EXPECT_EQ(overlay_table_exists(), 1);
  EXPECT_EQ(overlay_table_deinit(), 0);
  EXPECT_EQ(overlay_table_exists(), 0);
  EXPECT_TRUE(captured_logs().empty());
}

// A directory in the main table's place: it can be neither removed, created
// nor mapped, and every step says so.
TEST(TableStore, FailuresOnAnUnusableTableObjectAreLogged) {
  ASSERT_EQ(mkdir("/dev/shm/ovl_table", 0755), 0);
  // The C library's own reasons for refusing it.
  ASSERT_NE(unlink("/dev/shm/ovl_table"), 0);
  const std::string unlink_reason = std::strerror(errno);
  ASSERT_LT(shm_open("/ovl_table", O_RDWR, 0), 0);
  const std::string reason = std::strerror(errno);

  EXPECT_EQ(overlay_table_init(), -1);
  EXPECT_TRUE(logged_once(LOG_ERR,
                          "libzantrel: could not remove main overlay table file "
                          "(/ovl_table). " +
                              unlink_reason + "\n"));
  EXPECT_TRUE(logged_once(LOG_ERR, "libzantrel: error initialising the table: " + reason + "\n\n"));

  clear_captured_logs();
  EXPECT_EQ(overlay_table_exists(), 0);
  EXPECT_EQ(overlay_table_map(), MAP_FAILED);
  EXPECT_TRUE(
      logged_once(LOG_WARNING, "libzantrel: Could not map main overlay table. " + reason + "\n"));
  EXPECT_EQ(captured_logs().size(), 1u);
}

// ---- the lock across processes ----

TEST(TableLock, HolderKilledWhileLockedDoesNotBlockTheNextLocker) {
  ASSERT_EQ(overlay_table_init(), 0);
  int status = run_in_child([] {
    overlay_table* table = overlay_table_map();
    if (table == MAP_FAILED || overlay_table_lock(table) != 0) {
      return 1;
    }
    // Dies half way through its work, the lock still held.
    overlay_entry_data data = entry_data({.priority = 2});
    overlay_table_create_overlay(table, &data);
    raise(SIGKILL);
    return 2;
  });
  ASSERT_EQ(status, 128 + SIGKILL);

  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  clear_captured_logs();
  ASSERT_EQ(overlay_table_lock(table), 0);
  EXPECT_TRUE(captured_logs().empty());
  EXPECT_EQ(table->entries[0].in_use, 1u);  // as the dead holder left it
  overlay_entry_data data = entry_data({.priority = 1});
  EXPECT_EQ(overlay_table_create_overlay(table, &data), 2);
  EXPECT_EQ(overlay_table_add_overlay_globally(table, 2), 0);
  EXPECT_EQ(overlay_table_unlock(table), 0);

  // Made consistent: other processes lock it normally from now on.
  EXPECT_EQ(run_in_child([] {
              overlay_table* mine = overlay_table_map();
              if (mine == MAP_FAILED) {
                return 1;
              }
              int rc = overlay_table_try_lock(mine);
              return rc == 0 ? overlay_table_unlock(mine) : 10 + rc;
            }),
            0);
  EXPECT_EQ(overlay_table_unmap(table), 0);
}

TEST(TableLock, TryLockAgainstAHolderInAnotherProcessReturnsBusy) {
  ASSERT_EQ(overlay_table_init(), 0);
  int locked[2];
  int release[2];
  ASSERT_EQ(pipe(locked), 0);
  ASSERT_EQ(pipe(release), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    overlay_table* table = overlay_table_map();
    char byte = table != MAP_FAILED && overlay_table_lock(table) == 0 ? 'L' : 'F';
    (void)!write(locked[1], &byte, 1);
    (void)!read(release[0], &byte, 1);
    _exit(overlay_table_unlock(table) == 0 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(locked[0], &byte, 1), 1);
  ASSERT_EQ(byte, 'L');

  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  EXPECT_EQ(overlay_table_try_lock(table), EBUSY);
  EXPECT_EQ(overlay_table_try_lock(table), EBUSY);
  ASSERT_EQ(write(release[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(overlay_table_lock(table), 0);
  EXPECT_EQ(overlay_table_unlock(table), 0);
  EXPECT_EQ(overlay_table_unmap(table), 0);
}

// try_lock hands EOWNERDEAD to its caller and leaves the mutex inconsistent;
// unlocking it so makes it unrecoverable, which the next lock reports.
TEST(TableLock, TryLockLeavesADeadOwnersMutexToItsCaller) {
  ASSERT_EQ(overlay_table_init(), 0);
  ASSERT_EQ(run_in_child([] {
              overlay_table* table = overlay_table_map();
              if (table == MAP_FAILED || overlay_table_lock(table) != 0) {
                return 1;
              }
              raise(SIGKILL);
              return 2;
            }),
            128 + SIGKILL);
  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  EXPECT_EQ(overlay_table_try_lock(table), EOWNERDEAD);
  EXPECT_EQ(overlay_table_unlock(table), 0);
  clear_captured_logs();
  EXPECT_EQ(overlay_table_lock(table), ENOTRECOVERABLE);
  EXPECT_TRUE(logged_once(LOG_ERR, std::string("libzantrel: Table mutex internal error: ") +
                                       std::strerror(ENOTRECOVERABLE) + "\n"));
  EXPECT_EQ(overlay_table_unmap(table), 0);
}

// ---- several processes changing memberships at once ----

// Every set: members first, each in use, once, by falling priority.
void expect_valid_set(const overlay_table* table, const int8_t* set, const std::string& name) {
  bool ended = false;
  int32_t last = INT32_MAX;
  for (int i = 0; i < OVERLAY_SET_PLACES; ++i) {
    int8_t value = set[i];
    if (value == -1) {
      ended = true;
      continue;
    }
    ASSERT_FALSE(ended) << name << ": member after an empty place at " << i;
    ASSERT_TRUE(value >= 0 && value < 100) << name << ": byte " << int{value};
    const overlay_table_entry& entry = table->entries[value];
    EXPECT_NE(entry.in_use, 0u) << name << ": free member " << value + 1;
    int32_t priority = entry.data.description.ovl.priority;
    EXPECT_LE(priority, last) << name << ": out of order at " << i;
    last = priority;
    for (int j = 0; j < i; ++j) {
      EXPECT_NE(set[j], value) << name << ": duplicate " << value + 1;
    }
  }
}

// One process's share: random changes, each under map, lock, unlock, unmap.
int churn(unsigned seed, int iterations) {
  std::mt19937 rng(seed);
  auto pick = [&rng](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(rng);
  };
  for (int i = 0; i < iterations; ++i) {
    overlay_table* t = overlay_table_map();
    if (t == MAP_FAILED || overlay_table_lock(t) != 0) {
      return 1;
    }
    int h = pick(1, 24);
    auto ch = static_cast<unsigned>(pick(0, 2));
    int s = pick(0, 2);
    overlay_entry_data data = entry_data({.priority = pick(0, 5), .type = pick(1, 5)});
    overlay_stream_table* stream = overlay_table_map_stream(s);
    overlay_table_entry entries[8];
    int32_t handles[8];
    int rc = 0;
    switch (pick(0, 9)) {
      case 0:
      case 1:
        rc = overlay_table_create_overlay(t, &data) > 0 ? 0 : -6;
        break;
      case 2:
        rc = overlay_table_destroy_overlay(t, h);
        break;
      case 3:
        rc = overlay_table_add_overlay_globally(t, h);
        break;
      case 4:
        rc = overlay_table_remove_overlay_globally(t, h);
        break;
      case 5:
        rc = overlay_table_add_overlay_to_channel(t, h, ch);
        break;
      case 6:
        rc = overlay_table_remove_overlay_from_channel(t, h, ch);
        break;
      case 7:
        rc = overlay_table_add_overlay_to_stream(t, h, s);
        break;
      case 8:
        rc = stream == MAP_FAILED ? 0 : overlay_table_remove_overlay_from_stream(t, h, s);
        break;
      default:
        rc = overlay_table_get_entries(t, stream == MAP_FAILED ? nullptr : stream, entries, handles,
                                       ch, 0, static_cast<unsigned>(pick(0, 7)));
    }
    if (stream != MAP_FAILED) {
      overlay_table_unmap_stream(stream);
    }
    if ((rc != 0 && rc != -6 && rc != -9) || overlay_table_unlock(t) != 0 ||
        overlay_table_unmap(t) != 0) {
      return 2;
    }
  }
  return 0;
}

TEST(TableLock, ConcurrentMembershipChurnLeavesEverySetValid) {
  ASSERT_EQ(overlay_table_init(), 0);
  constexpr int kProcesses = 4;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      _exit(churn(1000 + static_cast<unsigned>(p), 400));
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }

  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  ASSERT_EQ(overlay_table_lock(table), 0);
  EXPECT_GT(table->version, 0u);
  expect_valid_set(table, table->global_handles, "global");
  expect_valid_set(table, table->source_handles, "source");
  for (int c = 0; c < 16; ++c) {
    expect_valid_set(table, table->channel_handles[c], "channel " + std::to_string(c));
  }
  for (int s = 0; s < 3; ++s) {
    overlay_stream_table* stream = overlay_table_map_stream(s);
    if (stream != MAP_FAILED) {
      expect_valid_set(table, stream->handles, "stream " + std::to_string(s));
      overlay_table_unmap_stream(stream);
    }
  }
  EXPECT_EQ(overlay_table_unlock(table), 0);
  EXPECT_EQ(overlay_table_unmap(table), 0);
}

}  // namespace
}  // namespace zantrel::test
