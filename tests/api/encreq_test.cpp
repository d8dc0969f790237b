// The encoder's per-frame request against the simulated driver: which ids land
// at which positions, when the tables are gathered again, the hardware copies a
// stream context makes for its own stream, and modifiable texts drawn for the
// frame's time.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "api_test_util.h"
#include "test_support.h"
#include "tokenfill.h"

namespace {

using zantrel::test::logged_once;

constexpr uint32_t kEveryOverlay =
    OVERLAY_FILTER_LEGACY | OVERLAY_FILTER_NON_LEGACY | OVERLAY_FILTER_PLAIN;
constexpr uint32_t kMarked = 0xA5A5A5A5;

bool alive(uint32_t id) {
  camsim_overlay_info info{};
  return id != 0 && camsim_get_overlay_info(id, &info) == 0;
}

internal_overlay record_of(uint32_t id) {
  camsim_overlay_info info{};
  EXPECT_EQ(camsim_get_overlay_info(id, &info), 0) << "overlay " << id;
  return info.record;
}

// A request with every word marked, to see what the library writes.
overlay_encreq marked(uint32_t version) {
  overlay_encreq request{};
  request.reserved = kMarked;
  std::fill_n(request.overlay_ids, 8, kMarked);
  request.version = version;
  return request;
}

// Rows of the parameterised tests print and name themselves by their name.
template <typename Row>
requires requires(Row row) { row.name; }
void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }
constexpr auto kRowName = [](const auto& info) { return std::string(info.param.name); };

bool same(const overlay_encreq& a, const overlay_encreq& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

overlay_text text_record(const char* text, int32_t priority, uint32_t legacy = 0,
                         int32_t scalable = 0) {
  overlay_text t{};
  std::snprintf(t.text, sizeof t.text, "%s", text);
  t.overlay.priority = priority;
  t.overlay.legacy = legacy;
  t.overlay.position = {0, 0, 1, 1, 0};
  t.scalable = scalable;
  t.font_size = 48;
  t.text_color = OVERLAY_COLOR_WHITE;
  t.background_color = OVERLAY_COLOR_TRANSPARENT;
  return t;
}

void write_file(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

class EncodeRequest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(camsim_reset(), 0);
    ASSERT_GT(overlay_init(0), 0);
    char dir[] = "/tmp/zantrel-encreq-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override {
    for (overlay_stream_context* context : contexts_) overlay_stream_context_destroy(context);
    overlay_deinit();
    std::filesystem::remove_all(dir_);
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

  static overlay_entry_data entry(int handle) {
    overlay_table* table = overlay_table_map();
    overlay_entry_data data = overlay_table_get_entry(table, handle)->data;
    overlay_table_unmap(table);
    return data;
  }
  static uint32_t kernel_id(int handle) { return static_cast<uint32_t>(entry(handle).kernel_id); }
  static uint32_t main_version() {
    overlay_table* table = overlay_table_map();
    const uint32_t version = table->version;
    overlay_table_unmap(table);
    return version;
  }
  static int on_stream(int handle, int stream = 0) {
    EXPECT_EQ(overlay_add_to_stream(handle, 0, stream), 0);
    return handle;
  }
  static int add_text(overlay_text t) { return overlay_text_create(&t); }
  static int add_image(const std::string& path, int32_t priority) {
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
      handle = add_text(text_record(kind == 'T' ? "Gate 4" : "#T", priority));
    } else if (kind == 'I') {
      std::vector<unsigned char> file(OVL_HEADER_SIZE + 8 * 6 * 4, 0xC0);
      const unsigned char header[] = {'o', 'g', '4', 0, 0, 16, 8, 0, 6, 0};  // ARGB, 8 x 6
      std::fill_n(std::copy(std::begin(header), std::end(header), file.begin()),
                  OVL_HEADER_SIZE - sizeof header, 0);
      const std::string path = dir_ + "/" + std::to_string(priority) + ".ovl";
      write_file(path, file);
      handle = add_image(path, priority);
    } else {
      overlay_entry_data data{};
      data.type = kind == 'i' ? OVERLAY_TYPE_IMAGE : OVERLAY_TYPE_PLAIN;
      data.kernel_id = kind == 'n' ? -7 : 0;
      data.description.ovl.priority = priority;
      overlay_table* table = overlay_table_map();
      EXPECT_EQ(overlay_table_lock(table), 0);
      handle = overlay_table_create_overlay(table, &data);
      overlay_table_unlock(table);
      overlay_table_unmap(table);
    }
    EXPECT_GT(handle, 0) << kind;
    return handle;
  }

  std::vector<overlay_stream_context*> contexts_;
  std::string dir_;
};

