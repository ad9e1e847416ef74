// Request/reply channel to the camera firmware over one extension-unit property: a command is written
// as a fixed 1024-byte buffer (header, opcode, four parameters, data) and the reply is read back from
// the same property, starting with the echoed opcode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "mft_core/ks/UvcCommand.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

class IFirmwareCommandPipe {
 public:
  // Sends a command with up to 1000 data bytes and checks that the firmware echoes the opcode.
  virtual HRESULT Set(uint32_t opcode, const BYTE *data, size_t dataLength, uint32_t param1, uint32_t param2,
                      uint32_t param3, uint32_t param4) = 0;
  // Sends a command without data and copies `readLength` (at most 1020) reply bytes into `readBuffer`.
  virtual HRESULT Get(BYTE *readBuffer, uint32_t opcode, size_t readLength, uint32_t param1, uint32_t param2,
                      uint32_t param3, uint32_t param4) = 0;
  virtual ~IFirmwareCommandPipe() = default;
};

#pragma pack(push, 1)
// The command as it travels, little-endian.
struct FirmwareCommandBuffer {
  static constexpr uint16_t kMagic = 0xCDAB;
  static constexpr size_t kHeaderAfterLength = 20;  // magic, opcode and parameters
  static constexpr size_t kMaxData = 1000;
  static constexpr size_t kWireSize = 1024;

  uint16_t length;  // everything after the first 4 bytes: 20 plus the data bytes
  uint16_t magic;
  uint32_t opcode;
  uint32_t param1;
  uint32_t param2;
  uint32_t param3;
  uint32_t param4;
  BYTE data[kMaxData];

  // The command's bytes including its header.
  size_t Size() const { return static_cast<size_t>(length) + 4; }
};
#pragma pack(pop)
static_assert(sizeof(FirmwareCommandBuffer) == FirmwareCommandBuffer::kWireSize, "firmware command layout");

class FirmwareCommandPipe : public IFirmwareCommandPipe, public user_space_frameworks::Object {
 public:
  static constexpr size_t kReplySize = 1024;
  static constexpr size_t kOpcodeEchoSize = 4;
  static constexpr size_t kMaxReadLength = kReplySize - kOpcodeEchoSize;

  FirmwareCommandPipe(const Microsoft::WRL::ComPtr<IKsControl> &ksControl, const GUID &set, ULONG id,
                      const std::string &name);

  HRESULT Set(uint32_t opcode, const BYTE *data, size_t dataLength, uint32_t param1, uint32_t param2,
              uint32_t param3, uint32_t param4) override;
  HRESULT Get(BYTE *readData, uint32_t opcode, size_t readLength, uint32_t param1, uint32_t param2,
              uint32_t param3, uint32_t param4) override;

  const char *GetTraceName() const override { return name.c_str(); }

 private:
  std::string name;
  UvcCommand uvcCommand;
  user_space_frameworks::CriticalSection commandLock;
};

}  // namespace mft_core
