// The driver package's INF installed the way its sections for builds before Windows 11 24H2 install,
// with Wine's setupapi into this prefix, and each camera's transform then activated as the frame server
// activates it: the class id named by the camera's device interface, turned into a CLSID and created
// through COM, then streamed through the simulated frame server. Uninstalling takes the class away.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/WindowsSdk.h"

#include <setupapi.h>

#include "common/BuiltModule.h"
#include "product/transforms/WQ400DeviceMft.h"
#include "sim/Session.h"
#include "user_space_frameworks/ModuleVersion.h"

#define WQ_WIDEN(text) L##text
#define WQ_WIDE(text) WQ_WIDEN(text)

using Microsoft::WRL::ComPtr;

namespace {

// The camera device-interface categories the frame server enumerates.
const GUID kVideoCamera = {0xE5323777, 0xF976, 0x4F5B, {0x9B, 0x55, 0xB9, 0x46, 0x99, 0xC4, 0x6E, 0x44}};
const GUID kSensorCamera = {0x24E552D7, 0x6523, 0x47F7, {0xA6, 0x47, 0xD3, 0x46, 0x5B, 0xF1, 0xF5, 0xCA}};

const wchar_t kOlderModels[] = L"WQ400.NTamd64";
const wchar_t kNewerModels[] = L"WQ400.NTamd64.10.0...26100";
// Where the test keeps its stand-in device-interface keys (a real one lives under DeviceClasses).
const wchar_t kStandInRoot[] = L"Software\\WQ400PackageTest";

struct Group {
  const char *name;            // the simulated camera
  const wchar_t *install;      // the older builds' install section of its interface
  const GUID *clsid;           // the transform the module makes for that camera
  const GUID *category;        // the device-interface category the frame server finds it under
  const char *description;     // the class's description
  UINT32 width, height;        // a size every stream of the camera offers
};

const Group kGroups[] = {
    {"depth", L"WQ400Depth", &mft_core::CLSID_WQ400DepthDeviceMft, &kSensorCamera, "WQ400 Depth Device MFT", 424, 240},
    {"color", L"WQ400Color", &mft_core::CLSID_WQ400ColorDeviceMFT, &kVideoCamera, "WQ400 Color Device MFT", 424, 240},
    {"fisheye", L"WQ400FishEye", &mft_core::CLSID_WQ400FishEyeDeviceMft, &kSensorCamera, "WQ400 FishEye Device MFT", 640, 480},
};

void PrintTo(const Group &group, std::ostream *out) { *out << group.name; }

std::wstring Widen(const std::string &text) { return std::wstring(text.begin(), text.end()); }
std::string Narrow(const std::wstring &text) {
  std::string narrow;
  for (wchar_t c : text) narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  return narrow;
}

std::wstring WindowsPath(std::string path) {
  if (!path.empty() && path[0] == '/') path = "Z:" + path;
  for (char &c : path) {
    if (c == '/') c = '\\';
  }
  return Widen(path);
}

std::wstring Folder(const std::wstring &file) { return file.substr(0, file.find_last_of(L"\\/")); }
std::wstring FileName(const std::wstring &file) { return file.substr(file.find_last_of(L"\\/") + 1); }

std::wstring ClassKey(const GUID &clsid) {
  wchar_t text[64] = {};
  StringFromGUID2(clsid, text, 64);
  return std::wstring(L"CLSID\\") + text;
}

bool KeyExists(HKEY root, const std::wstring &path) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
  RegCloseKey(key);
  return true;
}

// A string value (REG_SZ or REG_EXPAND_SZ, expanded); `type` receives its type.
bool ReadString(HKEY root, const std::wstring &path, const wchar_t *name, std::wstring &value, DWORD *type = nullptr) {
  wchar_t buffer[1024] = {};
  DWORD size = sizeof(buffer) - sizeof(wchar_t);
  DWORD kind = 0;
  if (RegGetValueW(root, path.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, &kind, buffer,
                   &size) != ERROR_SUCCESS) {
    return false;
  }
  if (type != nullptr) *type = kind;
  value = buffer;
  if (kind == REG_EXPAND_SZ) {
    wchar_t expanded[1024] = {};
    ExpandEnvironmentStringsW(buffer, expanded, 1024);
    value = expanded;
  }
  return true;
}

