// The encoder's per-frame request against the simulated driver: ids at their
// positions, gathering again on a change, the stream's own hardware copies and
// modifiable texts drawn for the frame's time.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "api_test_util.h"
#include "test_support.h"
#include "tokenfill.h"

namespace {

using api_test::entry;
using api_test::kernel_id;
using api_test::main_version;
using api_test::Table;
using Ids = std::vector<uint32_t>;
constexpr uint32_t kEveryOverlay =
    OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN;
constexpr auto kRowName = [](const auto& info) { return std::string(info.param.name); };

bool alive(uint32_t id) {
  internal_overlay record{};
  return id != 0 && camsim_get_overlay(id, &record) == 0;
}
internal_overlay record_of(uint32_t id) {
  internal_overlay record{};
  EXPECT_EQ(camsim_get_overlay(id, &record), 0) << "overlay " << id;
  return record;
}
std::vector<unsigned char> shown_pixels(uint32_t id) {
  std::vector<unsigned char> pixels(record_of(id).buffer_size);
  camsim_read_shown_buffer(id, pixels.data(), pixels.size());
  return pixels;
}

// A request with every byte marked, to see what the library writes.
overlay_encreq marked(uint32_t version) {
  overlay_encreq request;
  std::memset(&request, 0xA5, sizeof request);
  request.version = version;
  return request;
}
bool same(const overlay_encreq& a, const overlay_encreq& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}
Ids ids(const overlay_encreq& request) { return {request.overlay_ids, request.overlay_ids + 8}; }
void setup(overlay_stream_context* ctx, overlay_encreq& request,
           const overlay_expansion_params* params = nullptr) {
  EXPECT_EQ(overlay_setup_in_encreq(ctx, &request, params), 0);
}

// The kernel ids of `handles` at the first positions, 0 at the rest.
Ids ids_of(const std::vector<int>& handles) {
  Ids ids(8, 0);
  std::transform(handles.begin(), handles.end(), ids.begin(), kernel_id);
  return ids;
}
unsigned stream_version() {
  unsigned version = 0;
  EXPECT_EQ(overlay_table_get_stream_table_version(0, &version), 0);
  return version;
}
int on_stream(int handle, unsigned stream = 0) {
  EXPECT_EQ(overlay_add_to_stream(handle, 0, stream), 0);
  return handle;
}
int add_text(const char* text, int32_t priority, uint32_t legacy = 0, int32_t scalable = 0,
             bool at_bottom = false) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.overlay.priority = priority;
  t.overlay.legacy = legacy;
  t.overlay.position = at_bottom ? overlay_position{0, 1, 1, 1, OVERLAY_COORDS_NORMALIZED}
                                 : overlay_position{0, 0, 1, 1, 0};
  t.scalable = scalable;
  t.font_size = 48;
  t.text_color = OVERLAY_COLOR_WHITE;
  t.background_color = OVERLAY_COLOR_TRANSPARENT;
  return overlay_text_create(&t);
}
int add_image(const std::string& path, int32_t priority) {
  overlay_image image{};
  image.overlay.priority = priority;
  image.overlay.position = {0, 0, 1, 1, 0};
  std::snprintf(image.path, sizeof image.path, "%s", path.c_str());
  return overlay_image_create(&image);
}

// 'P' plain, 'T' fixed text, 'C' clock text, 'I' image from an ".ovl" file;
// 'p' and 'i' a plain and an image entry without a hardware overlay, 'n' a
// plain entry whose id is negative.
int make(char kind, int32_t priority) {
  int handle = 0;
  if (kind == 'P') {
    overlay ovl = api_test::plain(16, 16, priority);
    handle = overlay_create(&ovl);
  } else if (kind == 'T' || kind == 'C') {
    handle = add_text(kind == 'T' ? "Gate 4" : "#T", priority);
  } else if (kind == 'I') {  // ARGB, 8 x 6
    const std::string path = "/dev/shm/encreq-" + std::to_string(priority) + ".ovl";
    api_test::write_ovl(path, 8, 6, '\xC0');
    handle = add_image(path, priority);
  } else {
    overlay_entry_data data{};
    data.kernel_id = kind == 'n' ? -7 : 0;
    data.type = kind == 'i' ? OVERLAY_TYPE_IMAGE : OVERLAY_TYPE_PLAIN;
    data.description.ovl.priority = priority;
    Table table;
    EXPECT_EQ(overlay_table_lock(table.t), 0);
    handle = overlay_table_create_overlay(table.t, &data);
    overlay_table_unlock(table.t);
  }
  EXPECT_GT(handle, 0) << kind;
  return handle;
}

