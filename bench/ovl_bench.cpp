// Loading a 640 x 480 ".ovl" image into the simulated driver, packed and
// ARGB, each iteration a whole image overlay's life: open and read the file
// (one mapping, or 8-byte reads), create the overlay, fill its four planes,
// submit, and destroy it again.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "camsim.h"
#include "zantrel-base/private_dev_shm.h"
#include "zantrel.h"

namespace {

constexpr uint16_t kWidth = 640;
constexpr uint16_t kHeight = 480;
constexpr uint8_t kKey = 16;

// A scratch directory that goes when the program ends.
const std::string& scratch() {
  static const std::string dir = [] {
    char name[] = "/tmp/ovl_bench.XXXXXX";
    if (mkdtemp(name) == nullptr) {
      std::perror("ovl_bench: mkdtemp");
      std::exit(1);
    }
    return std::string(name);
  }();
  return dir;
}

// Version '2' (packed, with a quarter of the pixels at the key) or '4'
// (ARGB, alpha ramps), filled with a pattern that changes every pixel.
std::string write_image(bool packed) {
  std::vector<uint8_t> file(78, 0);
  const uint8_t header[] = {'o',
                            'g',
                            static_cast<uint8_t>(packed ? '2' : '4'),
                            0,
                            2,
                            16,
                            kWidth & 0xFF,
                            kWidth >> 8,
                            kHeight & 0xFF,
                            kHeight >> 8,
                            kKey};
  std::memcpy(file.data(), header, sizeof header);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      auto v = static_cast<uint8_t>(x * 3 + y * 7);
      if (packed) {
        file.push_back(static_cast<uint8_t>(v ^ 0x55));  // chroma
        file.push_back((x + y) % 4 == 0 ? kKey : static_cast<uint8_t>(v | 0x20));
      } else {
        file.insert(file.end(), {v, static_cast<uint8_t>(v + 85), static_cast<uint8_t>(v + 170),
                                 static_cast<uint8_t>(x)});
      }
    }
  }
  std::string path = scratch() + (packed ? "/packed.ovl" : "/argb.ovl");
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
  return path;
}

void BM_LoadOvl(benchmark::State& state, bool packed) {
  std::string path = write_image(packed);
  int fd = o_open_fd();
  if (fd < 0) {
    state.SkipWithError("cannot open the simulated /dev/cam0");
    return;
  }
  for (auto _ : state) {
    overlay_image image{};
    image.overlay.position = {0, 0, 1, 1, 0};
    std::strcpy(image.path, path.c_str());
    overlay_entry_data data{};
    int id = 0;
    if (o_create_image_overlay_from_ovl_file(&image, fd, &id, &data) != 0) {
      state.SkipWithError("the image did not load");
      break;
    }
    o_destroy_overlay(fd, id);
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  o_close_fd(fd);
  unlink(path.c_str());
}
BENCHMARK_CAPTURE(BM_LoadOvl, packed_640x480, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LoadOvl, argb_640x480, false)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // The simulator keeps its state in /dev/shm; a private tmpfs there keeps
  // the run away from anything else using it, where the rights allow one.
  if (zantrel::private_dev_shm()) camsim_reset();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  rmdir(scratch().c_str());
  return 0;
}