// The fields of every line of `section` that has `key` (all lines when `key` is null).
std::vector<std::vector<std::wstring>> Lines(HINF inf, const wchar_t *section, const wchar_t *key) {
  std::vector<std::vector<std::wstring>> lines;
  INFCONTEXT line;
  BOOL found = key != nullptr ? SetupFindFirstLineW(inf, section, key, &line) : SetupFindFirstLineW(inf, section, nullptr, &line);
  while (found) {
    std::vector<std::wstring> fields;
    const DWORD count = SetupGetFieldCount(&line);
    for (DWORD i = 0; i <= count; ++i) {
      wchar_t text[512] = {};
      DWORD needed = 0;
      fields.push_back(SetupGetStringFieldW(&line, i, text, 512, &needed) ? text : L"");
    }
    lines.push_back(fields);
    found = key != nullptr ? SetupFindNextMatchLineW(&line, key, &line) : SetupFindNextLine(&line, &line);
  }
  return lines;
}

// The install section and hardware id of the models line that installs `install` (empty: none).
std::vector<std::wstring> ModelOf(HINF inf, const wchar_t *models, const std::wstring &install) {
  for (const auto &line : Lines(inf, models, nullptr)) {
    if (line.size() > 2 && line[1].rfind(install, 0) == 0) return line;
  }
  return {};
}

// Runs the session of `group`'s camera on transforms COM creates from `clsid`, as the frame server would.
class ComActivation : public sim::ITransformFactory {
 public:
  explicit ComActivation(const CLSID &clsid) : clsid(clsid) {}
  HRESULT CreateTransform(const sim::CameraConfig &, IMFDeviceTransform **transform) override {
    return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(transform));
  }
  std::string Describe() const override { return "CoCreateInstance"; }

 private:
  CLSID clsid;
};

class PackageActivation : public ::testing::TestWithParam<Group> {
 protected:
  void SetUp() override {
    module = test_module::BuiltModulePath();
    inf = SetupOpenInfFileW(WindowsPath(WQ_PACKAGE_INF).c_str(), nullptr, INF_STYLE_WIN4, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, inf) << "cannot open " << WQ_PACKAGE_INF << " (error " << GetLastError() << ")";
    Forget();
  }
  void TearDown() override {
    if (inf != INVALID_HANDLE_VALUE) SetupCloseInfFile(inf);
    Forget();
    if (!placed.empty()) {
      CoFreeUnusedLibrariesEx(0, 0);
      DeleteFileW(placed.c_str());  // kept while still loaded; the next run overwrites it
    }
  }
  // No class key or stand-in interface key of the group outlives the test.
  void Forget() {
    RegDeleteTreeW(HKEY_CLASSES_ROOT, ClassKey(*GetParam().clsid).c_str());
    RegDeleteTreeW(HKEY_CURRENT_USER, kStandInRoot);
  }

  BOOL Install(const std::wstring &section, UINT flags, HKEY relativeRoot) {
    return SetupInstallFromInfSectionW(nullptr, inf, section.c_str(), flags, relativeRoot, nullptr, 0, nullptr,
                                       nullptr, nullptr, nullptr);
  }

  std::wstring module;  // the DLL the package is made of (the build's or the release DLL)
  std::wstring placed;  // its copy where the package installs it
  HINF inf = INVALID_HANDLE_VALUE;
};

