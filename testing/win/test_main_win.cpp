// The main of the test programs on Windows: the main thread is in the
// multithreaded apartment, as every thread the host calls the component on.
#include <windows.h>
#include <objbase.h>

#include <gmock/gmock.h>

int main(int argc, char** argv) {
  const HRESULT entered = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  testing::InitGoogleMock(&argc, argv);
  const int result = RUN_ALL_TESTS();
  if (SUCCEEDED(entered)) CoUninitialize();
  return result;
}
