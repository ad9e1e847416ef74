// The first complete device transform: output stream N offers input stream N's types and, once
// started, receives its samples unchanged through a pass-through topology.
#pragma once

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "mft_core/transform/DeviceMft.h"

namespace mft_core {

class PassThroughDeviceMft : public DeviceMft {
 public:
  PassThroughDeviceMft(std::string name, const DeviceExtensionUnits &units, const GUID &transformClass = GUID_NULL)
      : DeviceMft(std::move(name), units, transformClass) {}

 protected:
  ~PassThroughDeviceMft() override = default;

  HRESULT OnInitializeTransform(IMFAttributes *pAttributes) override;
  HRESULT StartOutputStream(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;
  HRESULT StopOutputStream(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType) override;
  HRESULT BuildTopology(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType,
                        std::shared_ptr<Topology> &topology) override;
  HRESULT UninitializeMembers() override;

  // A topology of type `T` from output stream N's input stream N to the output stream, at `nextMediaType`.
  template <typename T>
  HRESULT BuildTopologyOf(const std::shared_ptr<OutputStream> &outputStream, IMFMediaType *nextMediaType,
                          std::shared_ptr<Topology> &topology) {
    std::shared_ptr<InputStream> inputStream = inputStreams.at(outputStream->GetID());
    RETURN_HR_IF_NULL(E_UNEXPECTED, inputStream);
    std::shared_ptr<T> topo(new (std::nothrow) T());
    RETURN_HR_IF_NULL(E_OUTOFMEMORY, topo);
    RETURN_IF_FAILED(topo->Init(inputStream, outputStream, nextMediaType));
    topology = std::move(topo);
    return S_OK;
  }

  // The topology of an output stream, and its replacement (returning the one it replaces). Callers keep
  // their own reference for as long as they use it.
  std::shared_ptr<Topology> GetTopology(DWORD topoId);
  std::shared_ptr<Topology> ExchangeTopology(DWORD topoId, std::shared_ptr<Topology> next);

  // Indexed by output stream identifier; empty while that stream is stopped. Guarded by topologiesLock,
  // which is never held while a topology is activated or deactivated.
  std::vector<std::shared_ptr<Topology>> currentTopologies;
  user_space_frameworks::CriticalSection topologiesLock;
};

}  // namespace mft_core
