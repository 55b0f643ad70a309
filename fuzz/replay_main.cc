// Replay driver: runs a fuzz target's entry over saved inputs, without the fuzzing engine.
//
// Arguments are files or directories (every regular file inside, in name order, not recursive).
// Exits 0 when every input has run and at least one was found, 1 otherwise; a fault in the target
// ends the process as it would under the engine. Used by the tests on the seed corpora and to
// rerun a crash input in an ordinary debugger.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> files;
  for (int i = 1; i < argc; i++) {
    if (argv[i][0] == '-') continue;  // engine options, as in a fuzzer's command line
    std::error_code ec;
    if (!fs::is_directory(argv[i], ec)) {
      files.emplace_back(argv[i]);
      continue;
    }
    std::vector<fs::path> names;
    for (const fs::directory_entry& e : fs::directory_iterator(argv[i], ec))
      if (e.is_regular_file(ec) && e.path().filename().c_str()[0] != '.') names.push_back(e.path());
    std::sort(names.begin(), names.end());
    files.insert(files.end(), names.begin(), names.end());
  }
  for (const fs::path& path : files) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      fprintf(stderr, "replay: can't read %s\n", path.c_str());
      return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  fprintf(stderr, "replay: %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
