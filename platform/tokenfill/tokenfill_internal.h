// Pieces of libtokenfill shared between its files; nothing here is exported.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <span>
#include <string_view>

#include "tokenfill.h"

namespace tokenfill {

// Room for any host name the kernel keeps, and for a dotted IPv4 address.
inline constexpr std::size_t kHostNameMax = 256;
inline constexpr std::size_t kAddressMax = 16;

// Fills a context's host name field: the name, cut to the field, or "" when
// the system will not tell.
void cache_host_name(std::span<char> field) noexcept;

// The host name for #n: the cached one, or, when the cache may hold a cut
// name, the full one read again into scratch.
std::string_view host_name(const tokenfill_context& context,
                           std::span<char, kHostNameMax> scratch) noexcept;

// The first non-loopback IPv4 address, or "0.0.0.0".
std::string_view first_ipv4_address(std::span<char, kAddressMax> scratch) noexcept;

// The length of the longest prefix of text that does not end inside a UTF-8
// character.
std::size_t utf8_boundary(std::span<const char> text) noexcept;

// Expands text into out (out is not empty). Returns the length written before
// the NUL, or -1 with out holding "" when the time has no calendar date.
int expand(std::span<char> out, const char* text, const tokenfill_context& context,
           const timeval* time);

}  // namespace tokenfill
