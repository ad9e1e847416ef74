#include "mft_core/transform/PassThroughDeviceMft.h"

namespace mft_core {

HRESULT PassThroughDeviceMft::OnInitializeTransform(IMFAttributes *pAttributes) {
  RETURN_IF_FAILED(DeviceMft::OnInitializeTransform(pAttributes));
  currentTopologies.assign(inputStreams.size(), nullptr);
  for (const auto &inputStream : inputStreams) RETURN_IF_FAILED(CreateOutputStream(inputStream));
  return S_OK;
}

HRESULT PassThroughDeviceMft::BuildTopology(const std::shared_ptr<OutputStream> &outputStream,
                                            IMFMediaType *nextMediaType, std::shared_ptr<Topology> &topology) {
  std::shared_ptr<InputStream> inputStream = inputStreams.at(outputStream->GetID());
  RETURN_HR_IF_NULL(E_UNEXPECTED, inputStream);
  auto topo = std::make_shared<PassThroughTopology>();
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, topo);
  RETURN_IF_FAILED(topo->Init(inputStream, outputStream, nextMediaType));
  topology = topo;
  return S_OK;
}

HRESULT PassThroughDeviceMft::StartOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                                IMFMediaType *nextMediaType) {
  const DWORD topoId = outputStream->GetID();
  if (topoId < currentTopologies.size() && currentTopologies[topoId]) {
    // A running stream restarted with another type: its input stream stops before it starts again.
    RETURN_IF_FAILED(currentTopologies.at(topoId)->Deactivate());
  }
  std::shared_ptr<Topology> topology;
  RETURN_IF_FAILED(BuildTopology(outputStream, nextMediaType, topology));
  RETURN_IF_FAILED(outputStream->SetCurrentMediaType(nextMediaType));
  RETURN_IF_FAILED(outputStream->SetState(DeviceStreamState_Run));
  currentTopologies.at(topoId) = topology;
  RETURN_IF_FAILED(currentTopologies.at(topoId)->Activate());
  return S_OK;
}

HRESULT PassThroughDeviceMft::StopOutputStream(const std::shared_ptr<OutputStream> &outputStream,
                                               IMFMediaType *nextMediaType) {
  RETURN_IF_FAILED(outputStream->SetState(DeviceStreamState_Stop));
  RETURN_IF_FAILED(outputStream->SetCurrentMediaType(nextMediaType));
  const DWORD topoId = outputStream->GetID();
  std::shared_ptr<Topology> &topology = currentTopologies.at(topoId);
  if (topology) {
    // Stopped either way: a topology that fails to deactivate is dropped all the same.
    LOG_IF_FAILED(topology->Deactivate());
    topology.reset();
  }
  return S_OK;
}

HRESULT PassThroughDeviceMft::UninitializeMembers() {
  RETURN_IF_FAILED(DeviceMft::UninitializeMembers());
  // No frame server answers state requests any more: topologies are released, not deactivated.
  for (auto &topology : currentTopologies) topology.reset();
  return S_OK;
}

}  // namespace mft_core
