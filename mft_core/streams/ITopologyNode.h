// A node of the processing graph that carries samples from an input stream to output streams. Streams
// are nodes too; product nodes (timestamp adjustment, ...) sit between them.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Callback.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

enum class PropagateOrder : int {
  CallLambdaAndPropagate = 0,  // this node first, then the nodes after it
  PropagateAndCallLambda = 1,  // the nodes after it first, then this node
};

// Looks at every sample before a node processes it (the exposure controls).
using SampleObserver = user_space_frameworks::ICallback<IMFSample *, void>;

class ITopologyNode : public virtual user_space_frameworks::Object {
 public:
  using NodeLambda = std::function<HRESULT(ITopologyNode *node)>;

  ITopologyNode() = default;
  ~ITopologyNode() override = default;
  ITopologyNode(const ITopologyNode &) = delete;
  ITopologyNode &operator=(const ITopologyNode &) = delete;

  virtual HRESULT Flush();
  // The node's own work on one sample; a product node forwards to its next nodes with PassToNextNodes.
  virtual HRESULT ProcessSample(IMFSample *sample) = 0;

  // Applies `lambda` to this node and to every node reachable from it, depth first; the first failure
  // ends the walk. Throws std::invalid_argument("unsupported order") for an unknown order.
  HRESULT Propagate(PropagateOrder order, const NodeLambda &lambda);

  // Notifies the pre-process observers, then runs ProcessSample.
  HRESULT Process(IMFSample *sample);
  void NotifyObserversOnSample(IMFSample *sample);

  // The node keeps a weak reference: the registrant owns the observer, and an expired one is skipped.
  // An observer is held at most once: registering it again changes nothing, one unregister removes it.
  void RegisterPreProcessObserver(const std::shared_ptr<SampleObserver> &observer);
  void UnregisterPreProcessObserver(const std::shared_ptr<SampleObserver> &observer);

  // Graph wiring; done while building a topology, before samples flow.
  void AddNextNode(std::shared_ptr<ITopologyNode> node);
  void ClearNextNodes();
  const std::vector<std::shared_ptr<ITopologyNode>> &GetNextNodes() const { return nextNodes; }

 protected:
  // Hands the sample to each next node in order; the first failure is returned.
  HRESULT PassToNextNodes(IMFSample *sample);

 private:
  std::vector<std::shared_ptr<ITopologyNode>> nextNodes;
  user_space_frameworks::CriticalSection observersLock;
  std::vector<std::weak_ptr<SampleObserver>> observers;
  std::atomic<size_t> observerCount{0};  // lets the frame path skip the lock when nobody listens
};

}  // namespace mft_core
