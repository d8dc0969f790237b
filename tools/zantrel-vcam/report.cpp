#include "report.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "timeline.h"

namespace vcam {

namespace {

const char* const kRoleNames[kProcessRoles] = {"owner", "application", "encoder"};

void print_figures(std::FILE* out, const ProcessFigures& p) {
  std::fprintf(out, "VmSize %llu kB, VmRSS %llu kB, %d fds",
               static_cast<unsigned long long>(p.vm_size_kib),
               static_cast<unsigned long long>(p.vm_rss_kib), p.descriptors);
}

void print_run_figures(std::FILE* out, const EncoderReport& report) {
  if (report.start.frame < 0 || report.end.frame < 0) return;
  std::fprintf(out, "  processes:       at %s -> at %s (after the first and the last frame%s)\n",
               time_label(report.start.frame).c_str(), time_label(report.end.frame).c_str(),
               report.start.frame > 0 ? " of the same scene" : "");
  for (int role = 0; role < kProcessRoles; ++role) {
    std::fprintf(out, "    %-12s   ", kRoleNames[role]);
    print_figures(out, report.start.processes[role]);
    std::fputs(" -> ", out);
    print_figures(out, report.end.processes[role]);
    std::fputc('\n', out);
  }
  std::fprintf(out, "  live overlays:   %d -> %d hardware overlays in the driver\n",
               report.start.live_overlays, report.end.live_overlays);
}

}  // namespace

ProcessFigures read_process_figures(int pid) {
  ProcessFigures figures;
  figures.pid = pid;
  const std::string dir = "/proc/" + std::to_string(pid);
  std::ifstream status(dir + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmSize:")) figures.vm_size_kib = std::stoull(line.substr(7));
    if (line.starts_with("VmRSS:")) figures.vm_rss_kib = std::stoull(line.substr(6));
  }
  if (DIR* fds = opendir((dir + "/fd").c_str())) {
    figures.descriptors = 0;
    while (const dirent* entry = readdir(fds)) {
      if (entry->d_name[0] != '.') ++figures.descriptors;
    }
    closedir(fds);
    // The directory's own descriptor, when it is this process's.
    if (pid == getpid()) --figures.descriptors;
  }
  return figures;
}

void print_summary(std::FILE* out, const EncoderReport& report,
                   const std::vector<StreamSize>& streams, const Leftovers& leftovers,
                   double wall_seconds, const std::string& out_dir, bool contact_sheet) {
  std::fprintf(out, "summary%s\n", report.interrupted != 0 ? " (interrupted)" : "");
  std::fprintf(out, "  frames:          %u per stream (%.3f s of video at %d fps), %u streams\n",
               report.frames, static_cast<double>(report.frames) / kFramesPerSecond,
               kFramesPerSecond, report.streams);
  std::fprintf(out, "  compositions:    ");
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
  std::fprintf(out, "  worst frame:     %.1f us, frame %u (the calls of every stream)\n",
               static_cast<double>(report.frame_worst_ns) / 1000.0, report.frame_worst);
  const double quiet_us = report.quiet_calls == 0
                              ? 0.0
                              : static_cast<double>(report.quiet_total_ns) /
                                    static_cast<double>(report.quiet_calls) / 1000.0;
  std::fprintf(out, "  quiet setup:     mean %.2f us over %llu calls that gathered nothing\n",
               quiet_us, static_cast<unsigned long long>(report.quiet_calls));
  print_run_figures(out, report);
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