TEST_F(EncodeRequest, NullContextIsRefused) {
  overlay_encreq request = marked(3);
  EXPECT_EQ(overlay_setup_in_encreq(nullptr, &request, nullptr), -1);
  EXPECT_TRUE(
      logged_once(LOG_ERR, "libzantrel: Need a valid stream context to setup a encode request\n"));
  EXPECT_TRUE(same(request, marked(3)));
}

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
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  EXPECT_EQ(ctx->version, 1);
  EXPECT_EQ(request.version, 1u);
  EXPECT_EQ(camsim_refresh_count(), refreshes + 1);
  for (int p = 0; p < 8; ++p) {
    const char shown = GetParam().shown[p];
    const uint32_t id = request.overlay_ids[p];
    SCOPED_TRACE("position " + std::to_string(p));
    if (shown == '-') {
      EXPECT_EQ(id, 0u);
    } else if (kinds[shown - '0'] == 'C') {
      // Drawn for this stream into an overlay of its own with 3 buffers.
      EXPECT_NE(id, kernel_id(handles[shown - '0']));
      EXPECT_EQ(record_of(id).nbr_buffers, 3u);
    } else {
      EXPECT_EQ(id, kernel_id(handles[shown - '0']));
      EXPECT_NE(id, 0u);
    }
  }

  // Up to date: nothing is written and the driver is not asked anything.
  const overlay_encreq composed = request;
  const long calls = camsim_total_calls();
  EXPECT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  EXPECT_TRUE(same(request, composed));
  EXPECT_EQ(camsim_total_calls(), calls);

  // An older request gets the same ids with one refresh and nothing made.
  overlay_encreq older = marked(0);
  older.reserved = composed.reserved;
  EXPECT_EQ(overlay_setup_in_encreq(ctx, &older, nullptr), 0);
  EXPECT_TRUE(same(older, composed));
  EXPECT_EQ(camsim_total_calls(), calls + 1);
  EXPECT_EQ(camsim_refresh_count(), refreshes + 2);
}

INSTANTIATE_TEST_SUITE_P(
    Positions, RequestComposition,
    testing::Values(CompositionCase{"OneForPlainAndTextTwoForImage", "PTIP", "012-3---"},
                    CompositionCase{"ThirdImageDoesNotFit", "PPPIII", "0123-4--"},
                    CompositionCase{"SkippedImageLeavesRoomForALaterPlain", "IIIPIP", "0-1-2-35"},
                    CompositionCase{"FullRequestTakesNoMore", "IIIIP", "0-1-2-3-"},
                    CompositionCase{"ImageWithoutIdTakesNoPosition", "iP", "1-------"},
                    CompositionCase{"PlainWithoutIdKeepsItsPosition", "pnP", "--2-----"},
                    CompositionCase{"ModifiableTextAtItsReservedPosition", "ICP", "0-12----"}),
    kRowName);

TEST_F(EncodeRequest, ContextMadeBeforeTheTable) {
  overlay_deinit();
  const int fd = o_open_fd();
  ASSERT_GE(fd, 0);
  overlay_stream_context* ctx =
      overlay_stream_context_create(fd, 0, 0, 0, 1920, 1080, kEveryOverlay);
  ASSERT_NE(ctx, nullptr);
  overlay_encreq request = marked(7);
  const long calls = camsim_total_calls();
  for (int frame = 0; frame < 3; ++frame) {
    EXPECT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  }
  EXPECT_TRUE(same(request, marked(7)));
  EXPECT_EQ(camsim_total_calls(), calls);

  // A new context on a table that never changed has nothing to gather, and a
  // request of version 0 is up to date.
  ASSERT_GT(overlay_init(0), 0);
  ASSERT_EQ(main_version(), 0u);
  overlay_stream_context* late = context();
  request = marked(0);
  const long after_init = camsim_total_calls();
  EXPECT_EQ(overlay_setup_in_encreq(late, &request, nullptr), 0);
  EXPECT_EQ(late->version, 0);
  EXPECT_TRUE(same(request, marked(0)));
  EXPECT_EQ(camsim_total_calls(), after_init);

  // The early context maps the table at its first call and gathers at once.
  const int handle = on_stream(make('P', 5));
  EXPECT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  EXPECT_EQ(ctx->version, 1);
  EXPECT_EQ(request.version, 1u);
  EXPECT_EQ(request.overlay_ids[0], kernel_id(handle));
  EXPECT_EQ(request.overlay_ids[1], 0u);
  overlay_stream_context_destroy(ctx);
  o_close_fd(fd);
}

