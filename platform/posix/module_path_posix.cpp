#include <dlfcn.h>

#include <cstdint>
#include <string>

#include "platform/module_path.h"

namespace tsm {

namespace {

// File names are UTF-8 byte strings here.
std::wstring WideFromFileName(const std::string& bytes) {
  std::wstring out;
  std::size_t i = 0;
  while (i < bytes.size()) {
    const unsigned char lead = static_cast<unsigned char>(bytes[i++]);
    int extra = 0;
    uint32_t cp = lead;
    if ((lead & 0xE0) == 0xC0) {
      extra = 1;
      cp = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2;
      cp = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3;
      cp = lead & 0x07;
    } else if (lead >= 0x80) {
      cp = 0xFFFD;
    }
    for (int k = 0; k < extra; ++k, ++i) {
      if (i >= bytes.size() || (static_cast<unsigned char>(bytes[i]) & 0xC0) != 0x80) {
        cp = 0xFFFD;
        break;
      }
      cp = (cp << 6) | (static_cast<unsigned char>(bytes[i]) & 0x3F);
    }
    out += static_cast<wchar_t>(cp);
  }
  return out;
}

std::string FileNameFromWide(const std::wstring& wide) {
  std::string out;
  for (wchar_t c : wide) {
    const uint32_t cp = static_cast<uint32_t>(c);
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

}  // namespace

std::wstring ModulePathContaining(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return std::wstring();
  return WideFromFileName(info.dli_fname);
}

void* LoadModuleFromItsFolder(const std::wstring& path) {
  return dlopen(FileNameFromWide(path).c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* ModuleEntryPoint(void* module, const char* name) { return module != nullptr ? dlsym(module, name) : nullptr; }

void UnloadModule(void* module) {
  if (module != nullptr) dlclose(module);
}

}  // namespace tsm