class EncodeRequest : public api_test::Library {
 protected:
  void TearDown() override {
    for (overlay_stream_context* context : contexts_) overlay_stream_context_destroy(context);
    Library::TearDown();
  }

  overlay_stream_context* context(uint32_t width = 1920, uint32_t height = 1080,
                                  unsigned stream = 0) {
    contexts_.push_back(
        overlay_stream_context_create(o_get_fd(), 0, stream, 0, width, height, kEveryOverlay));
    EXPECT_NE(contexts_.back(), nullptr);
    return contexts_.back();
  }
  void destroy(overlay_stream_context* context) {
    std::erase(contexts_, context);
    overlay_stream_context_destroy(context);
  }

  // The stream's own overlay at position 0 is kept, not drawn again, through
  // a gathering that does not touch its entry, and goes with the context; the
  // table's stays.
  void kept_then_gone(overlay_stream_context* ctx, overlay_encreq& request, uint32_t table_id,
                      const overlay_expansion_params* params = nullptr) {
    const uint32_t copy = request.overlay_ids[0];
    const int plain = make('P', 1);
    const int live = camsim_live_count();
    const uint32_t version = request.version;
    on_stream(plain, ctx->stream);
    const long calls = camsim_total_calls();
    setup(ctx, request, params);
    EXPECT_NE(request.version, version) << "gathered";
    EXPECT_EQ(request.overlay_ids[0], copy);
    EXPECT_EQ(camsim_total_calls() - calls, 1) << "a refresh, nothing made or drawn";
    EXPECT_EQ(camsim_live_count(), live);
    destroy(ctx);
    EXPECT_EQ(camsim_live_count(), live - 1);
    EXPECT_TRUE(!alive(copy) && (table_id == 0 || alive(table_id)));
  }

  std::vector<overlay_stream_context*> contexts_;
};

struct CompositionCase {
  const char* name;
  const char* overlays;  // kinds as make() takes them, by falling priority
  const char* shown;     // per position: the index of the overlay whose id is there, '-' for 0
};
class RequestComposition : public EncodeRequest,
                           public testing::WithParamInterface<CompositionCase> {};

TEST_P(RequestComposition, IdsAtTheirPositionsAndLeftAloneWhenUpToDate) {
  const std::string kinds = GetParam().overlays;
  const int n = static_cast<int>(kinds.size());
  std::vector<int> handles(kinds.size());
  // Made lowest priority first, so that only priority gives the order.
  for (int i = n - 1; i >= 0; --i) handles[i] = on_stream(make(kinds[i], 10 * (n - i)));
  overlay_stream_context* ctx = context();
  overlay_encreq request{};
  const long refreshes = camsim_refresh_count();
  setup(ctx, request);
  EXPECT_EQ(request.version, 1u);
  EXPECT_EQ(camsim_refresh_count(), refreshes + 1);
  for (int p = 0; p < 8; ++p) {
    const int i = GetParam().shown[p] - '0';
    const uint32_t id = request.overlay_ids[p];
    if (i >= 0 && kinds[i] == 'C') {  // drawn for this stream into 3 buffers of its own
      EXPECT_TRUE(id != kernel_id(handles[i]) && record_of(id).nbr_buffers == 3) << p;
    } else {
      EXPECT_EQ(id, i < 0 ? 0 : kernel_id(handles[i])) << p;
    }
  }

  // Up to date: nothing is written, the driver not asked. An older request
  // gets the same ids with one refresh and nothing made.
  const overlay_encreq composed = request;
  const long calls = camsim_total_calls();
  setup(ctx, request);
  EXPECT_TRUE(same(request, composed));
  EXPECT_EQ(camsim_total_calls(), calls);
  overlay_encreq older = marked(0);
  older.reserved = composed.reserved;
  setup(ctx, older);
  EXPECT_TRUE(same(older, composed));
  EXPECT_EQ(camsim_total_calls(), calls + 1);
  EXPECT_EQ(camsim_refresh_count(), refreshes + 2);
}