TEST_P(PackageActivation, TheCameraInterfaceActivatesItsTransformThroughComUntilUninstalled) {
  const Group &group = GetParam();
  const std::vector<std::wstring> model = ModelOf(inf, kOlderModels, group.install);
  ASSERT_EQ(3u, model.size()) << "no line of [" << Narrow(kOlderModels) << "] installs " << Narrow(group.install);
  EXPECT_EQ(0u, model[2].rfind(L"USB\\VID_", 0)) << Narrow(model[2]);
  EXPECT_NE(std::wstring::npos, model[2].find(L"&MI_")) << "one interface per sensor group: " << Narrow(model[2]);

  // The install section: the class into HKCR. Wine's setupapi knows no driver store (directory id
  // 13) to copy into, so the test puts the DLL where the class's server path, %13%, says.
  ASSERT_TRUE(Install(model[1], SPINST_REGISTRY, nullptr)) << "error " << GetLastError();
  const std::wstring classKey = ClassKey(*group.clsid);
  std::wstring description, server, threading;
  DWORD serverType = 0;
  ASSERT_TRUE(ReadString(HKEY_CLASSES_ROOT, classKey, nullptr, description)) << "no HKCR\\" << Narrow(classKey);
  ASSERT_TRUE(ReadString(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", nullptr, server, &serverType));
  ASSERT_TRUE(ReadString(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", L"ThreadingModel", threading));
  EXPECT_EQ(group.description, Narrow(description));
  EXPECT_EQ(static_cast<DWORD>(REG_EXPAND_SZ), serverType);
  EXPECT_EQ(L"Both", threading);
  const auto copies = Lines(inf, model[1].c_str(), L"CopyFiles");
  ASSERT_EQ(1u, copies.size());
  const auto copied = Lines(inf, copies[0][1].c_str(), nullptr);
  ASSERT_EQ(1u, copied.size());
  EXPECT_EQ(copied[0][1], FileName(server)) << "the server is the file the section copies";
  CreateDirectoryW(Folder(server).c_str(), nullptr);
  // A group before this one may have left the copy loaded: a streamed transform's cancelled driver wait
  // keeps the module under Wine. The loaded copy is this very file, placed by this process.
  const bool placedNow = CopyFileW(module.c_str(), server.c_str(), FALSE) != FALSE;
  const DWORD copyError = placedNow ? ERROR_SUCCESS : GetLastError();
  ASSERT_TRUE(placedNow || (copyError == ERROR_SHARING_VIOLATION && GetModuleHandleW(server.c_str()) != nullptr))
      << Narrow(server) << ": error " << copyError;
  placed = server;

  // The interface: one AddInterface under the group's category, its HKR values into a stand-in
  // of the interface's Device Parameters key.
  const auto interfaces = Lines(inf, (model[1] + L".Interfaces").c_str(), L"AddInterface");
  ASSERT_EQ(1u, interfaces.size()) << "one device interface per sensor group";
  ASSERT_GE(interfaces[0].size(), 4u);
  GUID category = GUID_NULL;
  ASSERT_EQ(S_OK, CLSIDFromString(interfaces[0][1].c_str(), &category)) << Narrow(interfaces[0][1]);
  EXPECT_TRUE(IsEqualGUID(*group.category, category)) << Narrow(interfaces[0][1]);
  // The camera driver's own interface, the one the frame server opens, carries the reference string
  // GLOBAL; another would make a second interface.
  EXPECT_EQ(L"GLOBAL", interfaces[0][2]);
  const std::wstring parameters = std::wstring(kStandInRoot) + L"\\DeviceClasses\\" + interfaces[0][1] +
                                  L"\\##?#" + model[2] + L"#" + interfaces[0][1] + L"\\#" + interfaces[0][2] +
                                  L"\\Device Parameters";
  HKEY hkr = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, parameters.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                           nullptr, &hkr, nullptr));
  const BOOL interfaceInstalled = Install(interfaces[0][3], SPINST_REGISTRY, hkr);
  RegCloseKey(hkr);
  ASSERT_TRUE(interfaceInstalled) << "error " << GetLastError();

  // The frame server's side: the braced class id from the interface, then COM.
  std::wstring named;
  DWORD namedType = 0;
  ASSERT_TRUE(ReadString(HKEY_CURRENT_USER, parameters, L"CameraDeviceMftClsid", named, &namedType));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), namedType);
  CLSID clsid = GUID_NULL;
  ASSERT_EQ(S_OK, CLSIDFromString(named.c_str(), &clsid)) << "CameraDeviceMftClsid = " << Narrow(named);
  ASSERT_TRUE(IsEqualGUID(*group.clsid, clsid)) << "the interface names " << Narrow(named);

  sim::SessionOptions options;
  options.camera = group.name;
  options.width = group.width;
  options.height = group.height;
  options.seconds = 1.0;
  options.progress = false;
  ComActivation activation(clsid);
  std::ostringstream progress;
  const sim::SessionResult session = sim::RunSession(options, activation, progress);
  ASSERT_EQ(S_OK, session.result) << session.ending << "\n" << progress.str();
  ASSERT_FALSE(session.streams.empty());
  for (const auto &stream : session.streams) {
    EXPECT_GT(stream.framesOut, 0u) << "output stream " << stream.outputStreamId << "\n" << sim::FormatSummary(session);
  }

  // Uninstall: the class keys go, and so does activation.
  ASSERT_TRUE(Install(std::wstring(group.install) + L".Uninstall", SPINST_REGISTRY, nullptr));
  EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, classKey));
  ComPtr<IMFDeviceTransform> gone;
  EXPECT_EQ(REGDB_E_CLASSNOTREG, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&gone)));
}

