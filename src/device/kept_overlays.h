// Hardware overlays whose destruction failed, kept until the driver takes
// them. A destroy that no caller can repeat (the overlay an update replaced,
// a stream context's copy, the clean-up after a failed creation) goes through
// destroy_or_keep, so a failed destroy never loses a hardware overlay.
#pragma once

namespace zantrel::device {

// Destroys hardware overlay `id` through `fd`; when the driver refuses, the
// id is kept and destroyed at a later chance. 0 when it is gone now, 1 when
// it was kept, -1 when it could not even be kept (logged; the list is full).
// Overlays kept before are tried again first.
int destroy_or_keep(int fd, int id);

// Tries every kept overlay again; returns how many are still kept. Cheap when
// none is kept, so every operation that talks to the driver may call it.
int destroy_kept(int fd);

// Kept overlays right now.
int kept_count();

}  // namespace zantrel::device
