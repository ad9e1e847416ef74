#include "mft_core/ks/UvcCommand.h"

#include <utility>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

UvcCommand::UvcCommand(const Microsoft::WRL::ComPtr<IKsControl> &ksControl, const GUID &set, ULONG id,
                       std::string name)
    : name(std::move(name)), ksControl(ksControl), set(set), id(id) {}

HRESULT UvcCommand::Get(void *buffer, size_t length, ULONG &bytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(ksControl);
  KSPROPERTY property = {};
  property.Set = set;
  property.Id = id;
  property.Flags = KSPROPERTY_TYPE_GET;
  RETURN_IF_FAILED(ksControl->KsProperty(&property, sizeof(property), (LPVOID)buffer, static_cast<ULONG>(length), &bytesReturned));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT UvcCommand::Set(const void *buffer, size_t length) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(ksControl);
  KSPROPERTY property = {};
  property.Set = set;
  property.Id = id;
  property.Flags = KSPROPERTY_TYPE_SET;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(ksControl->KsProperty(&property, sizeof(property), (LPVOID)buffer, static_cast<ULONG>(length), &bytesReturned));
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
