// The main table as other processes see it: its image after creation, the
// lock, concurrent changes, and tables filled with random bytes.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "table_test_util.h"

namespace zantrel::test {
namespace {

constexpr std::size_t kImageSize = 65476 + sizeof(pthread_mutex_t);

TEST(TableStore, SecondProcessReadsAFreshImageAndOldTablesAreGone) {
  const std::vector<unsigned char> junk(kImageSize, 0x55);
  for (const char* name : {"/ovl_table", "/ovl_strm_3", "/other"}) {
    int fd = shm_open(name, O_CREAT | O_RDWR, 0644);
    ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    close(fd);
  }
  ASSERT_EQ(overlay_table_init(), 0);
  EXPECT_NE(access("/dev/shm/ovl_strm_3", F_OK), 0);
  EXPECT_EQ(access("/dev/shm/other", F_OK), 0);
  struct stat st {};
  ASSERT_EQ(stat("/dev/shm/ovl_table", &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(kImageSize));
  auto* image = static_cast<unsigned char*>(
      mmap(nullptr, kImageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_EQ(run_in_child([image] {
              int fd = shm_open("/ovl_table", O_RDONLY, 0);
              void* table = mmap(nullptr, kImageSize, PROT_READ, MAP_SHARED, fd, 0);
              if (table == MAP_FAILED) return 1;
              std::memcpy(image, table, kImageSize);
              return 0;
            }),
            0);
  EXPECT_EQ(image[0] | image[1] | image[2] | image[3], 0) << "version";
  for (std::size_t i = 4; i < 65348; ++i) ASSERT_EQ(image[i], i < 148 ? 0xFF : 0) << i;
  for (std::size_t i = 0; i < OVERLAY_PALETTE_SIZE; ++i) {
    const unsigned char* argb = image + 65348 + 8 * i;
    EXPECT_EQ(uint32_t{argb[0]} << 24 | uint32_t{argb[1]} << 16 | uint32_t{argb[2]} << 8 | argb[3],
              static_palette[i])
        << "palette slot " << i;
    EXPECT_EQ(argb[4] | argb[5] | argb[6] | argb[7], 0) << "flag of slot " << i;
  }
  munmap(image, kImageSize);
}

TEST(TableLock, BusyWhileAnotherProcessHoldsItAndFreeOnceTheHolderIsKilled) {
  ZANTREL_SKIP_UNLESS_ROBUST_MUTEXES();
  ASSERT_EQ(overlay_table_init(), 0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    alarm(30);
    if (overlay_table_lock(overlay_table_map()) == 0 && write(ready[1], "L", 1) == 1) pause();
    _exit(1);
  }
  close(ready[1]);
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  overlay_table* table = overlay_table_map();
  EXPECT_EQ(overlay_table_try_lock(table), EBUSY);
  kill(pid, SIGKILL);
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  EXPECT_EQ(overlay_table_lock(table), 0);
  EXPECT_TRUE(captured_logs().empty());
  EXPECT_EQ(overlay_table_unlock(table), 0);
  EXPECT_EQ(run_in_child([] { return overlay_table_try_lock(overlay_table_map()); }), 0);
  overlay_table_unmap(table);
}

// Members first, each in use and once, by falling priority.
void expect_valid_set(const overlay_table* t, const std::vector<int>& set, int id) {
  SCOPED_TRACE(id);
  for (std::size_t i = 0; i < set.size(); ++i) {
    bool member = set[i] >= 1 && set[i] <= 100 && table::in_use(t, set[i] - 1);
    EXPECT_TRUE(member || (set[i] == -1 && (i == 7 || set[i + 1] == -1))) << i;
    if (!member || i == 0 || set[i - 1] < 1) continue;
    EXPECT_EQ(std::count(set.begin(), set.begin() + i, set[i]), 0) << i;
    EXPECT_LE(table::priority(t, set[i] - 1), table::priority(t, set[i - 1] - 1)) << i;
  }
}

TEST(TableLock, ConcurrentChurnLeavesEverySetValid) {
  ASSERT_EQ(overlay_table_init(), 0);
  std::vector<pid_t> children;
  for (unsigned p = 0; p < 3; ++p) {
    children.push_back(zantrel::test::spawn_child([p] {
      std::mt19937 rng(1000 + p);
      overlay_table* t = overlay_table_map();
      for (int i = 0; i < 300; ++i) {
        if (overlay_table_lock(t) != 0) return 1;
        random_operation(t, rng, 24);
        overlay_table_unlock(t);
      }
      return ::testing::Test::HasFailure() ? 2 : 0;
    }));
  }
  for (pid_t pid : children) EXPECT_EQ(zantrel::test::wait_child(pid), 0);
  overlay_table* table = overlay_table_map();
  ASSERT_NE(table, MAP_FAILED);
  for (int i = 0; i < 18; ++i) {  // the source, global and channel sets at bytes 4 to 147
    expect_valid_set(table, handles_of(reinterpret_cast<int8_t*>(table) + 4 + 8 * i), i);
  }
  for (int s = 0; s < 3; ++s) expect_valid_set(table, read_stream(s), 100 + s);
  overlay_table_unmap(table);
}

class RandomTable : public ::testing::TestWithParam<unsigned> {};

// A heap copy of the table, so that the address sanitizer sees any overrun.
TEST_P(RandomTable, EveryOperationStaysInBoundsAndEnds) {
  alarm(60);  // a loop that never ends kills the test
  std::mt19937 rng(GetParam());
  auto heap = std::make_unique<overlay_table>();
  auto* bytes = reinterpret_cast<unsigned char*>(heap.get());
  // Set bytes mostly empty or naming low entries, the rest anything.
  for (std::size_t i = 0; i < offsetof(overlay_table, table_mutex); ++i) {
    bytes[i] = i < 4 || i >= 148 || rng() % 4 == 0 ? rng() : rng() % 3 == 0 ? 0xFF : rng() % 16;
  }
  for (int s = 0; s < 3; ++s) {  // active stream tables of any size, some too short to map
    std::vector<unsigned char> file(std::vector<std::size_t>{0, 8, 16, 16, 4096}[rng() % 5]);
    for (std::size_t i = 0; i < file.size(); ++i) file[i] = i < 8 ? i == 0 : rng() % 20 - 2;
    int fd = shm_open(table::stream_name(s).data(), O_CREAT | O_TRUNC | O_RDWR, 0666);
    ASSERT_EQ(write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    close(fd);
  }
  for (int step = 0; step < 1000 && !HasFailure(); ++step) random_operation(heap.get(), rng, 102);
  alarm(0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomTable, ::testing::Values(1u, 7u, 42u, 1234u, 99991u));

}  // namespace
}  // namespace zantrel::test
