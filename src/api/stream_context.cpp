// The encoder's side: one context per stream, and once a frame the ids of the
// overlays this stream shows written into the frame's encode request.
//
// The tables are gathered again only when a change counter moved. What the
// context draws for its stream (hardware copies of legacy and scaled texts
// and of scalable images, and the modifiable texts with their renderers,
// glyph caches and scroll positions) is kept across gatherings as long as
// the entry it was made from is unchanged; only what changed is drawn again.
// Drawing is bounded in every call by a work budget in glyph pixels, so a
// change never costs the encoder a frame: a copy still being drawn leaves the
// previous one shown (or none), and is shown once complete.
#include <glib.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "api.h"
#include "common/log.h"
#include "kept_overlays.h"
#include "render.h"
#include "text.h"

namespace zantrel::api {
namespace {

constexpr int kPositions = OVERLAY_SET_PLACES;

// Pixels a context may draw in one call unless the encoder sets its own
// bound: seven glyphs of up to 64x64 pixels, each 150k to 250k instructions
// (mostly cairo outlining it), so at most about 2M instructions and 4 ms on
// the camera's CPU: three streams drawing at once stay inside one frame.
constexpr uint32_t kDefaultWorkBound = 7 * 64 * 64;

// Frames at most between two attempts at a copy that keeps failing.
constexpr uint16_t kLongestRetryDelay = 128;

// A slot whose overlay this stream shows through a copy of its own.
bool needs_copy(const overlay_table_entry& slot, uint32_t height) {
  if (slot.in_use == 0) return false;
  if (slot.data.type == OVERLAY_TYPE_SCALABLE_IMAGE) return true;
  if (slot.data.type != OVERLAY_TYPE_TEXT) return false;
  const overlay_text& t = slot.data.description.text;
  return t.overlay.legacy != 0 || (t.scalable != 0 && height != 1080);
}

uint32_t positions_of(int32_t type, const overlay_caps& caps) {
  switch (type) {
    case OVERLAY_TYPE_TEXT:
    case OVERLAY_TYPE_MODIFIABLE_TEXT:
      return caps.slots_text;
    case OVERLAY_TYPE_IMAGE:
    case OVERLAY_TYPE_SCALABLE_IMAGE:
      return caps.slots_image;
    default:
      return caps.slots_plain;
  }
}

// The hardware copy of one gathered overlay, drawn for this stream.
struct Copy {
  int32_t id = 0;        // the copy of the entry as gathered, once made
  int32_t previous = 0;  // the copy of the overlay's former record, shown until id is made
  bool pending = false;  // still to be made
  // After failures, calls to let pass before the next attempt: none after
  // the first, then twice as many after each (at most about 4 s), so a copy
  // that cannot be made does not cost every frame or flood the log. A delay
  // of 0 means no attempt has failed since the last success; only the first
  // failure is logged.
  uint16_t wait = 0;
  uint16_t delay = 0;

  bool failed_before() const { return delay != 0; }
  text::RenderPtr render;  // a text copy's renderer, kept with its glyph cache