TEST_F(EncodeRequest, EitherCounterOnItsOwnGathers) {
  const int global = make('P', 50);
  ASSERT_EQ(overlay_add_globally(global), 0);
  overlay_stream_context* ctx = context();
  overlay_encreq request{};
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  EXPECT_EQ(request.overlay_ids[0], kernel_id(global));
  // The stream table appears after the context was made.
  const int streamed = on_stream(make('P', 40));
  const int spare = make('P', 30);
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  EXPECT_EQ(request.overlay_ids[1], kernel_id(streamed));

  overlay moved = api_test::plain(16, 16, 50);
  moved.position = {32, 32, 1, 1, 0};
  const std::function<void()> nothing = [] {},
                              move_global = [&] { overlay_update(global, &moved); },
                              add_spare = [&] { on_stream(spare); },
                              remove_streamed = [&] { overlay_remove_from_stream(streamed, 0, 0); };
  const struct {
    const char* name;
    const std::function<void()>& change;
    bool main_moves, stream_moves;
    std::vector<int> shown;
  } changes[] = {
      {"nothing", nothing, false, false, {global, streamed}},
      {"global overlay moved", move_global, true, false, {global, streamed}},
      {"one more on the stream", add_spare, false, true, {global, streamed, spare}},
      {"one off the stream", remove_streamed, false, true, {global, spare}},
  };
  for (const auto& c : changes) {
    SCOPED_TRACE(c.name);
    const uint32_t main_before = main_version();
    unsigned stream_before = 0, stream_after = 0;
    ASSERT_EQ(overlay_table_get_stream_table_version(0, &stream_before), 0);
    const int32_t version = ctx->version;
    c.change();
    ASSERT_EQ(overlay_table_get_stream_table_version(0, &stream_after), 0);
    ASSERT_EQ(main_version() != main_before, c.main_moves);
    ASSERT_EQ(stream_after != stream_before, c.stream_moves);
    const long calls = camsim_total_calls();
    ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
    const bool gathers = c.main_moves || c.stream_moves;
    EXPECT_EQ(ctx->version, version + (gathers ? 1 : 0));
    EXPECT_EQ(request.version, static_cast<uint32_t>(ctx->version));
    EXPECT_EQ(camsim_total_calls() - calls, gathers ? 1 : 0) << "one refresh";
    for (size_t p = 0; p < 8; ++p) {
      EXPECT_EQ(request.overlay_ids[p], p < c.shown.size() ? kernel_id(c.shown[p]) : 0u);
    }
  }
}

struct CopyCase {
  const char* name;
  uint32_t legacy;
  int32_t scalable;
  uint32_t width, height;
  bool copied;
};

class StreamCopies : public EncodeRequest, public testing::WithParamInterface<CopyCase> {};

