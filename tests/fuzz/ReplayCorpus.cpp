// Runs a fuzz target's entry point once on every file of the folders given,
// so that the seeds of its corpus are replayed by the suite. A crash, an abort
// (the targets' own checks) or a sanitizer report fails the run, and so does
// a folder without seeds.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path(), std::ios::binary);
      std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                 std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++replayed;
    }
  }
  std::printf("replayed %zu seeds\n", replayed);
  return replayed > 0 ? 0 : 1;
}