  int32_t shown() const { return has_overlay(id) ? id : previous; }
  void destroy(int fd) {
    if (has_overlay(id)) device::destroy_or_keep(fd, id);
    if (previous != 0) device::destroy_or_keep(fd, previous);
    id = previous = 0;
  }
};

// A stream context as the library makes it: the public record and what the
// context keeps for its stream.
struct StreamContext : overlay_stream_context {
  std::array<overlay_table_entry, kPositions> local{};    // the slots
  std::array<overlay_table_entry, kPositions> sources{};  // the entries as gathered
  std::array<Copy, kPositions> copies{};
  // The text context of each slot holding a modifiable text, set by the
  // composition; owned by text_contexts.
  std::array<modifiable_text_context*, kPositions> texts{};
  render::WorkBudget budget;
  uint32_t bound = kDefaultWorkBound;
};

StreamContext& state(overlay_stream_context* context) {
  return *static_cast<StreamContext*>(context);
}

// Composition versions are unique within the process, so that a request
// filled by an earlier context of the same stream (made again after a
// resolution change) is never taken as up to date by a new one. A process's
// first composition is 1; 0 is never handed out.
int32_t next_version() {
  static std::atomic<uint32_t> compositions{0};
  return static_cast<int32_t>(compositions.fetch_add(1, std::memory_order_relaxed) % INT32_MAX + 1);
}

// The gathered place of the handle before this gathering, or -1.
int former_place(const std::array<int32_t, kPositions>& handles,
                 const std::array<overlay_table_entry, kPositions>& slots, int32_t handle) {
  for (int j = 0; j < kPositions; ++j) {
    if (handle > 0 && handles[j] == handle && slots[j].in_use != 0) return j;
  }
  return -1;
}

// Keeps what the context drew for entries the gathering found unchanged, and
// marks the rest to be drawn again; copies of overlays that left the stream
// are destroyed, and their text contexts dropped.
void take_gathered(StreamContext& c, const std::array<overlay_table_entry, kPositions>& fresh,
                   const std::array<int32_t, kPositions>& handles) {
  const auto former_slots = c.local;
  const auto former_sources = c.sources;
  std::array<int32_t, kPositions> former_handles{};
  std::memcpy(former_handles.data(), c.handles, sizeof c.handles);
  auto former_copies = std::move(c.copies);
  c.copies = {};
  std::array<bool, kPositions> unchanged{};

  for (int i = 0; i < kPositions; ++i) {
    const overlay_table_entry& source = fresh[i];
    const int j = former_place(former_handles, former_slots, handles[i]);
    // Byte for byte is what is meant: the entries are copies of the shared
    // table's bytes, padding included.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    unchanged[i] = j >= 0 && std::memcmp(&former_sources[j], &source, sizeof source) == 0;
    // An unchanged entry keeps its local copy: a ticker keeps its position.
    c.local[i] = unchanged[i] ? former_slots[j] : source;
    c.sources[i] = source;
    c.handles[i] = handles[i];
    if (!needs_copy(source, c.height)) continue;
    Copy& copy = c.copies[i];
    if (unchanged[i]) {
      copy = std::exchange(former_copies[j], Copy{});
      continue;
    }
    copy.pending = true;
    c.local[i].data.kernel_id = 0;
    if (j >= 0 && former_slots[j].data.type == source.data.type) {
      // The same overlay with a new record: its former copy stays shown
      // until the new one is made, by the same renderer.
      Copy& former = former_copies[j];
      copy.previous = former.shown();
      if (has_overlay(former.id) && has_overlay(former.previous))
        device::destroy_or_keep(c.fd, former.previous);
      former.id = former.previous = 0;
      copy.render = std::move(former.render);
      if (copy.render) render::reuse_glyph_cache(copy.render.get());
    }
  }
  for (Copy& copy : former_copies) copy.destroy(c.fd);

  c.texts = {};
  GHashTableIter iter;
  gpointer key = nullptr;
  gpointer value = nullptr;
  g_hash_table_iter_init(&iter, c.text_contexts);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    int place = -1;
    for (int i = 0; i < kPositions && place < 0; ++i) {
      if (c.handles[i] == GPOINTER_TO_INT(key) && c.local[i].in_use != 0 &&
          c.local[i].data.type == OVERLAY_TYPE_MODIFIABLE_TEXT) {
        place = i;
      }
    }
    if (place < 0) {
      g_hash_table_iter_remove(&iter);
    } else {
      static_cast<modifiable_text_context*>(value)->gathered_again(!unchanged[place]);
    }
  }
}

// Takes the lock and gathers the stream's entries afresh; false when the
// lock cannot be had.
bool gather(StreamContext& c) {
  std::array<overlay_table_entry, kPositions> fresh{};
  std::array<int32_t, kPositions> handles{};
  if (table::lock_table(c.table) < 0) return false;
  c.table_version = table::read_version(c.table->version);
  if (c.stream_table != nullptr) c.stream_version = table::read_version(c.stream_table->version);
  overlay_table_get_entries(c.table, c.stream_table, fresh.data(), handles.data(), c.channel,
                            static_cast<int>(c.stream), c.filter);
  overlay_table_unlock(c.table);
  c.version = next_version();
  take_gathered(c, fresh, handles);
  return true;
}

// Makes the copy of slot i, within the call's budget.
text::Outcome make_copy(StreamContext& c, int i) {
  // Every attempt starts from the entry as gathered: a failed one may have
  // changed the local copy (gridfit rewrites an image's path).
  overlay_table_entry& slot = c.local[i];
  slot = c.sources[i];
  slot.data.kernel_id = 0;
  Copy& copy = c.copies[i];
  int id = 0;
  if (slot.data.type == OVERLAY_TYPE_SCALABLE_IMAGE) {
    // Scaling cannot stop half way: an image is made only by a call that
    // has drawn nothing yet, so it never adds to other drawing.
    if (!c.budget.untouched()) return text::Outcome::kDeferred;
    if (o_create_scaled_image_overlay_from_ovl_file(&slot.data.description.image, c.fd, &id,
                                                    c.channel, c.width, c.height,
                                                    &slot.data) != 0) {
      return text::Outcome::kFailed;
    }
    const overlay& scaled = slot.data.description.image.overlay;
    c.budget.spend(uint64_t{scaled.width} * scaled.height);
  } else {
    if (!copy.render) copy.render.reset(render_text_init(OVERLAY_FORMAT_PALETTE_4BIT));
    if (!copy.render) {
      if (!copy.failed_before()) {
        log_message(LOG_ERR,
                    "libzantrel: Failed to create render context for legacy / scaled text "
                    "overlay\n");
      }
      return text::Outcome::kFailed;
    }
    copy.render->budget = &c.budget;
    const text::Outcome outcome = text::create_text_overlay(
        c.fd, copy.render.get(), &c, slot.data.description.text, slot.data, nullptr, id);
    copy.render->budget = nullptr;
    if (outcome == text::Outcome::kFailed && !copy.failed_before()) {
      log_message(LOG_ERR, "libzantrel: Failed to create legacy / scaled text overlay\n");
    }
    if (outcome != text::Outcome::kDone) return outcome;
  }
  copy.id = id;
  slot.data.kernel_id = id;
  return text::Outcome::kDone;
}

// Goes on with the copies still to be made, in priority order, while the
// budget lasts; true when one was made (the composition changes). A copy
// that failed is tried again on the next call.
bool make_pending_copies(StreamContext& c) {
  bool made = false;
  for (int i = 0; i < kPositions && !c.budget.spent(); ++i) {
    Copy& copy = c.copies[i];
    if (!copy.pending) continue;
    if (copy.wait > 0) {
      --copy.wait;
      continue;
    }
    const text::Outcome outcome = make_copy(c, i);
    if (outcome == text::Outcome::kDeferred) break;
    if (outcome == text::Outcome::kFailed) {
      copy.delay = copy.delay == 0 ? 1 : std::min<uint16_t>(copy.delay * 2, kLongestRetryDelay);
      copy.wait = copy.delay - 1;
      continue;
    }
    copy.pending = false;
    copy.wait = copy.delay = 0;
    if (copy.previous != 0) device::destroy_or_keep(c.fd, copy.previous);
    copy.previous = 0;
    made = true;
  }
  return made;
}

// Writes the gathered overlays into the request and records where each
// modifiable text goes.
void compose(StreamContext& c, overlay_encreq* request) {
  for (int i = 0; i < kPositions; ++i) o_encode_set_overlay_id(request, i, 0);
  overlay_caps caps{};
  o_get_overlay_caps(&caps);
  c.texts = {};
  uint32_t p = 0;
  for (int i = 0; i < kPositions && p < kPositions; ++i) {
    const overlay_table_entry& slot = c.local[i];
    if (slot.in_use == 0) continue;
    const uint32_t n = positions_of(slot.data.type, caps);
    if (p + n > kPositions) continue;
    const bool copied = needs_copy(slot, c.height);
    const int32_t id = copied ? c.copies[i].shown() : slot.data.kernel_id;
    switch (slot.data.type) {
      case OVERLAY_TYPE_MODIFIABLE_TEXT: {
        modifiable_text_context* text = o_modifiable_text_context_get(&c, c.handles[i]);
        if (text == nullptr) continue;
        o_modifiable_text_context_update_count(text, static_cast<int>(p));
        c.texts[i] = text;
        break;
      }
      case OVERLAY_TYPE_IMAGE:
      case OVERLAY_TYPE_SCALABLE_IMAGE:
        if (!has_overlay(id)) continue;
        o_encode_set_overlay_id(request, static_cast<int>(p), static_cast<uint32_t>(id));
        break;
      default:
        // Plain overlays and texts keep their positions, empty when there
        // is nothing to show yet.
        if (c.handles[i] > 0 && has_overlay(id)) {
          o_encode_set_overlay_id(request, static_cast<int>(p), static_cast<uint32_t>(id));
        }
    }
    p += n;
  }
  o_force_refresh_overlays(c.fd);
  o_encode_set_version(request, static_cast<uint32_t>(c.version));
}

struct TextUpdate {
  bool id_changed = false;
  bool scrolled = false;
};

// Draws each modifiable text for this frame and puts its id at its position.
TextUpdate update_texts(StreamContext& c, overlay_encreq* request,
                        const overlay_expansion_params* params) {
  TextUpdate update;
  for (int i = 0; i < kPositions; ++i) {
    modifiable_text_context* text = c.texts[i];
    if (text == nullptr) continue;
    overlay_table_entry& slot = c.local[i];
    text->render->budget = &c.budget;
    const modifiable_text_context::Drawn drawn = text->draw(c, slot, params);
    text->render->budget = nullptr;
    if (!has_overlay(drawn.id)) {
      if (!drawn.deferred) log_message(LOG_ERR, "libzantrel: Could not get modifiable text id\n");
      continue;
    }
    if (o_update_scrolling_text(&slot.data, text, c.width, drawn.id) != 0) update.scrolled = true;
    const int q = text->count;
    if (q >= 0 && q < kPositions && o_encode_get_overlay_id(request, q) != drawn.id) {
      o_encode_set_overlay_id(request, q, drawn.id);
      update.id_changed = true;
    }
  }
  return update;
}

}  // namespace

