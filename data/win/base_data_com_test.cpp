// The base-data component as a COM server and records bound to it, on
// Windows: registration, the type library, both load paths, cookies across
// threads and events from the component's thread.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "basedata/base_data_guids.h"
#include "data/base_data.h"
#include "platform/module_path.h"
#include "platform/win/com_win.h"
#include "testing/component_binding.h"
#include "tradeslice/base_data_api.h"

namespace tsm {
namespace {

using platform::ComPtr;

std::wstring ComponentPath() { return ModulePathContaining(reinterpret_cast<const void*>(&TsmCreateBaseData)); }

std::wstring Folder(const std::wstring& path) { return path.substr(0, path.rfind(L'\\') + 1); }

struct RegOutput {
  int exit_code;
  std::wstring text;
};

// Runs reg.exe as an outside program would and collects what it prints.
RegOutput Reg(const std::wstring& arguments) {
  const std::wstring command = L"reg " + arguments + L" 2>&1";
  FILE* pipe = _wpopen(command.c_str(), L"rt");
  if (pipe == nullptr) return RegOutput{-1, L""};
  std::wstring text;
  wchar_t buffer[512];
  while (fgetws(buffer, 512, pipe) != nullptr) text += buffer;
  return RegOutput{_pclose(pipe), text};
}

class ComponentLibrary {
 public:
  ComponentLibrary() : module_(LoadLibraryW(ComponentPath().c_str())) {}
  ~ComponentLibrary() {
    if (module_ != nullptr) FreeLibrary(module_);
  }
  template <class Fn>
  Fn Entry(const char* name) const {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
  }

 private:
  HMODULE module_;
};

TEST(BaseDataComTest, RegisteredTypeLibraryCarriesTheLibraryGuid) {
  GUID libid = GUID_NULL;
  ASSERT_EQ(CLSIDFromString(kBaseDataLibidText, &libid), S_OK);
  ComPtr<ITypeLib> library;
  ASSERT_EQ(LoadRegTypeLib(libid, 1, 0, LOCALE_NEUTRAL, library.Put()), S_OK);
  TLIBATTR* attributes = nullptr;
  ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
  EXPECT_TRUE(IsEqualGUID(attributes->guid, libid));
  library->ReleaseTLibAttr(attributes);
}

TEST(BaseDataComTest, PerUserRegistrationRoundTripsThroughTheRegistry) {
  ComponentLibrary library;
  using InstallFn = HRESULT(WINAPI*)(BOOL, LPCWSTR);
  const auto install = library.Entry<InstallFn>("DllInstall");
  ASSERT_NE(install, nullptr);
  const std::wstring progid_key = std::wstring(L"\"HKCU\\Software\\Classes\\") + kBaseDataProgId + L"\\CLSID\"";
  const std::wstring server_key =
      std::wstring(L"\"HKCU\\Software\\Classes\\CLSID\\") + kBaseDataClsidText + L"\\InprocServer32\"";

  ASSERT_EQ(install(TRUE, L"user"), S_OK);
  const RegOutput progid = Reg(L"query " + progid_key);
  EXPECT_EQ(progid.exit_code, 0);
  EXPECT_NE(progid.text.find(kBaseDataClsidText), std::wstring::npos) << progid.text;
  const RegOutput server = Reg(L"query " + server_key);
  EXPECT_EQ(server.exit_code, 0);
  EXPECT_NE(server.text.find(L"ThreadingModel"), std::wstring::npos) << server.text;
  EXPECT_NE(server.text.find(L"Both"), std::wstring::npos) << server.text;
  EXPECT_NE(server.text.find(kBaseDataFileName), std::wstring::npos) << server.text;

  ASSERT_EQ(install(FALSE, L"user"), S_OK);
  EXPECT_NE(Reg(L"query " + progid_key).exit_code, 0);
  EXPECT_NE(Reg(L"query " + server_key).exit_code, 0);

  // Wine's per-user type library calls act on the machine's registration:
  // put the test set-up's registration back for the tests after this one.
  using RegisterFn = HRESULT(WINAPI*)();
  const auto register_server = library.Entry<RegisterFn>("DllRegisterServer");
  ASSERT_NE(register_server, nullptr);
  EXPECT_EQ(register_server(), S_OK);
}

// The machine registration is made by the test set-up (regsvr32).
TEST(BaseDataComTest, MachineRegistrationNamesTheServerAndItsThreadingModel) {
  const RegOutput server =
      Reg(std::wstring(L"query \"HKCR\\CLSID\\") + kBaseDataClsidText + L"\\InprocServer32\" /v ThreadingModel");
  EXPECT_EQ(server.exit_code, 0);
  EXPECT_NE(server.text.find(L"Both"), std::wstring::npos) << server.text;
  const RegOutput progid = Reg(std::wstring(L"query \"HKCR\\") + kBaseDataProgId + L"\\CLSID\"");
  EXPECT_NE(progid.text.find(kBaseDataClsidText), std::wstring::npos) << progid.text;
}

TEST(BaseDataComTest, ProgIdCreatesAnObjectWhoseDispatchIdsComeFromTheTypeLibrary) {
  CLSID clsid = GUID_NULL;
  ASSERT_EQ(CLSIDFromProgID(kBaseDataProgId, &clsid), S_OK);
  ComPtr<IDispatch> object;
  ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.PutVoid()), S_OK);
  const wchar_t* names[] = {L"BeginUpdate", L"SetData", L"EndUpdate", L"GetData"};
  const DISPID expected[] = {1, 3, 4, 5};
  for (int i = 0; i < 4; ++i) {
    DISPID id = 0;
    LPOLESTR name = const_cast<LPOLESTR>(names[i]);
    ASSERT_EQ(object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id), S_OK) << i;
    EXPECT_EQ(id, expected[i]);
  }
  UINT count = 0;
  EXPECT_EQ(object->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 1u);
}

