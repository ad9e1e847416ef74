// The depth transform made by the built DLL as the frame server makes it (LoadLibraryW, its class
// object, IClassFactory), running 848x480 at 30 fps over the simulated depth camera.
#pragma once

#include <cstdio>

#include "bench/RunningTransform.h"
#include "tools/DllTransformFactory.h"

namespace bench {

// Loads the module once; false (with the reason printed) when it cannot.
inline bool LoadDepthProduct(tools::DllTransformFactory &factory) {
  if (factory.Load()) return true;
  std::fprintf(stderr, "%s\n", factory.Error().c_str());
  return false;
}

inline HRESULT StartDepthProduct(tools::DllTransformFactory &factory, RunningTransform &running) {
  Microsoft::WRL::ComPtr<IMFDeviceTransform> device;
  const HRESULT hr = factory.CreateTransform(sim::DepthCamera(), &device);
  return FAILED(hr) ? hr : running.Start(sim::DepthCamera(), device, 848, 480, 30);
}

}  // namespace bench
