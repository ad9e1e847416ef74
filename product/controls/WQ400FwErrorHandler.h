// Turns the camera's firmware error notifications into thermal-state media events: on each auto-update
// event the camera signals, reads the one-byte error code from the device extension unit and, for the
// two laser over-temperature codes, queues MEDeviceThermalStateChanged on the transform's event queue.
#pragma once

#include <cstdint>
#include <string>

#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/ks/KsEventListener.h"
#include "mft_core/transform/MediaEventGenerator.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

class WQ400FwErrorHandler : public KsEventsObserver, public virtual user_space_frameworks::Object {
 public:
  enum ErrorCode : uint8_t {
    etXuErrSuccess = 0,
    etXuErrHotLaserPwrReduce = 1,
    etXuErrHotLaserDisable = 2,
    etXuErrFlagBLaserDisable = 3,
  };
  static const char *ErrorName(uint8_t code);

  // `eventQueue` is not owned: the transform that owns this handler outlives it.
  WQ400FwErrorHandler(const std::string &namePrefix, Microsoft::WRL::ComPtr<ExtensionUnitKsControl> xuKsControl,
                      ULONG errorPropertyId, MediaEventGenerator *eventQueue);

  const char *GetTraceName() const override { return name.c_str(); }

  // Runs on the listener's work-queue thread, outside the listener's lock.
  void OnEvent(REFGUID eventSet, ULONG eventId) override;
  void ProcessError(uint8_t code);
  void NotifyHighTemperature(uint8_t code);

 private:
  std::string name;
  Microsoft::WRL::ComPtr<ExtensionUnitKsControl> xuKsControl;
  ULONG errorPropertyId;
  MediaEventGenerator *eventQueue;
};

}  // namespace mft_core
