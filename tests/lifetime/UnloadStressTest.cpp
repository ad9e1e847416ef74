// The module unloaded the moment it says it may be, as CoFreeUnusedLibraries does: the last release of a
// transform on one thread while another asks DllCanUnloadNow and calls FreeLibrary as soon as it answers
// S_OK. Any code of the module that runs after that answer (a destructor still running, a callback the
// platform still holds) runs in unmapped memory and ends the process.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "common/BuiltModule.h"
#include "lifetime/LifetimeSupport.h"

using Microsoft::WRL::ComPtr;

namespace lifetime {
namespace {

// A private copy of the built DLL: the rest of this program keeps the built one loaded for good, and a
// module that is never unmapped cannot show an early unload.
std::wstring PrivateModuleCopy(const wchar_t *name = L"unload") {
  wchar_t directory[MAX_PATH];
  GetTempPathW(MAX_PATH, directory);
  const std::wstring folder = std::wstring(directory) + L"wq400-" + name + L"-" + std::to_wstring(GetCurrentProcessId());
  CreateDirectoryW(folder.c_str(), nullptr);
  const std::wstring path = folder + L"\\WQ400DeviceMft.dll";
  if (!CopyFileW(test_module::BuiltModulePath().c_str(), path.c_str(), FALSE)) return std::wstring();
  return path;
}

// One loaded instance of the copy, reached only through its exports.
class LoadedModule {
 public:
  explicit LoadedModule(const std::wstring &path) : handle(LoadLibraryW(path.c_str())) {
    if (handle == nullptr) return;
    getClassObject = reinterpret_cast<decltype(&DllGetClassObject)>(
        reinterpret_cast<void *>(GetProcAddress(handle, "DllGetClassObject")));
    canUnloadNow = reinterpret_cast<decltype(&DllCanUnloadNow)>(
        reinterpret_cast<void *>(GetProcAddress(handle, "DllCanUnloadNow")));
  }
  bool Loaded() const { return handle != nullptr && getClassObject != nullptr && canUnloadNow != nullptr; }

  ComPtr<IMFDeviceTransform> Create(const Subject &subject) const {
    GUID clsid = GUID_NULL;
    ComPtr<IClassFactory> factory;
    ComPtr<IMFDeviceTransform> transform;
    if (!tools::DllTransformFactory::ClassOf(subject.name, clsid) ||
        FAILED(getClassObject(clsid, IID_PPV_ARGS(&factory))) ||
        FAILED(factory->CreateInstance(nullptr, IID_PPV_ARGS(&transform)))) {
      return nullptr;
    }
    return transform;
  }

  // What the platform does for CoFreeUnusedLibraries: ask until the module agrees, then unload it at once.
  // Gives up (and keeps the module) after `timeoutMs`.
  bool UnloadWhenAllowed(DWORD timeoutMs) {
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    while (canUnloadNow() != S_OK) {
      if (GetTickCount64() > deadline) return false;
      SwitchToThread();
    }
    FreeLibrary(handle);
    handle = nullptr;
    return true;
  }
  HRESULT CanUnloadNow() const { return canUnloadNow(); }

