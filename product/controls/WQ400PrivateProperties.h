// The product's private KS property set: the interface version and raw firmware commands.
#pragma once

#include "platform/WindowsSdk.h"

namespace mft_core {

// {7DC07391-1BE4-405E-B134-564E6071DFDB}
extern const GUID PROPSETID_WQ400_PRIVATE;

enum KSPROPERTY_WQ400_PRIVATE_ID : ULONG {
  KSPROPERTY_WQ400_API_VERSION_ID = 0,
  KSPROPERTY_WQ400_CONTROL_HW_COMMAND_ID = 1,
};

// Data of property 0.
struct KSPROPERTY_WQ400_API_VERSION {
  ULONG major;
  ULONG minor;
};
static_assert(sizeof(KSPROPERTY_WQ400_API_VERSION) == 8, "api version layout");

// Identifier of property 1: the command travels in the identifier, its data in the data buffer.
#pragma pack(push, 4)
struct KSPROPERTY_WQ400_CONTROL_HW_COMMAND {
  KSPROPERTY property;
  ULONG opCode;
  ULONG param1;
  ULONG param2;
  ULONG param3;
  ULONG param4;
};
#pragma pack(pop)
static_assert(sizeof(KSPROPERTY_WQ400_CONTROL_HW_COMMAND) == 44 &&
                  offsetof(KSPROPERTY_WQ400_CONTROL_HW_COMMAND, opCode) == 24 &&
                  offsetof(KSPROPERTY_WQ400_CONTROL_HW_COMMAND, param4) == 40,
              "hardware command layout");

}  // namespace mft_core