// --- Load paths ---

// A test installation tree under the temporary folder, removed afterwards.
class InstallationTree : public ::testing::Test {
 protected:
  void SetUp() override {
    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    root_ = std::wstring(temp) + L"tsm_tree_" + std::to_wstring(GetCurrentProcessId()) + L"\\";
    components_ = root_ + L"NordaRelease\\Components\\";
    CreateDirectoryW(root_.c_str(), nullptr);
    CreateDirectoryW((root_ + L"NordaRelease").c_str(), nullptr);
    CreateDirectoryW(components_.c_str(), nullptr);
    CreateDirectoryW((root_ + L"Elsewhere").c_str(), nullptr);
    // A component copy once loaded stays loaded (the DLL pins itself), so
    // the tree of this process keeps the first copy.
    const std::wstring component = components_ + kBaseDataFileName;
    ASSERT_TRUE(CopyFileW(ComponentPath().c_str(), component.c_str(), TRUE) || GetLastError() == ERROR_FILE_EXISTS);
    probe_source_ = Folder(ComponentPath()) + L"base_data_probe.dll";
  }
  // What is still loaded cannot go; it is left in the prefix's temporary
  // folder.
  void TearDown() override {
    for (const std::wstring& file : copies_) DeleteFileW(file.c_str());
    DeleteFileW((components_ + kBaseDataFileName).c_str());
    RemoveDirectoryW(components_.c_str());
    RemoveDirectoryW((root_ + L"NordaRelease").c_str());
    RemoveDirectoryW((root_ + L"Elsewhere").c_str());
    RemoveDirectoryW(root_.c_str());
  }

  // Copies the probe module to `folder` and calls its ProbeBindRecord.
  int BindFrom(const std::wstring& folder) {
    const std::wstring probe = folder + L"base_data_probe.dll";
    if (!CopyFileW(probe_source_.c_str(), probe.c_str(), FALSE)) return -1;
    copies_.push_back(probe);
    HMODULE module = LoadLibraryW(probe.c_str());
    if (module == nullptr) return -2;
    using ProbeFn = int (*)();
    const auto bind = reinterpret_cast<ProbeFn>(reinterpret_cast<void*>(GetProcAddress(module, "ProbeBindRecord")));
    const int result = bind != nullptr ? bind() : -3;
    const auto load =
        reinterpret_cast<ProbeFn>(reinterpret_cast<void*>(GetProcAddress(module, "ProbeLoadComponent")));
    last_private_load_ = load != nullptr ? load() : -3;
    FreeLibrary(module);
    return result;
  }

