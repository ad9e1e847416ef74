// The DLL as the frame server and regsvr32 see it: loaded by path, reached only through its exports.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/BuiltModule.h"
#include "platform/WindowsSdk.h"
#include "sim/FrameServerHost.h"

using Microsoft::WRL::ComPtr;

namespace {

struct ClassCase {
  const char *label;
  GUID clsid;
  const wchar_t *key;  // lower case, no braces
  const wchar_t *description;
};

const ClassCase kClasses[] = {
    {"depth", {0xE365CD7E, 0xB3A0, 0x47B2, {0xAA, 0x49, 0xE0, 0x45, 0xAA, 0x4E, 0x77, 0xBF}},
     L"Software\\Classes\\CLSID\\e365cd7e-b3a0-47b2-aa49-e045aa4e77bf", L"WQ400 Depth Device MFT"},
    {"color", {0x5B45BF9D, 0xC4BF, 0x4F8B, {0x81, 0xC8, 0x40, 0x7A, 0xBF, 0xAA, 0xAE, 0xA8}},
     L"Software\\Classes\\CLSID\\5b45bf9d-c4bf-4f8b-81c8-407abfaaaea8", L"WQ400 Color Device MFT"},
    {"fisheye", {0x42547A62, 0x2335, 0x4325, {0x83, 0xA3, 0x21, 0x7D, 0x4F, 0x96, 0x59, 0x4D}},
     L"Software\\Classes\\CLSID\\42547a62-2335-4325-83a3-217d4f96594d", L"WQ400 FishEye Device MFT"},
};

const GUID kUnknownClass = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};

using test_module::BuiltModulePath;

// The DLL, loaded once for the whole program as a host process would.
class Module {
 public:
  static Module &Get() {
    static Module module;
    return module;
  }
  HMODULE Handle() const { return handle; }
  template <typename F>
  F Export(const char *name) const {
    return reinterpret_cast<F>(reinterpret_cast<void *>(GetProcAddress(handle, name)));
  }
  HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void **ppv) const {
    return Export<decltype(&DllGetClassObject)>("DllGetClassObject")(clsid, riid, ppv);
  }
  HRESULT CanUnloadNow() const { return Export<decltype(&DllCanUnloadNow)>("DllCanUnloadNow")(); }
  ComPtr<IClassFactory> Factory(REFCLSID clsid) const {
    ComPtr<IClassFactory> factory;
    EXPECT_EQ(S_OK, GetClassObject(clsid, IID_PPV_ARGS(&factory)));
    return factory;
  }
  std::string traceFile;

 private:
  Module() {
    // The module reads its trace settings when it loads.
    char directory[MAX_PATH];
    GetTempPathA(MAX_PATH, directory);
    traceFile = std::string(directory) + "wq400_module_test_trace.txt";
    std::remove(traceFile.c_str());
    _putenv_s("WQ400_TRACE", "info");
    _putenv_s("WQ400_TRACE_FILE", traceFile.c_str());
    handle = LoadLibraryW(BuiltModulePath().c_str());
  }
  HMODULE handle = nullptr;
};

// (The four standard exports: every test here and regsvr32's reach the module through them.)
TEST(ModuleExports, VersionResourceCarriesTheProductVersion) {
  ASSERT_NE(nullptr, Module::Get().Handle()) << "LoadLibraryW failed: " << GetLastError();
  wchar_t path[MAX_PATH];
  ASSERT_NE(0u, GetModuleFileNameW(Module::Get().Handle(), path, MAX_PATH));
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeW(path, &ignored);
  ASSERT_NE(0u, size);
  std::string block(size, '\0');
  ASSERT_TRUE(GetFileVersionInfoW(path, 0, size, &block[0]));
  VS_FIXEDFILEINFO *fixed = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(&block[0], L"\\", reinterpret_cast<void **>(&fixed), &length));
  EXPECT_EQ(MAKELONG(1, 6), fixed->dwFileVersionMS);
  EXPECT_EQ(MAKELONG(14, 160), fixed->dwFileVersionLS);
  wchar_t *text = nullptr;
  ASSERT_TRUE(VerQueryValueW(&block[0], L"\\StringFileInfo\\040904b0\\FileVersion", reinterpret_cast<void **>(&text),
                             &length));
  EXPECT_STREQ(L"6.1.160.14", text);
}