INSTANTIATE_TEST_SUITE_P(Positions, RequestComposition,
                         testing::ValuesIn(std::vector<CompositionCase>{
                             {"OneForPlainAndTextTwoForImage", "PTIP", "012-3---"},
                             {"ThirdImageDoesNotFit", "PPPIII", "0123-4--"},
                             {"SkippedImageLeavesRoomForALaterPlain", "IIIPIP", "0-1-2-35"},
                             {"FullRequestTakesNoMore", "IIIIP", "0-1-2-3-"},
                             {"ImageWithoutIdTakesNoPosition", "iP", "1-------"},
                             {"PlainWithoutIdKeepsItsPosition", "pnP", "--2-----"},
                             {"ModifiableTextAtItsReservedPosition", "ICP", "0-12----"}}),
                         kRowName);

// Without a context the request is refused; without a table, left alone.
TEST_F(EncodeRequest, NoContextOrContextMadeBeforeTheTable) {
  overlay_encreq request = marked(7);
  EXPECT_EQ(overlay_setup_in_encreq(nullptr, &request, nullptr), -1);
  EXPECT_TRUE(zantrel::test::logged_once(
      LOG_ERR, "libzantrel: Need a valid stream context to setup a encode request\n"));
  overlay_deinit();
  const int fd = o_open_fd();
  overlay_stream_context* ctx =
      overlay_stream_context_create(fd, 0, 0, 0, 1920, 1080, kEveryOverlay);
  ASSERT_TRUE(fd >= 0 && ctx != nullptr);
  long calls = camsim_total_calls();
  for (int frame = 0; frame < 3; ++frame) setup(ctx, request);
  EXPECT_TRUE(same(request, marked(7)));
  EXPECT_EQ(camsim_total_calls(), calls);

  // A new context on a table that never changed: a request of version 0 is
  // up to date.
  ASSERT_GT(overlay_init(0), 0);
  ASSERT_EQ(main_version(), 0u);
  request = marked(0);
  calls = camsim_total_calls();
  setup(context(), request);
  EXPECT_TRUE(same(request, marked(0)));
  EXPECT_EQ(camsim_total_calls(), calls);

  // The early context maps the table at its first call and gathers at once.
  const int handle = on_stream(make('P', 5));
  setup(ctx, request);
  EXPECT_EQ(request.version, 1u);
  EXPECT_EQ(ids(request), ids_of({handle}));
  overlay_stream_context_destroy(ctx);
  o_close_fd(fd);
}

TEST_F(EncodeRequest, EitherCounterOnItsOwnGathers) {
  const int global = make('P', 50);
  ASSERT_EQ(overlay_add_globally(global), 0);
  overlay_stream_context* ctx = context();
  overlay_encreq request{};
  setup(ctx, request);
  EXPECT_EQ(ids(request), ids_of({global}));
  // The stream table appears after the context was made.
  const int streamed = on_stream(make('P', 40)), spare = make('P', 30);
  setup(ctx, request);
  EXPECT_EQ(ids(request), ids_of({global, streamed}));

  // After each change: which counters moved, and what the request shows.
  uint32_t main = main_version(), stream = stream_version();
  auto after = [&](const char* change, bool main_moves, bool stream_moves, std::vector<int> shown) {
    SCOPED_TRACE(change);
    ASSERT_EQ(main_version() != std::exchange(main, main_version()), main_moves);
    ASSERT_EQ(stream_version() != std::exchange(stream, stream_version()), stream_moves);
    const uint32_t version = request.version;
    const long calls = camsim_total_calls();
    setup(ctx, request);
    const int gathers = main_moves || stream_moves ? 1 : 0;
    EXPECT_EQ(request.version, version + gathers);
    EXPECT_EQ(camsim_total_calls() - calls, gathers) << "one refresh";
    EXPECT_EQ(ids(request), ids_of(shown));
  };
  after("nothing", false, false, {global, streamed});
  overlay moved = api_test::plain(16, 16, 50);
  moved.position = {32, 32, 1, 1, 0};
  ASSERT_EQ(overlay_update(global, &moved), 0);
  after("global overlay moved", true, false, {global, streamed});
  on_stream(spare);
  after("one more on the stream", false, true, {global, streamed, spare});
  ASSERT_EQ(overlay_remove_from_stream(streamed, 0, 0), 0);
  after("one off the stream", false, true, {global, spare});
}

