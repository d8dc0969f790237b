// Expansion of overlay templates: conversions in UTC and local time, cuts at
// every size, refused arguments, and the host's name and address.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "tokenfill.h"

namespace zantrel::test {
namespace {

// 2026-12-31 23:30:05 UTC, already 2027-01-01 00:30:05 in CET.
constexpr timeval kNewYearsEve{1798759805, 250000};

using Context = std::unique_ptr<tokenfill_context, decltype(&tokenfill_exit)>;

class Tokenfill : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "CET-1", 1);
    tzset();
    ASSERT_NE(context_, nullptr);
  }
  std::string expand(const std::string& text, bool local = false,
                     const timeval* time = &kNewYearsEve) {
    context_->use_local_time = local ? 1 : 0;
    char out[512];
    int length = tokenfill_expand(out, sizeof out, text.c_str(), context_.get(), time);
    EXPECT_EQ(length, static_cast<int>(std::strlen(out))) << text;
    return out;
  }
  Context context_{tokenfill_init(), tokenfill_exit};
};

TEST_F(Tokenfill, ConversionsInUtcAndLocalTime) {
  const struct {
    bool local;
    const char* text;
    const char* expected;
  } kCases[] = {
      {false, "#D #T", "2026-12-31 23:30:05"},
      {true, "#D #T", "2027-01-01 00:30:05"},
      {false, "%Y-%m-%d %H:%M:%S", "2026-12-31 23:30:05"},
      {true, "%Y-%m-%d %H:%M:%S %z", "2027-01-01 00:30:05 +0100"},
      {false, "%j|%_5j|%-m|%Ey|%Od", "365|  365|12|26|31"},
      {true, "%j|%a %b", "001|Fri Jan"},
      {false, "100%% ## #x #% %Q é#D€", "100% # #x #% %Q é2026-12-31€"},
      {false, "%s", "1798759805"},
      {true, "%s", "1798759805"},
      {false, "end#", "end#"},
      {false, "end%", "end%"},
      {false, "end%_3E", "end%_3E"},
      {false, "%99999T|", "%99999T|"},
      {false, "%40960T|", "%40960T|"},  // past the limit only by its last digit
      {false, "", ""},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(expand(c.text, c.local), c.expected) << c.text << (c.local ? " local" : " utc");
  }
}

// Every size from 1 up: nothing past size, a NUL, and the longest prefix of
// the full text that ends on a character boundary.
TEST_F(Tokenfill, CutsAtEverySizeOnACharacterBoundary) {
  for (const char* text : {"#D #T %Y|##|#n|%%", "é€😀#Tü%%€😀x", "#Dé😀"}) {
    const std::string full = expand(text);
    for (std::size_t size = 1; size <= full.size() + 2; ++size) {
      std::vector<char> buffer(size + 16, '\x7f');
      int length = tokenfill_expand(buffer.data(), size, text, context_.get(), &kNewYearsEve);
      std::size_t boundary = std::min(size - 1, full.size());
      while (boundary < full.size() && (full[boundary] & 0xC0) == 0x80) --boundary;
      ASSERT_EQ(length, static_cast<int>(boundary)) << text << " size " << size;
      EXPECT_EQ(std::string(buffer.data()), full.substr(0, boundary));
      EXPECT_EQ(std::string(buffer.begin() + size, buffer.end()), std::string(16, '\x7f'));
    }
  }
}

TEST_F(Tokenfill, RefusesBadArgumentsWithoutWriting) {
  tokenfill_context dead{};
  char out[8] = "keep";
  const struct {
    char* out;
    std::size_t size;
    const char* text;
    tokenfill_context* context;
  } kCases[] = {{nullptr, 8, "#D", context_.get()},
                {out, 0, "#D", context_.get()},
                {out, 8, nullptr, context_.get()},
                {out, 8, "#D", nullptr},
                {out, 8, "#D", &dead}};
  for (const auto& c : kCases) {
    errno = 0;
    EXPECT_EQ(tokenfill_expand(c.out, c.size, c.text, c.context, &kNewYearsEve), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_STREQ(out, "keep");
  }
  tokenfill_exit(nullptr);
  tokenfill_exit(&dead);  // not from tokenfill_init: freeing it would crash
  EXPECT_EQ(errno, EINVAL);
}

// The ends of time_t: on the camera (32-bit time_t) every value has a date;
// with a 64-bit time_t the extremes have none, and only the date and time
// modifiers fail on them.
TEST_F(Tokenfill, EndsOfTimeT) {
  constexpr bool k32 = sizeof(time_t) == 4;
  const struct {
    time_t seconds;
    const char* expected;
  } kCases[] = {{std::numeric_limits<time_t>::max(), k32 ? "2038-01-19 03:14:07" : nullptr},
                {std::numeric_limits<time_t>::min(), k32 ? "1901-12-13 20:45:52" : nullptr},
                {-1, "1969-12-31 23:59:59"}};
  for (const auto& c : kCases) {
    const timeval time{c.seconds, 0};
    char out[32] = "keep";
    const int length = tokenfill_expand(out, sizeof out, "#D #T", context_.get(), &time);
    EXPECT_STREQ(out, c.expected != nullptr ? c.expected : "") << c.seconds;
    EXPECT_EQ(length, c.expected != nullptr ? 19 : -1);
    EXPECT_EQ(expand("plain %% ##", false, &time), "plain % #");
  }
  const long long before = time(nullptr);
  const long long now = std::stoll(expand("%s", false, nullptr));
  EXPECT_GE(now, before);
  EXPECT_LE(now, time(nullptr));
}

TEST_F(Tokenfill, HostNameAsTheSystemGivesIt) {
  char name[HOST_NAME_MAX + 1] = {};
  ASSERT_EQ(gethostname(name, sizeof name), 0);
  EXPECT_EQ(expand("[#n]"), std::string("[") + name + "]");
  // Names that do not fit the context's field are read again, not cut.
  int status = run_in_child([] {
    if (unshare(CLONE_NEWUTS) != 0) return 77;
    for (std::size_t length : {5, 54, 55, 56, 64}) {
      const std::string name(length, 'c');
      Context context{nullptr, tokenfill_exit};
      if (sethostname(name.data(), name.size()) != 0 || !(context.reset(tokenfill_init()), context))
        return 2;
      char out[128];
      tokenfill_expand(out, sizeof out, "#n.", context.get(), nullptr);
      if (out != name + ".") return 1;
    }
    return 0;
  });
  if (status == 77) GTEST_SKIP() << "no UTS namespace";
  EXPECT_EQ(status, 0);
}

TEST_F(Tokenfill, AddressSkipsLoopback) {
  const std::string address = expand("#i");
  in_addr parsed{};
  ASSERT_EQ(inet_pton(AF_INET, address.c_str(), &parsed), 1) << address;
  EXPECT_NE(ntohl(parsed.s_addr) >> 24, 127u) << address;
  // A network namespace of its own has only loopback, even when it is up.
  int status = run_in_child([] {
    if (unshare(CLONE_NEWNET) != 0) return 77;
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ioctl(fd, SIOCGIFFLAGS, &request);
    request.ifr_flags |= IFF_UP;
    if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) return 2;
    Context context{tokenfill_init(), tokenfill_exit};
    char out[32];
    tokenfill_expand(out, sizeof out, "#i", context.get(), nullptr);
    return std::strcmp(out, "0.0.0.0") == 0 ? 0 : 1;
  });
  if (status == 77) GTEST_SKIP() << "no network namespace";
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace zantrel::test