TEST(ClassFactory, UnknownClassOrBadPointersAreRefused) {
  const Module &module = Module::Get();
  void *object = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, module.GetClassObject(kUnknownClass, IID_IClassFactory, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(E_POINTER, module.GetClassObject(kClasses[0].clsid, IID_IClassFactory, nullptr));
  object = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(E_NOINTERFACE, module.GetClassObject(kClasses[0].clsid, IID_IMFTransform, &object));
  EXPECT_EQ(nullptr, object);

  ComPtr<IClassFactory> factory = module.Factory(kClasses[0].clsid);
  ASSERT_TRUE(factory);
  ComPtr<IUnknown> outer = factory;  // any unknown stands in for an aggregating outer object
  object = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(CLASS_E_NOAGGREGATION, factory->CreateInstance(outer.Get(), IID_IUnknown, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
  object = reinterpret_cast<void *>(0x1);
  EXPECT_EQ(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IClassFactory, &object));
  EXPECT_EQ(nullptr, object);
}

class EachClass : public ::testing::TestWithParam<ClassCase> {};

TEST_P(EachClass, GivesANewTransformWithOneIdentityOverItsInterfacesAndNoOther) {
  ComPtr<IClassFactory> factory = Module::Get().Factory(GetParam().clsid);
  ASSERT_TRUE(factory);
  ComPtr<IUnknown> first;
  ComPtr<IUnknown> second;
  ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&first)));
  ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&second)));
  EXPECT_NE(first.Get(), second.Get());

  const IID interfaces[] = {IID_IMFDeviceTransform, IID_IMFTransform, IID_IMFShutdown, IID_IMFMediaEventGenerator,
                            IID_IMFRealTimeClientEx, IID_IKsControl};
  for (const IID &iid : interfaces) {
    ComPtr<IUnknown> asInterface;
    ASSERT_EQ(S_OK, first->QueryInterface(iid, reinterpret_cast<void **>(asInterface.GetAddressOf())));
    ComPtr<IUnknown> identity;
    ASSERT_EQ(S_OK, asInterface.As(&identity));
    EXPECT_EQ(first.Get(), identity.Get());
  }
  ComPtr<IMFAttributes> notOffered;
  EXPECT_EQ(E_NOINTERFACE, first.As(&notOffered));
}

INSTANTIATE_TEST_SUITE_P(Classes, EachClass, ::testing::ValuesIn(kClasses),
                         [](const ::testing::TestParamInfo<ClassCase> &info) { return std::string(info.param.label); });

TEST(ModuleTrace, InitialisingOverTheSimulatedCameraTracesTheVersionBanner) {
  ComPtr<IMFDeviceTransform> device;
  ASSERT_EQ(S_OK, Module::Get().Factory(kClasses[0].clsid)->CreateInstance(nullptr, IID_PPV_ARGS(&device)));
  sim::FrameServerHost host(device, sim::SimulatedCameraFilter::Create(sim::DepthCamera()));
  ASSERT_EQ(S_OK, host.Initialize());
  EXPECT_EQ(S_OK, host.Shutdown());
  std::ifstream file(Module::Get().traceFile);
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_NE(std::string::npos, text.str().find("WQ400 Device MFT Version: 6.1.160.14 (revision ")) << text.str();
}

TEST(ModuleLockCount, FactoriesLocksAndLiveObjectsKeepTheModuleLoaded) {
  const Module &module = Module::Get();
  ASSERT_EQ(S_OK, module.CanUnloadNow());
  ComPtr<IClassFactory> factory = module.Factory(kClasses[0].clsid);
  EXPECT_EQ(S_FALSE, module.CanUnloadNow()) << "a live factory";
  ASSERT_EQ(S_OK, factory->LockServer(TRUE));
  ComPtr<IUnknown> object;
  ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&object)));
  factory.Reset();
  EXPECT_EQ(S_FALSE, module.CanUnloadNow()) << "locked, and a live object";
  object.Reset();
  EXPECT_EQ(S_FALSE, module.CanUnloadNow()) << "still locked";

  factory = module.Factory(kClasses[0].clsid);
  ASSERT_EQ(S_OK, factory->LockServer(FALSE));
  ASSERT_EQ(S_OK, factory->CreateInstance(nullptr, IID_PPV_ARGS(&object)));
  factory.Reset();
  EXPECT_EQ(S_FALSE, module.CanUnloadNow()) << "a live object holds the module";
  object.Reset();
  EXPECT_EQ(S_OK, module.CanUnloadNow());
}