struct CopyCase {
  const char* name;
  uint32_t legacy;
  int32_t scalable;
  uint32_t width, height;
  bool copied;
  bool at_bottom = false;  // at the frame's bottom edge, where a band has 8 rows more
};
class StreamCopies : public EncodeRequest, public testing::WithParamInterface<CopyCase> {};

TEST_P(StreamCopies, DrawnForTheStreamAndKeptWhileItsEntryIsUnchanged) {
  const CopyCase& c = GetParam();
  const int text = on_stream(add_text("Gate 4", 20, c.legacy, c.scalable, c.at_bottom));
  const int other = on_stream(make('P', 10));
  const uint32_t table_id = kernel_id(text);
  const int live = camsim_live_count();
  // A gathering for a request already of the new version makes no copy, and
  // leaves no table id in a slot for the context to take as its own.
  overlay_encreq ahead = marked(1);
  setup(context(c.width, c.height), ahead);
  EXPECT_TRUE(same(ahead, marked(1)));
  destroy(contexts_.back());
  EXPECT_EQ(camsim_live_count(), live);
  EXPECT_TRUE(alive(table_id));

  overlay_stream_context* ctx = context(c.width, c.height);
  overlay_encreq request{};
  setup(ctx, request);
  const uint32_t shown = request.overlay_ids[0];
  EXPECT_EQ(request.overlay_ids[1], kernel_id(other));
  EXPECT_EQ(shown != table_id, c.copied);
  EXPECT_EQ(camsim_live_count(), live + (c.copied ? 1 : 0));
  if (!c.copied) return;
  // As the text draws for this stream: a legacy band spans it, a scaled text
  // is smaller or larger in proportion to the stream's height.
  overlay_text t = entry(text).description.text;
  free(overlay_text_render(ctx, &t, nullptr, OVERLAY_FORMAT_PALETTE_4BIT));
  EXPECT_EQ(record_of(shown).width, c.legacy != 0 ? c.width : t.overlay.width);
  EXPECT_EQ(record_of(shown).height, t.overlay.height + (c.at_bottom ? 8 : 0));
  EXPECT_TRUE(c.legacy != 0 ||
              (t.overlay.height < record_of(table_id).height) == (c.height < 1080));
  kept_then_gone(ctx, request, table_id);
}

INSTANTIATE_TEST_SUITE_P(Texts, StreamCopies,
                         testing::ValuesIn(std::vector<CopyCase>{
                             {"LegacyOn720", 1, 0, 1280, 720, true},
                             {"LegacyOn1080", 1, 0, 1920, 1080, true},
                             {"LegacyAtTheBottomOn720", 1, 0, 1280, 720, true, true},
                             {"ScalableOn720", 0, 1, 1280, 720, true},
                             {"ScalableOn1080", 0, 1, 1920, 1080, false},
                             {"ScalableOn2160", 0, 1, 3840, 2160, true},
                             {"FixedOn720", 0, 0, 1280, 720, false}}),
                         kRowName);

