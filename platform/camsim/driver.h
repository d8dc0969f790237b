// The simulated driver's commands and its device nodes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "state.h"

namespace camsim {

// The node of a path that the simulator answers: N for "/dev/camN" (0 to 14),
// CAMSIM_NODE_CAMQUAD for "/dev/camquad"; -1 for every other path and null.
int node_of_path(const char* path);
// True for "/dev/galcore".
bool is_gpu_path(const char* path);

// Runs one command on a descriptor of `node`: the command's result (>= 0),
// or a negated errno value.
int run_command(const Attachment& a, int node, unsigned long request, void* arg);

// mmap() of a descriptor of `node` (flags of open() in `open_flags`): the
// mapping of a handed-out overlay buffer, or MAP_FAILED with errno set.
void* map_buffer(const Attachment& a, int node, int open_flags, void* address, std::size_t length,
                 int prot, int flags, off_t offset);

// Which command a request number is.
camsim_command command_of(unsigned long request);

// Bytes of one buffer of an overlay of internal type `type`.
std::uint64_t buffer_bytes(std::int32_t type, std::uint32_t width, std::uint32_t height);

}  // namespace camsim
