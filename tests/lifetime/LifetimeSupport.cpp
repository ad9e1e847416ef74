#include "lifetime/LifetimeSupport.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/BuiltModule.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;

namespace lifetime {

const std::vector<Subject> &Subjects() {
  static const std::vector<Subject> subjects = {
      {"depth", sim::DepthCamera, 424, 240, sim::CameraKind::Depth},
      {"color", sim::ColorCamera, 424, 240, sim::CameraKind::Color},
      {"fisheye", sim::FisheyeCamera, 640, 480, sim::CameraKind::FishEye}};
  return subjects;
}

std::string SubjectName(const Subject &subject) { return subject.name; }

ComPtr<IMFDeviceTransform> CreateThroughDll(const Subject &subject) {
  ComPtr<IMFDeviceTransform> transform;
  const HRESULT hr = test_module::KeptModule().CreateTransform(subject.camera(), transform.GetAddressOf());
  if (FAILED(hr)) transform.Reset();
  return transform;
}

uint64_t Scaled(uint64_t count) {
  const char *scale = std::getenv("WQ400_LIFETIME_SCALE");
  const uint64_t factor = scale != nullptr ? std::strtoull(scale, nullptr, 10) : 1;
  return count * (factor == 0 ? 1 : factor);
}

namespace {

// Signals each completion of the wait, which is how a cancellation is seen where the platform invokes it.
class WaitCompletion : public user_space_frameworks::ComObject<IMFAsyncCallback> {
 public:
  WaitCompletion() : done(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
  ~WaitCompletion() override { CloseHandle(done); }
  STDMETHODIMP GetParameters(DWORD *flags, DWORD *queue) override {
    *flags = 0;
    *queue = MFASYNC_CALLBACK_QUEUE_MULTITHREADED;
    return S_OK;
  }
  STDMETHODIMP Invoke(IMFAsyncResult *) override {
    SetEvent(done);
    return S_OK;
  }
  HANDLE done;
};

}  // namespace

int64_t PlatformGrowthOfCancelledWaits(uint64_t pairs) {
  auto callback = user_space_frameworks::MakeComObject<WaitCompletion>();
  HANDLE never = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  auto pair = [&] {
    ComPtr<IMFAsyncResult> result;
    MFWORKITEM_KEY key = 0;
    if (FAILED(MFCreateAsyncResult(nullptr, callback.Get(), nullptr, result.GetAddressOf())) ||
        FAILED(MFPutWaitingWorkItem(never, 0, result.Get(), &key))) {
      return;
    }
    MFCancelWorkItem(key);
    // Where cancelling does not invoke the callback, the short wait runs out instead.
    WaitForSingleObject(callback->done, 100);
  };
  for (int i = 0; i < 200; ++i) pair();  // the queue's threads and first pages
  const uint64_t before = tools::PrivateBytes();
  for (uint64_t i = 0; i < pairs; ++i) pair();
  const uint64_t after = tools::PrivateBytes();
  CloseHandle(never);
  return static_cast<int64_t>(after) - static_cast<int64_t>(before);
}

ComPtr<IMFMediaType> OutputType(IMFDeviceTransform *transform, DWORD streamId, UINT32 width, UINT32 height,
                                UINT32 fps) {
  for (DWORD index = 0;; ++index) {
    ComPtr<IMFMediaType> type;
    if (FAILED(transform->GetOutputAvailableType(streamId, index, type.GetAddressOf()))) return nullptr;
    if (fps == 0) return type;
    UINT32 w = 0, h = 0, numerator = 0, denominator = 0;
    MFGetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, &w, &h);
    MFGetAttributeRatio(type.Get(), MF_MT_FRAME_RATE, &numerator, &denominator);
    if (w == width && h == height && denominator != 0 && numerator == fps * denominator) return type;
  }
}

}  // namespace lifetime
