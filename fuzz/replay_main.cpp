// Runs a fuzz entry point over the files of the directories (or the files)
// given as arguments, so that a checked-in corpus replays as an ordinary
// test with any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    if (fs::is_directory(argv[i], error)) {
      for (const auto& entry : fs::directory_iterator(argv[i])) {
        if (entry.is_regular_file()) {
          inputs.push_back(entry.path());
        }
      }
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE...  (found no input)\n", argv[0]);
    return 1;
  }

  LLVMFuzzerInitialize(&argc, &argv);
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", input.c_str());
      return 1;
    }
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    std::printf("%s (%zu bytes)\n", input.filename().c_str(), bytes.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
