// Fuzz target: the configuration's text parsers and its setters, as the command line feeds them.
//
// The input is a list of lines, each an operation named by its first character:
//   s<text>                 cvconfig_parse_size
//   b<text>                 cvconfig_parse_bool
//   p<t><text>              cvconfig_parse with type digit t (0 to 9, valid or not)
//   v<g><t><name>=<value>   parse <value> as type t, set <name> in group g with validation
//   n<g><t><name>=<value>   the same without validation
//   i<name>                 cvconfig_property_id and cvconfig_group_id of a name
//   u<text>                 set_umask (the process mask is restored afterwards)
// Sets go to a fresh layer over the `defaults` layer of one root, per input. A second set of one
// name in one group with another type is skipped: that is a programming error the setter asserts.
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "utils/cvconfig.h"
#include "utils/file.h"
#include "utils/mem.h"

namespace {

cvconfig* g_root = nullptr;

class Session {
 public:
  Session() {
    mem_ = mem_context_create(nullptr, "cvconfig_fuzz");
    layer_ = cvconfig_layer_create(mem_, "cmdline", cvconfig_defaults(g_root));
  }
  ~Session() { mem_context_remove(mem_); }

  void run(const std::string& line) {
    if (line.empty()) return;
    const char* arg = line.c_str() + 1;
    switch (line[0]) {
      case 's': {
        int64_t v = -1;
        int rc = cvconfig_parse_size(arg, &v);
        FUZZ_CHECK(rc == 0 || rc == 1);
        if (rc == 0) FUZZ_CHECK(v == 0);
        break;
      }
      case 'b': {
        int v = -1;
        FUZZ_CHECK(cvconfig_parse_bool(arg, &v) == 1);
        FUZZ_CHECK(v == 0 || v == 1);
        break;
      }
      case 'p': {
        if (*arg == '\0') break;
        int32_t tpe = *arg - '0';
        prop_value v;
        v.l = -1;
        int rc = cvconfig_parse(mem_, arg + 1, tpe, &v);
        if (rc == 1 && tpe == PROP_TPE_STR && arg[1] != '\0')
          FUZZ_CHECK(v.s != nullptr && strcmp(v.s, arg + 1) == 0);
        if (arg[1] == '\0') FUZZ_CHECK(rc == 1 && v.l == 0);
        break;
      }
      case 'v':
      case 'n': set(arg, line[0] == 'v'); break;
      case 'i': {
        int32_t id = cvconfig_property_id(layer_, arg);
        FUZZ_CHECK(id >= 0 && id <= CVCONFIG_NUM_PROPERTIES);
        if (id > 0) FUZZ_CHECK(strcmp(g_root->names[id], arg) == 0);
        int32_t gid = cvconfig_group_id(g_root, arg);
        FUZZ_CHECK(gid >= 0 && gid <= CVCONFIG_NUM_GROUPS);
        break;
      }
      case 'u': {
        mode_t old = umask(077);
        umask(old);
        set_umask(arg);
        umask(old);
        break;
      }
      default: break;
    }
  }

 private:
  void set(const char* arg, bool validate) {
    if (arg[0] == '\0' || arg[1] == '\0') return;
    int32_t gid = 1 + static_cast<unsigned char>(arg[0]) % CVCONFIG_NUM_GROUPS;
    int32_t tpe = 1 + static_cast<unsigned char>(arg[1]) % 4;  // bool, lng, dbl, str
    std::string rest(arg + 2);
    size_t eq = rest.find('=');
    if (eq == std::string::npos) return;
    std::string name = rest.substr(0, eq);
    const char* text = arg + 2 + eq + 1;
    prop_value v;
    v.l = 0;
    if (cvconfig_parse(mem_, text, tpe, &v) != 1) return;

    std::string key = std::to_string(gid) + ":" + name;
    auto known = types_.find(key);
    if (known != types_.end() && known->second != tpe) return;

    int rc = cvconfig_set(layer_, gid, name.c_str(), v, tpe, validate);
    FUZZ_CHECK(rc == 0 || rc == 1);
    if (validate) FUZZ_CHECK(rc == cvconfig_validate(layer_, gid, name.c_str(), v, tpe));
    if (!validate) FUZZ_CHECK(rc == 1);
    if (rc == 1) types_[key] = tpe;
  }

  MemContext* mem_;
  cvconfig_layer* layer_;
  std::map<std::string, int32_t> types_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  j480fuzz::quiet_logger();
  g_root = cvconfig_create();
  if (g_root == nullptr) __builtin_trap();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
  Session session;
  std::string line;
  for (int n = 0; n < 256 && std::getline(lines, line); n++) {
    line.resize(strlen(line.c_str()));  // the parsers take zero-terminated text
    session.run(line);
  }
  return 0;
}