TEST_F(EncodeRequest, ScalableImageCopiedPerStream) {
  // A directory holding a 108 x 54 bitmap. Scratch files go to the private /dev/shm.
  mkdir("/dev/shm/encreq-logo", 0700);
  api_test::write_bmp("/dev/shm/encreq-logo/bmp", 108, 54, '\x60');
  const int handle = on_stream(on_stream(add_image("/dev/shm/encreq-logo", 20), 0), 1);
  ASSERT_EQ(entry(handle).type, OVERLAY_TYPE_SCALABLE_IMAGE);
  ASSERT_EQ(entry(handle).kernel_id, 0);

  const uint32_t streams[2][4] = {{1280, 720, 72, 36}, {1920, 1080, 108, 54}};
  overlay_encreq requests[2] = {};
  for (unsigned s = 0; s < 2; ++s) {
    setup(context(streams[s][0], streams[s][1], s), requests[s]);
    EXPECT_EQ(record_of(requests[s].overlay_ids[0]).width, streams[s][2]);
    EXPECT_EQ(record_of(requests[s].overlay_ids[0]).height, streams[s][3]);
  }
  EXPECT_EQ(camsim_live_count(), 2);
  kept_then_gone(contexts_[1], requests[1], 0);
  kept_then_gone(contexts_[0], requests[0], 0);
}

struct ClockCase {
  const char* name;
  const char* text;
  timeval later;  // the second frame's time; the first is Tuesday 2023-11-14 22:13:20 UTC
  bool redrawn, new_overlay;
};
class ClockTextFrames : public EncodeRequest, public testing::WithParamInterface<ClockCase> {};

TEST_P(ClockTextFrames, DrawnAgainOnlyWhenTheTextChanged) {
  const ClockCase& c = GetParam();
  tokenfill_context* expansion = tokenfill_init();
  ASSERT_NE(expansion, nullptr);
  timeval now{1700000000, 0};
  const overlay_expansion_params params{expansion, &now};
  const int handle = on_stream(add_text(c.text, 20));
  ASSERT_EQ(entry(handle).type, OVERLAY_TYPE_MODIFIABLE_TEXT);
  overlay_stream_context* ctx = context();
  overlay_encreq request{};
  setup(ctx, request, &params);
  const uint32_t first = request.overlay_ids[0];
  ASSERT_TRUE(alive(first) && first != kernel_id(handle));
  const std::vector<unsigned char> first_pixels = shown_pixels(first);

  const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER), refreshes = camsim_refresh_count(),
             creates = camsim_call_count(CAMSIM_CREATE_OVERLAY), live = camsim_live_count();
  now = c.later;
  setup(ctx, request, &params);
  const uint32_t second = request.overlay_ids[0];
  EXPECT_EQ(request.version, 1u) << "no gathering";
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER) - submits, c.redrawn ? 1 : 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_CREATE_OVERLAY) - creates, c.new_overlay ? 1 : 0);
  EXPECT_EQ(camsim_refresh_count() - refreshes, c.new_overlay ? 1 : 0) << "only for a new id";
  EXPECT_EQ(camsim_live_count(), live);
  EXPECT_EQ(second != first, c.new_overlay);
  EXPECT_EQ(alive(first), !c.new_overlay);
  EXPECT_EQ(record_of(second).nbr_buffers, 3u);
  EXPECT_EQ(shown_pixels(second) != first_pixels, c.redrawn);
  // A gathering that does not touch the text keeps its text context.
  kept_then_gone(ctx, request, kernel_id(handle), &params);
  tokenfill_exit(expansion);
}

INSTANTIATE_TEST_SUITE_P(Frames, ClockTextFrames,
                         testing::ValuesIn(std::vector<ClockCase>{
                             {"SameSecond", "#T", {1700000000, 900000}, false, false},
                             {"NextSecond", "#T", {1700000001, 0}, true, false},
                             {"NextSecondStrftime", "%H:%M:%S", {1700000001, 0}, true, false},
                             {"LongerWeekdayNeedsANewOverlay", "%A", {1700086400, 0}, true, true}}),
                         kRowName);

