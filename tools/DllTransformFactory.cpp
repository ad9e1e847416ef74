#include "tools/DllTransformFactory.h"

#include <cstdio>

using Microsoft::WRL::ComPtr;

namespace tools {

namespace {

std::string Narrow(const std::wstring &text) {
  std::string narrow;
  for (wchar_t c : text) narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  return narrow;
}

bool FileExists(const std::wstring &path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

}  // namespace

DllTransformFactory::DllTransformFactory(std::wstring modulePath) : modulePath(std::move(modulePath)) {}

DllTransformFactory::~DllTransformFactory() {
  // Transforms made here are gone by now; the module says whether it may go too.
  if (module != nullptr) FreeLibrary(module);
}

bool DllTransformFactory::Load() {
  if (getClassObject != nullptr) return true;
  module = LoadLibraryW(modulePath.c_str());
  if (module == nullptr) {
    error = "cannot load " + Narrow(modulePath) + " (error " + std::to_string(GetLastError()) + ")";
    return false;
  }
  getClassObject = reinterpret_cast<GetClassObject>(reinterpret_cast<void *>(GetProcAddress(module, "DllGetClassObject")));
  if (getClassObject == nullptr) {
    error = Narrow(modulePath) + " exports no DllGetClassObject";
    return false;
  }
  wchar_t fullPath[MAX_PATH] = {};
  GetModuleFileNameW(module, fullPath, MAX_PATH);
  description = Narrow(fullPath);
  return true;
}

namespace {

const struct {
  const char *camera;
  const char *transform;
  GUID clsid;
} kClasses[] = {
    {"depth", "WQ400 Depth Device MFT", {0xE365CD7E, 0xB3A0, 0x47B2, {0xAA, 0x49, 0xE0, 0x45, 0xAA, 0x4E, 0x77, 0xBF}}},
    {"color", "WQ400 Color Device MFT", {0x5B45BF9D, 0xC4BF, 0x4F8B, {0x81, 0xC8, 0x40, 0x7A, 0xBF, 0xAA, 0xAE, 0xA8}}},
    {"fisheye", "WQ400 FishEye Device MFT", {0x42547A62, 0x2335, 0x4325, {0x83, 0xA3, 0x21, 0x7D, 0x4F, 0x96, 0x59, 0x4D}}},
};

// The class of the entry whose camera name (or transform name) is `name`.
bool FindClass(const std::string &name, bool byTransformName, GUID &clsid) {
  for (const auto &entry : kClasses) {
    if (name == (byTransformName ? entry.transform : entry.camera)) {
      clsid = entry.clsid;
      return true;
    }
  }
  return false;
}

}  // namespace

bool DllTransformFactory::ClassOf(const std::string &cameraName, GUID &clsid) {
  return FindClass(cameraName, false, clsid);
}

bool DllTransformFactory::ClassOfTransform(const std::string &transformName, GUID &clsid) {
  return FindClass(transformName, true, clsid);
}

bool DllTransformFactory::ClassOfRecording(const GUID &recordedClass, const std::string &transformName, GUID &clsid) {
  if (recordedClass == GUID_NULL) return ClassOfTransform(transformName, clsid);
  clsid = recordedClass;
  return true;
}

HRESULT DllTransformFactory::CreateTransform(const sim::CameraConfig &camera, IMFDeviceTransform **transform) {
  if (transform == nullptr) return E_POINTER;
  *transform = nullptr;
  GUID clsid = GUID_NULL;
  if (!ClassOf(camera.name, clsid)) return CLASS_E_CLASSNOTAVAILABLE;
  return CreateClass(clsid, transform);
}

HRESULT DllTransformFactory::CreateClass(REFCLSID clsid, IMFDeviceTransform **transform) {
  if (transform == nullptr) return E_POINTER;
  *transform = nullptr;
  if (getClassObject == nullptr) return E_UNEXPECTED;
  ComPtr<IClassFactory> factory;
  HRESULT hr = getClassObject(clsid, IID_PPV_ARGS(&factory));
  if (FAILED(hr)) return hr;
  return factory->CreateInstance(nullptr, IID_PPV_ARGS(transform));
}

std::wstring DllTransformFactory::DefaultModulePath() {
  wchar_t program[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  std::wstring folder(program);
  folder = folder.substr(0, folder.find_last_of(L"\\/") + 1);
  const std::wstring beside = folder + L"WQ400DeviceMft.dll";
  if (FileExists(beside)) return beside;
  return folder + L"..\\module\\WQ400DeviceMft.dll";
}

}  // namespace tools
