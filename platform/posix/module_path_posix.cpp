#include <dlfcn.h>

#include <string>

#include "data/text.h"
#include "platform/module_path.h"

namespace tsm {

std::wstring ModulePathContaining(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return std::wstring();
  // File names are UTF-8 byte strings here.
  return WideFromUtf8(info.dli_fname);
}

void* LoadModuleFromItsFolder(const std::wstring& path) {
  return dlopen(Utf8FromWide(path).c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* ModuleEntryPoint(void* module, const char* name) { return module != nullptr ? dlsym(module, name) : nullptr; }

void UnloadModule(void* module) {
  if (module != nullptr) dlclose(module);
}

}  // namespace tsm