TEST_P(StreamCopies, DrawnForTheStreamAndRemadeAtEveryGathering) {
  const CopyCase& c = GetParam();
  const int text = on_stream(add_text(text_record("Gate 4", 20, c.legacy, c.scalable)));
  const int other = on_stream(make('P', 10));
  const uint32_t table_id = kernel_id(text);
  const int live = camsim_live_count();
  // A gathering for a request that already carries the new version makes no
  // copy, and leaves no table id in a slot for the context to take as its own.
  overlay_stream_context* idle = context(c.width, c.height);
  overlay_encreq ahead = marked(1);
  ASSERT_EQ(overlay_setup_in_encreq(idle, &ahead, nullptr), 0);
  EXPECT_EQ(idle->version, 1);
  EXPECT_TRUE(same(ahead, marked(1)));
  destroy(idle);
  EXPECT_EQ(camsim_live_count(), live);
  EXPECT_TRUE(alive(table_id));

  overlay_stream_context* ctx = context(c.width, c.height);
  overlay_encreq request{};
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
  const uint32_t shown = request.overlay_ids[0];
  EXPECT_EQ(request.overlay_ids[1], kernel_id(other));
  EXPECT_EQ(shown != table_id, c.copied);
  EXPECT_EQ(camsim_live_count(), live + (c.copied ? 1 : 0));
  if (c.copied) {
    const internal_overlay copy = record_of(shown);
    if (c.legacy != 0) {
      EXPECT_EQ(copy.width, c.width) << "a legacy band spans the stream";
    } else {
      overlay_text t = entry(text).description.text;
      free(overlay_text_render(ctx, &t, nullptr, OVERLAY_FORMAT_PALETTE_4BIT));
      EXPECT_EQ(copy.width, t.overlay.width);
      EXPECT_EQ(copy.height, t.overlay.height);
      EXPECT_LT(copy.height, record_of(table_id).height);
    }
    overlay moved = api_test::plain(16, 16, 10);
    moved.position = {32, 32, 1, 1, 0};
    ASSERT_EQ(overlay_update(other, &moved), 0);
    ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, nullptr), 0);
    EXPECT_FALSE(alive(shown)) << "the former copy goes at the gathering";
    EXPECT_TRUE(alive(request.overlay_ids[0]));
    EXPECT_NE(request.overlay_ids[0], table_id);
    EXPECT_EQ(camsim_live_count(), live + 1);
  }
  destroy(ctx);
  EXPECT_EQ(camsim_live_count(), live);
  EXPECT_TRUE(alive(table_id));
}

INSTANTIATE_TEST_SUITE_P(Texts, StreamCopies,
                         testing::Values(CopyCase{"LegacyOn720", 1, 0, 1280, 720, true},
                                         CopyCase{"LegacyOn1080", 1, 0, 1920, 1080, true},
                                         CopyCase{"ScalableOn720", 0, 1, 1280, 720, true},
                                         CopyCase{"ScalableOn1080", 0, 1, 1920, 1080, false},
                                         CopyCase{"FixedOn720", 0, 0, 1280, 720, false}),
                         kRowName);

TEST_F(EncodeRequest, ScalableImageCopiedPerStream) {
  // A 108 x 54 bitmap of 24 bits a pixel, bottom-up.
  std::vector<unsigned char> bmp(54, 0);
  bmp.resize(54 + 108 * 3 * 54, 0x60);
  const auto size = static_cast<uint32_t>(bmp.size());
  const uint32_t fields[][2] = {{2, size}, {10, 54}, {14, 40}, {18, 108}, {22, 54}, {26, 0x180001}};
  for (const auto& [at, value] : fields) std::memcpy(&bmp[at], &value, 4);
  bmp[0] = 'B';
  bmp[1] = 'M';
  std::filesystem::create_directory(dir_ + "/logo");
  write_file(dir_ + "/logo/bmp", bmp);
  const int handle = on_stream(on_stream(add_image(dir_ + "/logo", 20), 0), 1);
  ASSERT_EQ(entry(handle).type, OVERLAY_TYPE_SCALABLE_IMAGE);
  ASSERT_EQ(entry(handle).kernel_id, 0);

  const uint32_t streams[2][4] = {{1280, 720, 72, 36}, {1920, 1080, 108, 54}};
  overlay_encreq requests[2] = {};
  uint32_t first[2] = {};
  for (unsigned s = 0; s < 2; ++s) {
    overlay_stream_context* ctx = context(streams[s][0], streams[s][1], s);
    ASSERT_EQ(overlay_setup_in_encreq(ctx, &requests[s], nullptr), 0);
    first[s] = requests[s].overlay_ids[0];
    EXPECT_EQ(record_of(first[s]).width, streams[s][2]);
    EXPECT_EQ(record_of(first[s]).height, streams[s][3]);
    EXPECT_EQ(requests[s].overlay_ids[1], 0u);
  }
  EXPECT_NE(first[0], first[1]);
  EXPECT_EQ(camsim_live_count(), 2);

  // Any change gathers again: each stream's copy is made afresh.
  on_stream(make('P', 10), 0);
  for (unsigned s = 0; s < 2; ++s) {
    ASSERT_EQ(overlay_setup_in_encreq(contexts_[s], &requests[s], nullptr), 0);
    EXPECT_FALSE(alive(first[s]));
    EXPECT_EQ(record_of(requests[s].overlay_ids[0]).width, streams[s][2]);
  }
  EXPECT_EQ(camsim_live_count(), 3);
  destroy(contexts_[1]);
  destroy(contexts_[0]);
  EXPECT_EQ(camsim_live_count(), 1);
}

