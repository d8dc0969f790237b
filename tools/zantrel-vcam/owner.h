// The owner process: it makes the overlay system and removes it again.
#pragma once

namespace vcam {

// overlay_init(0), then one byte on ready_fd; waits until quit_fd is closed
// (or gets a byte) and calls overlay_deinit(). A stop signal does not end it
// early: the supervisor closes quit_fd only once every other process has let
// go of the tables, since deinit removes them under their feet. With
// destroy_left_overlays, the overlays still in the table go first (live mode,
// where programs that ended may have left theirs), so that no hardware
// overlay outlives the tables.
int run_owner(int ready_fd, int quit_fd, bool destroy_left_overlays = false);

}  // namespace vcam
