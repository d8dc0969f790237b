// What the host tells about itself: its name and its first IPv4 address.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tokenfill_internal.h"

namespace tokenfill {
namespace {

// gethostname reports a name longer than its buffer as an error, so read into
// room for any name and cut afterwards.
std::size_t read_host_name(std::span<char, kHostNameMax> scratch) noexcept {
  if (gethostname(scratch.data(), scratch.size()) != 0) {
    scratch[0] = '\0';
    return 0;
  }
  scratch.back() = '\0';
  return std::strlen(scratch.data());
}

bool is_loopback(const ifaddrs& entry, const sockaddr_in& address) {
  return (entry.ifa_flags & IFF_LOOPBACK) != 0 || (ntohl(address.sin_addr.s_addr) >> 24) == 127;
}

}  // namespace

void cache_host_name(std::span<char> field) noexcept {
  char scratch[kHostNameMax];
  std::size_t length = std::min(read_host_name(scratch), field.size() - 1);
  std::memcpy(field.data(), scratch, length);
  std::memset(field.data() + length, 0, field.size() - length);
}

std::string_view host_name(const tokenfill_context& context,
                           std::span<char, kHostNameMax> scratch) noexcept {
  const std::size_t length = strnlen(context.hostname, sizeof context.hostname);
  // A full field may be a longer name cut short; such names are rare enough
  // to be read again on every use rather than cut on the picture.
  if (length + 1 < sizeof context.hostname) {
    return {context.hostname, length};
  }
  return {scratch.data(), read_host_name(scratch)};
}

std::string_view first_ipv4_address(std::span<char, kAddressMax> scratch) noexcept {
  ifaddrs* list = nullptr;
  std::string_view found = "0.0.0.0";
  if (getifaddrs(&list) != 0) {
    return found;
  }
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    sockaddr_in address;
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    if (!is_loopback(*entry, address) &&
        inet_ntop(AF_INET, &address.sin_addr, scratch.data(), scratch.size()) != nullptr) {
      found = scratch.data();
      break;
    }
  }
  freeifaddrs(list);
  return found;
}

}  // namespace tokenfill