// A context bounded to about one glyph a call spreads the drawing of a
// stream's copies and texts over frames: a copy still being drawn is not
// shown (a changed one shows its former copy meanwhile), and once complete
// everything looks as an unbounded context draws it at once.
TEST_F(EncodeRequest, WorkBoundSpreadsDrawingOverFramesNeverShowingHalfACopy) {
  const int text = on_stream(on_stream(add_text("North gate 4", 30, 0, 1), 0), 1);
  const int clock = on_stream(on_stream(add_text("#T", 20), 0), 1);
  overlay_stream_context* bounded = context(1280, 720, 0);
  overlay_stream_context* unbounded = context(1280, 720, 1);
  EXPECT_EQ(overlay_stream_context_set_work_bound(nullptr, 1), -2);
  ASSERT_EQ(overlay_stream_context_set_work_bound(bounded, 1), 0);
  ASSERT_EQ(overlay_stream_context_set_work_bound(unbounded, 0), 0);
  overlay_encreq slow{}, fast{};
  setup(unbounded, fast);
  ASSERT_TRUE(alive(fast.overlay_ids[0]) && alive(fast.overlay_ids[1]));
  ASSERT_NE(fast.overlay_ids[0], kernel_id(text));

  // Frames until both are shown: at least one a glyph, never a half one.
  auto frames_until_drawn = [&](uint32_t former_copy) {
    int frames = 0;
    do {
      setup(bounded, slow);
      ++frames;
      // The former copy goes only once the new one is shown.
      const uint32_t copy = slow.overlay_ids[0];
      EXPECT_TRUE(former_copy == 0 || alive(former_copy) == (copy == former_copy)) << frames;
    } while (frames < 40 && (slow.overlay_ids[0] == former_copy || slow.overlay_ids[1] == 0));
    return frames;
  };
  EXPECT_GE(frames_until_drawn(0), 6);
  for (int p = 0; p < 2; ++p)
    EXPECT_EQ(shown_pixels(slow.overlay_ids[p]), shown_pixels(fast.overlay_ids[p])) << p;

  // A new record of the text: its former copy stays shown until the new one
  // is complete, and goes then.
  const uint32_t former = slow.overlay_ids[0];
  overlay_text t = entry(text).description.text;
  std::snprintf(t.text, sizeof t.text, "South gate 7");
  ASSERT_EQ(overlay_text_update(text, &t), 0);
  setup(bounded, slow);
  EXPECT_EQ(slow.overlay_ids[0], former);
  EXPECT_GE(frames_until_drawn(former), 2);
  EXPECT_FALSE(alive(former));
  setup(unbounded, fast);
  EXPECT_EQ(shown_pixels(slow.overlay_ids[0]), shown_pixels(fast.overlay_ids[0]));
  EXPECT_TRUE(alive(kernel_id(clock)));
}

// A ticker moves and is refreshed every frame, and goes on from where it is
// through changes that do not touch it.
TEST_F(EncodeRequest, TickerKeepsItsPlaceThroughOtherChanges) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "Doors close at 18:00");
  t.font_size = 32;
  t.scroll_speed = 10;
  t.overlay.priority = 50;
  t.overlay.position = {0.25F, 0.5F, 1, 1, OVERLAY_COORDS_NORMALIZED};
  const int ticker = on_stream(overlay_text_create(&t));
  overlay_stream_context* ctx = context();
  overlay_encreq request{};
  for (int frame = 0; frame < 5; ++frame) setup(ctx, request);  // drawn within its work bound
  // Every frame moves it, and asks the driver for a refresh that shows it.
  for (int frame = 0; frame < 4; ++frame) {
    const uint32_t x = record_of(request.overlay_ids[0]).x;
    const long refreshes = camsim_refresh_count();
    setup(ctx, request);
    EXPECT_GT(record_of(request.overlay_ids[0]).x, x) << frame;
    EXPECT_EQ(camsim_refresh_count() - refreshes, 1) << frame;
  }
  const uint32_t before = record_of(request.overlay_ids[0]).x;
  on_stream(make('P', 1));
  setup(ctx, request);
  EXPECT_GT(record_of(request.overlay_ids[0]).x, before);
  EXPECT_TRUE(alive(kernel_id(ticker)));
}

}  // namespace