 private:
  HMODULE handle;
  decltype(&DllGetClassObject) getClassObject = nullptr;
  decltype(&DllCanUnloadNow) canUnloadNow = nullptr;
};

struct Counts {
  uint64_t rounds = 0;
  uint64_t unloaded = 0;
  uint64_t streamed = 0;
  uint64_t earlyAnswers = 0;  // S_OK while a factory or a transform of the module lived
};

// One round: load, create through the class object, initialise (and stream), then the
// last release racing the unloading thread; then the camera's driver event and time for the platform's
// queues, which is when a callback the platform kept would run.
void RunRound(const std::wstring &path, const Subject &subject, uint64_t round, Ending ending,
              RoundWatchdog &watchdog, Counts &counts) {
  const bool streaming = ending != Ending::Idle;
  const std::string name = subject.name + " round " + std::to_string(round);
  watchdog.Phase("loading");
  LoadedModule module(path);
  ASSERT_TRUE(module.Loaded()) << name << ": the copy did not load, error " << GetLastError();
  ComPtr<sim::SimulatedCameraFilter> filter = sim::SimulatedCameraFilter::Create(subject.camera());
  ComPtr<IMFDeviceTransform> device = module.Create(subject);
  ASSERT_TRUE(device) << name;
  if (module.CanUnloadNow() == S_OK) ++counts.earlyAnswers;
  auto host = std::make_unique<sim::FrameServerHost>(device, filter);
  watchdog.Phase("initialising");
  ASSERT_EQ(S_OK, host->Initialize()) << name;
  if (streaming) {
    watchdog.Phase("streaming");
    ComPtr<IMFMediaType> type = OutputType(device.Get(), 0, subject.width, subject.height, 30);
    ASSERT_TRUE(type) << name;
    ASSERT_EQ(S_OK, host->StartStream(0, type.Get())) << name;
    // A first frame out: the driver-event listener is armed on the platform's queue by now.
    if (WaitFor([&] { return FramesOut(*host, 0) > 0; }, 5000)) ++counts.streamed;
    // A driver event in flight while the transform goes.
    filter->SignalAutoUpdate();
  }
  watchdog.Phase("shutting down");
  if (ending == Ending::Abandoned) {
    host->Abandon();
  } else {
    host->Shutdown();
  }
  host.reset();
  if (module.CanUnloadNow() == S_OK) ++counts.earlyAnswers;

  std::atomic<bool> unloaded{false};
  watchdog.Phase("last release racing the unload");
  // A streamed transform cancelled its driver-event wait; a platform that keeps cancelled waits (Wine
  // does) keeps the callback in it, and with it the module: then the module must not be unloaded.
  std::thread unloader([&] { unloaded = module.UnloadWhenAllowed(streaming ? 2000 : 10000); });
  device.Reset();
  // Whatever the platform still holds of the module's runs now, into the module if it is still there.
  filter->SignalAutoUpdate();
  unloader.join();
  watchdog.Phase("letting the platform's queues run");
  filter->SignalAutoUpdate();
  Sleep(round % 3);
  if (unloaded) ++counts.unloaded;
  ++counts.rounds;
  if (!streaming) {
    EXPECT_TRUE(unloaded) << name << ": the module never allowed its unload after every object was released";
  }
}

DWORD LowestFreeTlsIndex() {
  const DWORD index = TlsAlloc();
  TlsFree(index);
  return index;
}

// The thread library linked into the module takes a thread-local storage index: a host that loads and
// unloads the module a thousand times runs out of them (and the library ends the process) unless each
// unload gives its index back.
TEST(UnloadStress, AnUnloadedModuleGivesBackItsThreadLocalStorageIndex) {
  const std::wstring path = PrivateModuleCopy(L"tls");
  ASSERT_FALSE(path.empty());
  auto cycle = [&] {
    LoadedModule module(path);
    ASSERT_TRUE(module.Loaded());
    EXPECT_TRUE(module.Create(Subjects()[0]));
    ASSERT_TRUE(module.UnloadWhenAllowed(10000));
  };
  cycle();  // what the platform takes once, on first use
  const DWORD before = LowestFreeTlsIndex();
  for (int i = 0; i < 4; ++i) cycle();
  EXPECT_EQ(before, LowestFreeTlsIndex()) << "each load of the module kept an index";
}

TEST(UnloadStress, TheModuleIsUnloadedTheMomentItAllowsItWhileItsLastObjectGoes) {
  const std::wstring path = PrivateModuleCopy();
  ASSERT_FALSE(path.empty()) << "the DLL could not be copied, error " << GetLastError();
  RoundWatchdog watchdog("unload stress", std::chrono::seconds(60));
  // 50 rounds per class; 1 000 at WQ400_LIFETIME_SCALE=20.
  const uint64_t rounds = Scaled(150);
  Counts counts;
  for (uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    const Subject &subject = Subjects()[round % Subjects().size()];
    watchdog.BeginRound(subject.name + " round " + std::to_string(round / Subjects().size()));
    RunRound(path, subject, round / Subjects().size(), Ending::Idle, watchdog, counts);
  }
  const uint64_t initialised = counts.unloaded;
  // Streamed last: once the platform keeps a cancelled wait's callback, the module stays for good.
  for (const Ending ending : {Ending::ShutDown, Ending::Abandoned}) {
    for (const Subject &subject : Subjects()) {
      if (HasFailure()) break;
      watchdog.BeginRound(subject.name + (ending == Ending::Abandoned ? " abandoned" : " streaming") + " round");
      RunRound(path, subject, 0, ending, watchdog, counts);
    }
  }
  std::printf("%llu rounds initialised, unloaded after %llu; %llu streamed (shut down or let go), "
              "unloaded after %llu\n",
              static_cast<unsigned long long>(rounds), static_cast<unsigned long long>(initialised),
              static_cast<unsigned long long>(counts.streamed),
              static_cast<unsigned long long>(counts.unloaded - initialised));
  EXPECT_EQ(0u, counts.earlyAnswers) << "DllCanUnloadNow answered S_OK while a transform lived";
  EXPECT_EQ(rounds, initialised);
}

}  // namespace
}  // namespace lifetime