struct ClockCase {
  const char* name;
  const char* text;
  timeval later;  // the second frame's time; the first is Tuesday 2023-11-14 22:13:20 UTC
  bool redrawn;
  bool new_overlay;
};

class ClockTextFrames : public EncodeRequest, public testing::WithParamInterface<ClockCase> {};

TEST_P(ClockTextFrames, DrawnAgainOnlyWhenTheTextChanged) {
  const ClockCase& c = GetParam();
  tokenfill_context* expansion = tokenfill_init();
  ASSERT_NE(expansion, nullptr);
  timeval now{1700000000, 0};
  const overlay_expansion_params params{expansion, &now};
  const int handle = on_stream(add_text(text_record(c.text, 20)));
  ASSERT_EQ(entry(handle).type, OVERLAY_TYPE_MODIFIABLE_TEXT);
  overlay_stream_context* ctx = context();
  overlay_encreq request{};
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, &params), 0);
  const uint32_t first = request.overlay_ids[0];
  ASSERT_TRUE(alive(first));
  EXPECT_NE(first, kernel_id(handle));
  std::vector<unsigned char> first_pixels(record_of(first).buffer_size);
  camsim_read_shown_buffer(first, first_pixels.data(), first_pixels.size());

  const long submits = camsim_call_count(CAMSIM_SUBMIT_BUFFER);
  const long creates = camsim_call_count(CAMSIM_CREATE_OVERLAY);
  const long refreshes = camsim_refresh_count();
  const int live = camsim_live_count();
  now = c.later;
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, &params), 0);
  const uint32_t second = request.overlay_ids[0];
  EXPECT_EQ(request.version, 1u) << "no gathering";
  EXPECT_EQ(camsim_call_count(CAMSIM_SUBMIT_BUFFER) - submits, c.redrawn ? 1 : 0);
  EXPECT_EQ(camsim_call_count(CAMSIM_CREATE_OVERLAY) - creates, c.new_overlay ? 1 : 0);
  EXPECT_EQ(camsim_refresh_count() - refreshes, c.new_overlay ? 1 : 0) << "only for a new id";
  EXPECT_EQ(camsim_live_count(), live);
  EXPECT_EQ(second != first, c.new_overlay);
  EXPECT_EQ(alive(first), !c.new_overlay);
  EXPECT_EQ(record_of(second).nbr_buffers, 3u);
  std::vector<unsigned char> second_pixels(record_of(second).buffer_size);
  camsim_read_shown_buffer(second, second_pixels.data(), second_pixels.size());
  EXPECT_EQ(second_pixels != first_pixels, c.redrawn);

  // A gathering ends the text context; the text is drawn afresh.
  on_stream(make('P', 10));
  ASSERT_EQ(overlay_setup_in_encreq(ctx, &request, &params), 0);
  const uint32_t third = request.overlay_ids[0];
  EXPECT_FALSE(alive(second));
  EXPECT_TRUE(alive(third));
  destroy(ctx);
  EXPECT_FALSE(alive(third)) << "the text context's overlay goes with the context";
  EXPECT_EQ(camsim_live_count(), live);
  EXPECT_TRUE(alive(kernel_id(handle)));
  tokenfill_exit(expansion);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, ClockTextFrames,
    testing::Values(ClockCase{"SameSecond", "#T", {1700000000, 900000}, false, false},
                    ClockCase{"NextSecond", "#T", {1700000001, 0}, true, false},
                    ClockCase{"NextSecondStrftime", "%H:%M:%S", {1700000001, 0}, true, false},
                    ClockCase{"LongerWeekdayNeedsANewOverlay", "%A", {1700086400, 0}, true, true}),
    kRowName);

}  // namespace
