// Replay driver: runs a fuzz target's entry over saved inputs, without the fuzzing engine.
//
// Arguments are files or directories (every regular file inside, in name order, not recursive).
// Exits 0 when every input has run and at least one was found, 1 otherwise; a fault in the target
// ends the process as it would under the engine. Used by the tests on the seed corpora and to
// rerun a crash input in an ordinary debugger.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

// A file, or every regular file of a directory in name order.
void collect(const std::string& arg, std::vector<std::string>* files) {
  struct stat st;
  DIR* d = stat(arg.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? opendir(arg.c_str()) : nullptr;
  if (d == nullptr) {
    files->push_back(arg);
    return;
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    std::string path = arg + "/" + e->d_name;
    if (e->d_name[0] != '.' && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
      names.push_back(path);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  files->insert(files->end(), names.begin(), names.end());
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++) {
    if (argv[i][0] == '-') continue;  // engine options, as in a fuzzer's command line
    collect(argv[i], &files);
  }
  int ran = 0;
  for (const std::string& path : files) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      fprintf(stderr, "replay: can't read %s\n", path.c_str());
      return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ran++;
  }
  fprintf(stderr, "replay: %d inputs\n", ran);
  return ran > 0 ? 0 : 1;
}
