// The simulated driver's commands and its device nodes.
#pragma once

#include <cstdint>

#include "state.h"

namespace camsim {

// True for the paths that the simulator answers ("/dev/cam0" ... "/dev/cam14",
// "/dev/camquad"); null is no node.
bool is_node_path(const char* path);
// True for "/dev/galcore".
bool is_gpu_path(const char* path);

// Runs one command on a node descriptor: the command's result (>= 0), or a
// negated errno value.
int run_command(const Attachment& a, unsigned long request, void* arg);

// Which command a request number is.
camsim_command command_of(unsigned long request);

// Bytes of one buffer of an overlay of internal type `type`.
std::uint64_t buffer_bytes(std::int32_t type, std::uint32_t width, std::uint32_t height);

}  // namespace camsim
