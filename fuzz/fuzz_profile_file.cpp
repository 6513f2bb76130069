// The section-and-key text file: a file of any content, read and written
// through the exported functions with a section, a key, a default and a
// value from the input.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "compat/compat.h"
#include "compat/compat_memory.h"
#include "fuzz/fuzz_input.h"

namespace {

std::string& FilePath() {
  static std::string path;
  if (path.empty()) {
    char dir[] = "/tmp/writer_fuzz_profile_XXXXXX";
    if (mkdtemp(dir) == nullptr) abort();
    path = std::string(dir) + "/file.ini";
    atexit([] {
      unlink(FilePath().c_str());
      rmdir(FilePath().substr(0, FilePath().rfind('/')).c_str());
    });
  }
  return path;
}

// A name: null, empty, or a text of the input.
const char* Name(fuzz::Input* in, std::string* keep) {
  uint8_t b = in->Byte();
  if (b == 0) return nullptr;
  *keep = in->Text(80);
  return keep->c_str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  std::string section, key, def, value;
  const char* s_section = Name(&in, &section);
  const char* s_key = Name(&in, &key);
  const char* s_def = Name(&in, &def);
  const char* s_value = Name(&in, &value);
  uint8_t ops = in.Byte();
  std::string text = in.Rest();
  const std::string& path = FilePath();
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
  for (int i = 0; i < 3; i++, ops >>= 2) {
    if ((ops & 3) == 1) {
      mWritePrivateProfileString(path.c_str(), s_section, s_key, s_value);
    } else {
      ProfileString r = {0, nullptr, 0};
      if (s_def != nullptr) {
        r.i_len = static_cast<int32_t>(def.size());
        SAFE_STRCAT(&r.s_text, s_def, nullptr, 0);
      }
      mGetPrivateProfileString(path.c_str(), s_section, s_key, &r);
      CompatFree(r.s_text);
    }
  }
  return 0;
}
