// dll_load_check: loads each DLL named on the command line by its full path,
// as a host on a machine with nothing else installed would, and prints the
// file and product version of its version resource:
//   NAME loaded, file version 1.2.3.0, product version 1.2.3.0
// Exit 1 when a DLL does not load (something it imports is missing) or has no
// version resource. Dependencies are looked up beside the DLL first.
#include <windows.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

struct ModuleCloser {
  void operator()(HMODULE module) const { FreeLibrary(module); }
};
using Module = std::unique_ptr<std::remove_pointer_t<HMODULE>, ModuleCloser>;

std::string Quad(DWORD high, DWORD low) {
  return std::to_string(HIWORD(high)) + "." + std::to_string(LOWORD(high)) + "." + std::to_string(HIWORD(low)) + "." +
         std::to_string(LOWORD(low));
}

bool Check(const char* path) {
  Module module(LoadLibraryExA(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  if (!module) {
    std::printf("%s does not load: error %lu\n", path, GetLastError());
    return false;
  }
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeA(path, &ignored);
  std::vector<char> block(size);
  VS_FIXEDFILEINFO* info = nullptr;
  UINT length = 0;
  if (size == 0 || !GetFileVersionInfoA(path, 0, size, block.data()) ||
      !VerQueryValueA(block.data(), "\\", reinterpret_cast<void**>(&info), &length) || length < sizeof *info) {
    std::printf("%s loaded, but has no version resource\n", path);
    return false;
  }
  std::printf("%s loaded, file version %s, product version %s\n", path,
              Quad(info->dwFileVersionMS, info->dwFileVersionLS).c_str(),
              Quad(info->dwProductVersionMS, info->dwProductVersionLS).c_str());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  bool all = argc > 1;
  for (int i = 1; i < argc; ++i) all = Check(argv[i]) && all;
  return all ? 0 : 1;
}
