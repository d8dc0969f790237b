// How the library's inside reports failure: one convention for every
// subsystem, whose headers include this one.
//
// - A function that can fail returns an int: 0 (or a value that cannot be
//   negative, such as a handle 1 to 100 or a count) when it worked, and a
//   negative code when it failed: one of the codes below, or a system error
//   number negated (-errno) where the caller needs the reason. The codes are
//   plain ints, so that a lambda returning a code and a count deduces one
//   type.
// - "Not mapped" and "not there" are null, never MAP_FAILED: the mapping
//   helpers give an owner (table::MappedTable, table::MappedStream) that is
//   null when the object cannot be mapped.
// - A driver overlay id is never a result: 0 stands for "no overlay" and a
//   real one is positive (has_overlay()); failure travels in the int result.
//
// The exported C functions translate to the results include/zantrel.h
// documents, at the C boundary and nowhere else: overlay_table_lock()
// returns the positive error number, overlay_table_map() and
// overlay_table_map_stream() return MAP_FAILED, and the overlay operations
// return these codes unchanged (they are the public ones).
#pragma once

#include <cstdint>

namespace zantrel {

constexpr int kOk = 0;
constexpr int kSystemError = -1;
constexpr int kBadArgument = -2;
constexpr int kBadChannel = -4;
constexpr int kNoStreamTable = -5;
constexpr int kBadHandle = -6;
constexpr int kSetFull = -9;
constexpr int kNoFreeHandle = -10;

// Whether a driver overlay id names an overlay (0 is none).
constexpr bool has_overlay(int64_t id) { return id > 0; }

}  // namespace zantrel
