#include "mft_core/transform/PassThroughDeviceMft.h"

#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

HRESULT PassThroughDeviceMft::OnInitializeTransform(IMFAttributes *pAttributes) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(DeviceMft::OnInitializeTransform(pAttributes));
  {
    user_space_frameworks::AutoLock lock(topologiesLock);
    currentTopologies.assign(inputStreams.size(), nullptr);
  }
  for (const auto &inputStream : inputStreams) RETURN_IF_FAILED(CreateOutputStream(inputStream));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT PassThroughDeviceMft::BuildTopology(const std::shared_ptr<OutputStream> &outputStream,
                                            IMFMediaType *nextMediaType, std::shared_ptr<Topology> &topology) {
  WQ_SCOPE_BEGIN(HRESULT);
  return BuildTopologyOf<PassThroughTopology>(outputStream, nextMediaType, topology);
  WQ_SCOPE_END;
}

HRESULT PassThroughDeviceMft::StartOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                                IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  const DWORD topoId = outputStream->GetID();
  // Each call works on its own reference: the slot may change while a topology waits for the frame
  // server, and the slot's lock is never held across that wait.
  if (const std::shared_ptr<Topology> previous = GetTopology(topoId)) {
    // A running stream restarted with another type: its input stream stops before it starts again.
    RETURN_IF_FAILED(previous->Deactivate());
  }
  std::shared_ptr<Topology> topology;
  RETURN_IF_FAILED(BuildTopology(outputStream, nextMediaType, topology));
  RETURN_IF_FAILED(outputStream->SetCurrentMediaType(nextMediaType));
  RETURN_IF_FAILED(outputStream->SetState(DeviceStreamState_Run));
  ExchangeTopology(topoId, topology);
  RETURN_IF_FAILED(topology->Activate());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT PassThroughDeviceMft::StopOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                               IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(outputStream->SetState(DeviceStreamState_Stop));
  RETURN_IF_FAILED(outputStream->SetCurrentMediaType(nextMediaType));
  const std::shared_ptr<Topology> topology = ExchangeTopology(outputStream->GetID(), nullptr);
  if (topology) {
    // Stopped either way: a topology that fails to deactivate is dropped all the same.
    LOG_IF_FAILED(topology->Deactivate());
  }
  return S_OK;
  WQ_SCOPE_END;
}

std::shared_ptr<Topology> PassThroughDeviceMft::GetTopology(DWORD topoId) {
  WQ_SCOPE();
  user_space_frameworks::AutoLock lock(topologiesLock);
  // An identifier past the end has none; storing one there throws std::out_of_range instead.
  return topoId < currentTopologies.size() ? currentTopologies[topoId] : nullptr;
}

std::shared_ptr<Topology> PassThroughDeviceMft::ExchangeTopology(DWORD topoId, std::shared_ptr<Topology> next) {
  WQ_SCOPE();
  user_space_frameworks::AutoLock lock(topologiesLock);
  std::shared_ptr<Topology> &slot = currentTopologies.at(topoId);
  slot.swap(next);
  return next;
}

HRESULT PassThroughDeviceMft::UninitializeMembers() {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(DeviceMft::UninitializeMembers());
  // No frame server answers state requests any more: topologies are released, not deactivated.
  std::vector<std::shared_ptr<Topology>> released;
  {
    user_space_frameworks::AutoLock lock(topologiesLock);
    for (auto &topology : currentTopologies) released.push_back(std::move(topology));
  }
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
