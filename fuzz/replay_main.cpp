// Runs a fuzz target over every file of a seed corpus folder (or over single files), so
// that the corpora replay as ordinary tests in every build, sanitizers included.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  size_t runs = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i])) {
      for (const auto& e : fs::recursive_directory_iterator(argv[i]))
        if (e.is_regular_file()) files.push_back(e.path());
    } else {
      files.emplace_back(argv[i]);
    }
    for (const auto& f : files) {
      std::ifstream in(f, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++runs;
    }
  }
  std::printf("replayed %zu inputs\n", runs);
  return runs ? 0 : 1;
}
