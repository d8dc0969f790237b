// Template expansion: "%" conversions through strftime one at a time, "#"
// modifiers by hand, all into a bounded buffer.
#include <time.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "tokenfill_internal.h"

namespace tokenfill {
namespace {

constexpr int kMaxWidth = 4096;
// Room for any conversion without a width, even with long local names.
constexpr std::size_t kConversionRoom = 256;

// Every piece goes through append, so nothing passes the limit; once a piece
// did not fit, the rest of the template is dropped.
class Output {
 public:
  explicit Output(std::span<char> out)
      : out_(out), limit_(std::min<std::size_t>(out.size() - 1, INT_MAX)) {}

  bool full() const { return truncated_; }

  void append(std::string_view piece) {
    const std::size_t room = limit_ - length_;
    if (piece.size() > room) {
      piece = piece.substr(0, room);
      truncated_ = true;
    }
    std::memcpy(out_.data() + length_, piece.data(), piece.size());
    length_ += piece.size();
  }

  int finish() {
    // Only a cut can split a character; bytes of the template itself are kept
    // as they came.
    if (truncated_) {
      length_ = utf8_boundary(out_.first(length_));
    }
    out_[length_] = '\0';
    return static_cast<int>(length_);
  }

  int fail() {
    out_[0] = '\0';
    return -1;
  }

 private:
  std::span<char> out_;
  std::size_t limit_;
  std::size_t length_ = 0;
  bool truncated_ = false;
};

// The time broken down at most once per kind and only when the template asks
// for it, so a template without date or time costs no conversion.
class Moment {
 public:
  explicit Moment(const timeval* time) : time_(time) {}

  // nullptr when the time has no calendar date.
  const tm* broken_down(bool local) {
    Slot& slot = local ? local_ : utc_;
    if (!slot.done) {
      time_t seconds = 0;
      slot.valid = this->seconds(seconds) && (local ? localtime_r(&seconds, &slot.value)
                                                    : gmtime_r(&seconds, &slot.value)) != nullptr;
      slot.done = true;
    }
    return slot.valid ? &slot.value : nullptr;
  }

 private:
  struct Slot {
    tm value{};
    bool done = false;
    bool valid = false;
  };

  // False when "now" does not fit the C library's time_t: with a 32-bit
  // time_t, from 2038-01-19 03:14:08 UTC on, the clock answers EOVERFLOW.
  bool seconds(time_t& seconds) const {
    if (time_ != nullptr) {
      seconds = time_->tv_sec;
      return true;
    }
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
      return false;
    }
    seconds = now.tv_sec;
    return true;
  }

  const timeval* time_;
  Slot utc_;
  Slot local_;
};

void put2(char* to, int value) {
  to[0] = static_cast<char>('0' + value / 10 % 10);
  to[1] = static_cast<char>('0' + value % 10);
}

class Expander {
 public:
  Expander(std::span<char> out, const tokenfill_context& context, const timeval* time)
      : output_(out), context_(context), moment_(time), local_(context.use_local_time != 0) {}

  int run(const char* text) {
    const char* at = text;
    while (*at != '\0' && !output_.full()) {
      const std::size_t plain = std::strcspn(at, "%#");
      output_.append({at, plain});
      at += plain;
      if (*at == '\0') {
        break;
      }
      at = *at == '#' ? modifier(at) : conversion(at);
      if (at == nullptr) {
        return output_.fail();
      }
    }
    return output_.finish();
  }

 private:
  // at points at a "#"; returns where the template goes on, or nullptr when
  // the time has no date.
  const char* modifier(const char* at) {
    switch (at[1]) {
      case 'D':
      case 'T': {
        const tm* t = moment_.broken_down(local_);
        if (t == nullptr) {
          return nullptr;
        }
        at[1] == 'D' ? put_date(*t) : put_time(*t);
        break;
      }
      case 'n': {
        char scratch[kHostNameMax];
        output_.append(host_name(context_, scratch));
        break;
      }
      case 'i': {
        char scratch[kAddressMax];
        output_.append(first_ipv4_address(scratch));
        break;
      }
      case '#':
        output_.append("#");
        break;
      case '\0':
        output_.append("#");
        return at + 1;
      default:
        output_.append({at, 2});
        break;
    }
    return at + 2;
  }

  void put_date(const tm& t) {
    char text[32];
    const long long year = t.tm_year + 1900LL;
    int length = 4;
    if (year >= 0 && year <= 9999) {
      put2(text, static_cast<int>(year / 100));
      put2(text + 2, static_cast<int>(year % 100));
    } else {
      length = std::snprintf(text, sizeof text, "%04lld", year);
    }
    text[length] = '-';
    put2(text + length + 1, t.tm_mon + 1);
    text[length + 3] = '-';
    put2(text + length + 4, t.tm_mday);
    output_.append({text, static_cast<std::size_t>(length) + 6});
  }

  void put_time(const tm& t) {
    char text[8] = {0, 0, ':', 0, 0, ':', 0, 0};
    put2(text, t.tm_hour);
    put2(text + 3, t.tm_min);
    put2(text + 6, t.tm_sec);
    output_.append({text, sizeof text});
  }

  // at points at a "%". The conversion is cut out the way strftime reads it
  // (flags, width, E or O, one character) and handed to strftime alone.
  const char* conversion(const char* at) {
    const char* end = at + 1;
    while (*end != '\0' && std::strchr("_-0^#", *end) != nullptr) {
      ++end;
    }
    int width = 0;
    for (; *end >= '0' && *end <= '9'; ++end) {
      if (width <= kMaxWidth) {
        width = width * 10 + (*end - '0');
      }
    }
    if (*end == 'E' || *end == 'O') {
      ++end;
    }
    if (*end == '\0') {
      output_.append(at);
      return end;
    }
    const char kind = *end++;
    const std::string_view spec{at, static_cast<std::size_t>(end - at)};
    if (spec == "%%") {
      output_.append("%");
    } else if (width > kMaxWidth) {
      output_.append(spec);
    } else {
      // strftime derives %s through mktime, which reads the fields as local
      // time; only a local breakdown gives the instant back.
      const tm* t = moment_.broken_down(local_ || kind == 's');
      if (t == nullptr) {
        return nullptr;
      }
      format(spec, *t);
    }
    return end;
  }

  void format(std::string_view spec, const tm& t) {
    char short_spec[32];
    std::string long_spec;
    const char* pattern = short_spec;
    if (spec.size() < sizeof short_spec) {
      std::memcpy(short_spec, spec.data(), spec.size());
      short_spec[spec.size()] = '\0';
    } else {
      long_spec.assign(spec);
      pattern = long_spec.c_str();
    }
    char text[kMaxWidth + kConversionRoom];
    // 0 is also strftime's answer for a conversion that is empty in this
    // locale, such as %p in some.
    const std::size_t length = strftime(text, sizeof text, pattern, &t);
    output_.append({text, length});
  }

  Output output_;
  const tokenfill_context& context_;
  Moment moment_;
  bool local_;
};

}  // namespace

std::size_t utf8_boundary(std::span<const char> text) noexcept {
  const std::size_t end = text.size();
  for (std::size_t back = 1; back <= 4 && back <= end; ++back) {
    const auto byte = static_cast<unsigned char>(text[end - back]);
    if ((byte & 0xC0) == 0x80) {
      continue;
    }
    const std::size_t needed = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return needed > back ? end - back : end;
  }
  // Nothing but continuation bytes: not a character this cut made.
  return end;
}

int expand(std::span<char> out, const char* text, const tokenfill_context& context,
           const timeval* time) {
  return Expander(out, context, time).run(text);
}

}  // namespace tokenfill