// Windows 11 24H2 and later register the class from the .COM section instead: the same class, server
// binary in the driver store and threading model, for the same hardware id and interface. Wine's
// setupapi cannot carry it out, so its lines are checked.
TEST_P(PackageActivation, NewerBuildsRegisterTheSameClassWithAddComServer) {
  const Group &group = GetParam();
  const std::vector<std::wstring> older = ModelOf(inf, kOlderModels, group.install);
  const std::vector<std::wstring> newer = ModelOf(inf, kNewerModels, std::wstring(group.install) + L".");
  ASSERT_EQ(3u, older.size());
  ASSERT_EQ(3u, newer.size()) << "no line of [" << Narrow(kNewerModels) << "] for " << group.name;
  EXPECT_EQ(older[2], newer[2]);
  EXPECT_EQ(Lines(inf, (older[1] + L".Interfaces").c_str(), L"AddInterface"),
            Lines(inf, (newer[1] + L".Interfaces").c_str(), L"AddInterface"));
  EXPECT_TRUE(Lines(inf, newer[1].c_str(), L"AddReg").empty()) << "no HKCR registration where COM isolates it";

  const auto servers = Lines(inf, (newer[1] + L".COM").c_str(), L"AddComServer");
  ASSERT_EQ(1u, servers.size());
  ASSERT_GE(servers[0].size(), 4u);
  const std::wstring server = servers[0][3];
  const auto type = Lines(inf, server.c_str(), L"ServerType");
  const auto binary = Lines(inf, server.c_str(), L"ServerBinary");
  const auto classes = Lines(inf, server.c_str(), L"AddComClass");
  ASSERT_EQ(1u, type.size());
  EXPECT_EQ(L"1", type[0][1]) << "in-process";
  ASSERT_EQ(1u, binary.size());
  std::wstring registered;
  ASSERT_TRUE(Install(older[1], SPINST_REGISTRY, nullptr));
  ASSERT_TRUE(ReadString(HKEY_CLASSES_ROOT, ClassKey(*group.clsid) + L"\\InprocServer32", nullptr, registered));
  EXPECT_EQ(registered, binary[0][1]) << "both forms run the driver store's copy";
  ASSERT_EQ(1u, classes.size());
  ASSERT_GE(classes[0].size(), 4u);
  CLSID clsid = GUID_NULL;
  ASSERT_EQ(S_OK, CLSIDFromString(classes[0][1].c_str(), &clsid)) << Narrow(classes[0][1]);
  EXPECT_TRUE(IsEqualGUID(*group.clsid, clsid)) << Narrow(classes[0][1]);
  const auto threading = Lines(inf, classes[0][3].c_str(), L"ThreadingModel");
  ASSERT_EQ(1u, threading.size());
  EXPECT_EQ(L"Both", threading[0][1]);
}

INSTANTIATE_TEST_SUITE_P(SensorGroups, PackageActivation, ::testing::ValuesIn(kGroups),
                         [](const ::testing::TestParamInfo<Group> &info) { return std::string(info.param.name); });

// An isolated package: every file it copies goes to the driver store.
TEST(PackageInf, CopiesIntoTheDriverStoreOnly) {
  HINF inf = SetupOpenInfFileW(WindowsPath(WQ_PACKAGE_INF).c_str(), nullptr, INF_STYLE_WIN4, nullptr);
  ASSERT_NE(INVALID_HANDLE_VALUE, inf);
  const auto destinations = Lines(inf, L"DestinationDirs", nullptr);
  EXPECT_FALSE(destinations.empty());
  for (const auto &line : destinations) {
    ASSERT_GE(line.size(), 2u);
    EXPECT_EQ(L"13", line[1]) << Narrow(line[0]);
  }
  wchar_t version[64] = {};
  EXPECT_TRUE(SetupGetLineTextW(nullptr, inf, L"Version", L"DriverVer", version, 64, nullptr));
  EXPECT_NE(std::wstring::npos, std::wstring(version).find(L"," WQ_WIDE(WQ_VERSION_TEXT))) << Narrow(version);
  SetupCloseInfFile(inf);
}

}  // namespace
