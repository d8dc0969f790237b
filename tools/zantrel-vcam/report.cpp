#include "report.h"

#include "timeline.h"

namespace vcam {

void print_summary(std::FILE* out, const EncoderReport& report,
                   const std::vector<StreamSize>& streams, const Leftovers& leftovers,
                   double wall_seconds, const std::string& out_dir, bool contact_sheet) {
  std::fprintf(out, "summary%s\n", report.interrupted != 0 ? " (interrupted)" : "");
  std::fprintf(out, "  frames:          %u per stream (%.3f s of video at %d fps), %u streams\n",
               report.frames, static_cast<double>(report.frames) / kFramesPerSecond,
               kFramesPerSecond, report.streams);
  std::fprintf(out, "  gatherings:      ");
  for (size_t i = 0; i < streams.size() && i < kMaxStreams; ++i) {
    std::fprintf(out, "%s%s: %u", i == 0 ? "" : ", ", to_string(streams[i]).c_str(),
                 report.gatherings[i]);
  }
  std::fputc('\n', out);
  std::fprintf(out,
               "  redraws:         %llu buffers drawn by the encoder, %llu text id changes, %llu "
               "refreshes\n",
               static_cast<unsigned long long>(report.buffers_drawn),
               static_cast<unsigned long long>(report.text_id_changes),
               static_cast<unsigned long long>(report.refreshes));
  std::fprintf(out,
               "  encoder overlays: %llu made, %llu destroyed while encoding (the rest with the "
               "contexts)\n",
               static_cast<unsigned long long>(report.overlays_created),
               static_cast<unsigned long long>(report.overlays_destroyed));
  const double mean_us = report.setup_calls == 0
                             ? 0.0
                             : static_cast<double>(report.setup_total_ns) /
                                   static_cast<double>(report.setup_calls) / 1000.0;
  std::fprintf(out, "  setup time:      mean %.1f us, worst %.1f us over %llu calls\n", mean_us,
               static_cast<double>(report.setup_worst_ns) / 1000.0,
               static_cast<unsigned long long>(report.setup_calls));
  std::fprintf(out, "  pictures:        %u in %s%s\n", report.pictures, out_dir.c_str(),
               contact_sheet ? ", with contact-sheet.png" : "");
  std::fprintf(out, "  alive at end:    %d hardware overlays, %zu shared tables\n",
               leftovers.live_overlays, leftovers.tables.size());
  for (const std::string& table : leftovers.tables) {
    std::fprintf(out, "                   left behind: %s\n", table.c_str());
  }
  std::fprintf(out, "  wall time:       %.2f s\n", wall_seconds);
}

}  // namespace vcam