  std::wstring root_;
  std::wstring components_;
  std::wstring probe_source_;
  std::vector<std::wstring> copies_;
  int last_private_load_ = -1;
};

TEST_F(InstallationTree, ModuleBesideTheComponentLoadsItPrivately) {
  EXPECT_EQ(BindFrom(components_), 2);
  EXPECT_EQ(last_private_load_, 1);
}

TEST_F(InstallationTree, ModulePathWithoutTheFolderBindsThroughTheProgId) {
  EXPECT_EQ(BindFrom(root_ + L"Elsewhere\\"), 1);
  EXPECT_EQ(last_private_load_, 0);
}

// --- Threads and events ---

TEST(BaseDataComTest, CookieMadeOnOneThreadOpensOnAnother) {
  std::unique_ptr<IBaseData, void (*)(IBaseData*)> object(TsmCreateBaseData(L"Order"),
                                                          [](IBaseData* o) { o->Release(); });
  CBaseData owner;
  ASSERT_TRUE(owner.Initialize(nullptr, BindingOf(object.get())));
  int32_t update_id = owner.BeginUpdate();
  owner.SetData(update_id, kKindFieldByName, Variant::Text(L"LevelKey"), Variant::Text(L"K-7"));
  owner.EndUpdate(update_id);
  const uint32_t cookie = owner.GetCookie();
  ASSERT_NE(cookie, 0u);

  std::wstring seen;
  std::thread other([&] {
    const HRESULT entered = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
      std::unique_ptr<CBaseData> record(CBaseData::FromCookie(cookie, nullptr));
      if (record != nullptr) {
        seen = record->GetString(L"LevelKey").wstr();
        const int32_t id = record->BeginUpdate();
        record->SetData(id, kKindFieldByName, Variant::Text(L"CumQty"), Variant::I4(5));
        record->EndUpdate(id);
      }
    }
    if (SUCCEEDED(entered)) CoUninitialize();
  });
  other.join();
  EXPECT_EQ(seen, L"K-7");
  EXPECT_EQ(owner.GetLong(L"CumQty", 0), 5);
}

class ThreadRecordingReceiver : public CBaseDataEventReceiver {
 public:
  void OnDataUpdate(CBaseData* record, int32_t update_id, CString text) override {
    std::lock_guard<std::mutex> guard(lock_);
    updates_.push_back(Update{record, update_id, text.wstr(), GetCurrentThreadId()});
  }
  struct Update {
    CBaseData* record;
    int32_t id;
    std::wstring text;
    DWORD thread;
  };
  std::vector<Update> Updates() {
    std::lock_guard<std::mutex> guard(lock_);
    return updates_;
  }

 private:
  std::mutex lock_;
  std::vector<Update> updates_;
};

TEST(BaseDataComTest, OnUpdateFromTheComponentThreadReachesOnDataUpdateAndOwnUpdateIsDropped) {
  std::unique_ptr<IBaseData, void (*)(IBaseData*)> object(TsmCreateBaseData(L"Order"),
                                                          [](IBaseData* o) { o->Release(); });
  ThreadRecordingReceiver mine;
  ThreadRecordingReceiver theirs;
  CBaseData writer;
  ASSERT_TRUE(writer.Initialize(&mine, BindingOf(object.get())));
  std::unique_ptr<CBaseData> other(CBaseData::FromCookie(writer.GetCookie(), &theirs));
  ASSERT_NE(other, nullptr);

  const int32_t update_id = writer.BeginUpdate();
  writer.SetData(update_id, kKindFieldByName, Variant::Text(L"ExecType"), Variant::Text(L"F"));
  writer.SetData(update_id, kKindFieldByName, Variant::Text(L"CumQty"), Variant::I4(10));
  writer.EndUpdate(update_id);
  TsmWaitEventsDelivered();

  EXPECT_TRUE(mine.Updates().empty());
  const std::vector<ThreadRecordingReceiver::Update> delivered = theirs.Updates();
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].record, other.get());
  EXPECT_EQ(delivered[0].id, update_id);
  EXPECT_EQ(delivered[0].text, L"ExecType,CumQty");
  EXPECT_NE(delivered[0].thread, GetCurrentThreadId());
}

}  // namespace
}  // namespace tsm
