// Creates the session's transform the way the frame server does: the built DLL loaded by path, its
// class object asked for the camera's class, and IClassFactory::CreateInstance.
#pragma once

#include <string>

#include "sim/Session.h"

namespace tools {

class DllTransformFactory : public sim::ITransformFactory {
 public:
  explicit DllTransformFactory(std::wstring modulePath);
  ~DllTransformFactory() override;
  DllTransformFactory(const DllTransformFactory &) = delete;
  DllTransformFactory &operator=(const DllTransformFactory &) = delete;

  // LoadLibraryW, once; false (with the reason in Error()) when the DLL is missing or has no class object.
  bool Load();
  const std::string &Error() const { return error; }

  HRESULT CreateTransform(const sim::CameraConfig &camera, IMFDeviceTransform **transform) override;
  // The transform of class `clsid`, through the module's class object and IClassFactory.
  HRESULT CreateClass(REFCLSID clsid, IMFDeviceTransform **transform);
  std::string Describe() const override { return description; }

  // The class identifier of the transform for a simulated camera ("depth", "color", "fisheye").
  static bool ClassOf(const std::string &cameraName, GUID &clsid);
  // The class identifier of a transform by its friendly name ("WQ400 Depth Device MFT").
  static bool ClassOfTransform(const std::string &transformName, GUID &clsid);
  // The class a recording names: its recorded class, or when that is empty its transform name's.
  static bool ClassOfRecording(const GUID &recordedClass, const std::string &transformName, GUID &clsid);
  // Beside the program, or in the build tree's module folder.
  static std::wstring DefaultModulePath();

 private:
  using GetClassObject = HRESULT(WINAPI *)(REFCLSID, REFIID, LPVOID *);
  std::wstring modulePath;
  HMODULE module = nullptr;
  GetClassObject getClassObject = nullptr;
  std::string error;
  std::string description = "WQ400DeviceMft.dll";
};

}  // namespace tools
