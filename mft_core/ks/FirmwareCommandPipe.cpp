#include "mft_core/ks/FirmwareCommandPipe.h"

#include <cstring>
#include <stdexcept>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

FirmwareCommandBuffer MakeCommand(uint32_t opcode, size_t dataLength, uint32_t param1, uint32_t param2,
                                  uint32_t param3, uint32_t param4) {
  FirmwareCommandBuffer command = {};
  command.length = static_cast<uint16_t>(FirmwareCommandBuffer::kHeaderAfterLength + dataLength);
  command.magic = FirmwareCommandBuffer::kMagic;
  command.opcode = opcode;
  command.param1 = param1;
  command.param2 = param2;
  command.param3 = param3;
  command.param4 = param4;
  return command;
}

uint32_t EchoedOpcode(const BYTE *reply) {
  uint32_t opcode;
  std::memcpy(&opcode, reply, sizeof(opcode));
  return opcode;
}

}  // namespace

FirmwareCommandPipe::FirmwareCommandPipe(const Microsoft::WRL::ComPtr<IKsControl> &ksControl, const GUID &set,
                                         ULONG id, const std::string &name)
    : name(name + " firmware command"), uvcCommand(ksControl, set, id, name) {}

HRESULT FirmwareCommandPipe::Set(uint32_t opcode, const BYTE *data, size_t dataLength, uint32_t param1,
                                 uint32_t param2, uint32_t param3, uint32_t param4) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock lock(commandLock);
  if (data != nullptr && dataLength != 0 && dataLength > FirmwareCommandBuffer::kMaxData) {
    throw std::invalid_argument("failed to copy data");
  }
  FirmwareCommandBuffer writeBuffer = MakeCommand(opcode, dataLength, param1, param2, param3, param4);
  if (data != nullptr && dataLength != 0) std::memcpy(writeBuffer.data, data, dataLength);

  RETURN_IF_FAILED(uvcCommand.Set(writeBuffer));
  BYTE readBuffer[kReplySize] = {};
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(uvcCommand.Get(readBuffer, bytesReturned));
  if (bytesReturned < kOpcodeEchoSize) {
    WQ_TRACE(Error, name << ": reply of " << bytesReturned << " bytes, expected at least " << kOpcodeEchoSize);
    return E_FAIL;
  }
  const uint32_t echoed = EchoedOpcode(readBuffer);
  if (echoed != opcode) {
    WQ_TRACE(Error, name << ": reply opcode 0x" << std::hex << echoed << " to command 0x" << opcode);
    return E_FAIL;
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT FirmwareCommandPipe::Get(BYTE *readData, uint32_t opcode, size_t readLength, uint32_t param1,
                                 uint32_t param2, uint32_t param3, uint32_t param4) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock lock(commandLock);
  if (readLength > kMaxReadLength) {
    WQ_TRACE(Error, name << ": read length " << readLength << " above " << kMaxReadLength);
    return E_INVALIDARG;
  }
  const FirmwareCommandBuffer writeBuffer = MakeCommand(opcode, 0, param1, param2, param3, param4);
  RETURN_IF_FAILED(uvcCommand.Set(writeBuffer));
  BYTE readBuffer[kReplySize] = {};
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(uvcCommand.Get(readBuffer, bytesReturned));
  if (bytesReturned < readLength + kOpcodeEchoSize) {
    WQ_TRACE(Error, name << ": reply of " << bytesReturned << " bytes, expected " << readLength + kOpcodeEchoSize);
    return E_FAIL;
  }
  const uint32_t echoed = EchoedOpcode(readBuffer);
  if (echoed != opcode) {
    WQ_TRACE(Error, name << ": reply opcode 0x" << std::hex << echoed << " to command 0x" << opcode);
    return E_FAIL;
  }
  if (readLength == 0) return S_OK;
  RETURN_HR_IF_NULL(E_FAIL, readData);
  std::memcpy(readData, readBuffer + kOpcodeEchoSize, readLength);
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