void _clear_osc_local_overlays(overlay_stream_context* context) {
  if (context == nullptr || context->slots == nullptr) return;
  StreamContext& c = state(context);
  for (int i = 0; i < kPositions; ++i) {
    c.copies[i].destroy(c.fd);
    c.copies[i] = {};
    c.local[i].in_use = 0;
    c.sources[i] = {};
  }
  c.texts = {};
  if (c.text_contexts != nullptr) g_hash_table_remove_all(c.text_contexts);
}

}  // namespace zantrel::api

using zantrel::log_message;
using namespace zantrel::api;

extern "C" {

overlay_stream_context* overlay_stream_context_create(int fd, unsigned int channel,
                                                      unsigned int stream, uint32_t /*unused*/,
                                                      uint32_t width, uint32_t height,
                                                      uint32_t filter) {
  auto* context = new (std::nothrow) StreamContext();
  if (context == nullptr) return nullptr;
  context->slots = context->local.data();
  context->text_contexts =
      g_hash_table_new_full(nullptr, nullptr, nullptr,
                            reinterpret_cast<GDestroyNotify>(o_modifiable_text_context_destroy));
  if (context->text_contexts == nullptr) {
    delete context;
    return nullptr;
  }
  context->fd = fd;
  context->channel = channel;
  context->stream = stream;
  context->width = width;
  context->height = height;
  context->filter = filter;
  // The encoder makes its contexts before its first frame: the font is read
  // then, not in the frame that first draws a text.
  zantrel::render::open_font();
  context->table = zantrel::table::map_table().release();
  context->stream_table = zantrel::table::map_stream(static_cast<int>(stream)).release();
  return context;
}

void overlay_stream_context_destroy(overlay_stream_context* context) {
  if (context == nullptr) return;
  _clear_osc_local_overlays(context);
  g_hash_table_unref(context->text_contexts);
  if (context->table != nullptr) overlay_table_unmap(context->table);
  if (context->stream_table != nullptr) overlay_table_unmap_stream(context->stream_table);
  delete &state(context);
}

int overlay_stream_context_set_work_bound(overlay_stream_context* context, uint32_t pixels) {
  if (context == nullptr) {
    log_message(LOG_ERR, "libzantrel: Need a valid stream context to set a work bound\n");
    return -2;
  }
  state(context).bound = pixels;
  return 0;
}

int overlay_setup_in_encreq(overlay_stream_context* context, overlay_encreq* request,
                            const overlay_expansion_params* params) {
  if (context == nullptr) {
    log_message(LOG_ERR, "libzantrel: Need a valid stream context to setup a encode request\n");
    return -1;
  }
  if (request == nullptr) return 0;
  if (context->table == nullptr) {
    context->table = zantrel::table::map_table().release();
    if (context->table == nullptr) return 0;
  }
  StreamContext& c = state(context);
  // Copies whose destruction the driver refused earlier go first.
  zantrel::device::destroy_kept(c.fd);
  // The change counters are read without the lock: a change seen late is
  // picked up by the next frame.
  const uint32_t table_version = zantrel::table::read_version(c.table->version);
  bool changed = table_version != c.table_version;
  if (!changed) {
    changed = c.stream_table != nullptr &&
              zantrel::table::read_version(c.stream_table->version) != c.stream_version;
  } else if (c.stream_table == nullptr) {
    c.stream_table = zantrel::table::map_stream(static_cast<int>(c.stream)).release();
  }
  if (changed && !gather(c)) return 0;

  c.budget = zantrel::render::WorkBudget(c.bound == 0 ? INT64_MAX : static_cast<int64_t>(c.bound));
  // A copy made in this call changes what the request shows.
  if (make_pending_copies(c) && !changed) c.version = next_version();
  const bool up_to_date = o_encode_get_version(request) == static_cast<uint32_t>(c.version);
  if (!up_to_date) compose(c, request);
  const TextUpdate update = update_texts(c, request, params);
  if (update.scrolled || (update.id_changed && up_to_date)) o_force_refresh_overlays(c.fd);
  return 0;
}

}  // extern "C"