// Wine's own regsvr32, as an installer runs it.
DWORD RunRegsvr32(const std::wstring &arguments) {
  std::wstring command = L"regsvr32.exe /s " + arguments + L" \"" + BuiltModulePath() + L"\"";
  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
    return GetLastError() | 0x80000000u;
  }
  WaitForSingleObject(process.hProcess, 60000);
  DWORD exitCode = 0;
  GetExitCodeProcess(process.hProcess, &exitCode);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return exitCode;
}

std::wstring ReadText(const std::wstring &key, const wchar_t *value) {
  wchar_t text[MAX_PATH * 2] = {};
  DWORD size = sizeof(text);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_SZ, nullptr, text, &size) != ERROR_SUCCESS) {
    return L"(missing)";
  }
  return text;
}

bool KeyExists(const std::wstring &key) {
  HKEY handle = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
  RegCloseKey(handle);
  return true;
}

TEST(Registration, Regsvr32WritesExactlyTheClassKeysAndRemovesThem) {
  wchar_t modulePath[MAX_PATH];
  ASSERT_NE(0u, GetModuleFileNameW(Module::Get().Handle(), modulePath, MAX_PATH));
  for (const auto &c : kClasses) ASSERT_FALSE(KeyExists(c.key)) << "left over from an earlier run";

  ASSERT_EQ(0u, RunRegsvr32(L""));
  for (const auto &c : kClasses) {
    EXPECT_EQ(c.description, ReadText(c.key, nullptr));
    const std::wstring server = std::wstring(c.key) + L"\\InProcServer32";
    EXPECT_EQ(0, _wcsicmp(modulePath, ReadText(server, nullptr).c_str())) << c.label;
    EXPECT_EQ(L"Both", ReadText(server, L"ThreadingModel"));
    // Nothing else under the class key.
    HKEY handle = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, c.key, 0, KEY_READ, &handle));
    DWORD subkeys = 0;
    DWORD values = 0;
    RegQueryInfoKeyW(handle, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr, nullptr,
                     nullptr, nullptr);
    RegCloseKey(handle);
    EXPECT_EQ(1u, subkeys);
    EXPECT_EQ(1u, values);
  }

  ASSERT_EQ(0u, RunRegsvr32(L"/u"));
  for (const auto &c : kClasses) EXPECT_FALSE(KeyExists(c.key)) << c.label;
  // Installers unregister on clean machines too: what is not there counts as removed.
  EXPECT_EQ(0u, RunRegsvr32(L"/u"));
}

// A module whose path fills the 260-character buffer would be registered under a cut path, naming a
// file that does not exist: it refuses instead.
TEST(Registration, AModulePathTooLongForTheBufferIsRefused) {
  wchar_t temp[MAX_PATH];
  ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
  std::wstring folder = std::wstring(L"\\\\?\\") + temp + L"wq400-long-path";
  std::vector<std::wstring> made;
  for (;;) {
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS) << GetLastError();
    made.push_back(folder);
    if (folder.size() >= 300) break;
    folder += L"\\" + std::wstring(40, L'd');
  }
  const std::wstring path = folder + L"\\WQ400DeviceMft.dll";
  ASSERT_TRUE(CopyFileW(BuiltModulePath().c_str(), path.c_str(), FALSE)) << GetLastError();
  HMODULE copy = LoadLibraryW(path.c_str());
  ASSERT_NE(nullptr, copy) << GetLastError();
  const auto registerServer =
      reinterpret_cast<decltype(&DllRegisterServer)>(reinterpret_cast<void *>(GetProcAddress(copy, "DllRegisterServer")));
  const auto unregisterServer = reinterpret_cast<decltype(&DllUnregisterServer)>(
      reinterpret_cast<void *>(GetProcAddress(copy, "DllUnregisterServer")));
  ASSERT_TRUE(registerServer && unregisterServer);

  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER), registerServer());
  EXPECT_EQ(L"(missing)", ReadText(std::wstring(kClasses[0].key) + L"\\InProcServer32", nullptr));
  EXPECT_EQ(S_OK, unregisterServer());
  for (const auto &c : kClasses) EXPECT_FALSE(KeyExists(c.key)) << c.label;

  FreeLibrary(copy);
  DeleteFileW(path.c_str());
  for (auto it = made.rbegin(); it != made.rend(); ++it) RemoveDirectoryW(it->c_str());
}

}  // namespace
