#include "mft_core/streams/ITopologyNode.h"

#include <algorithm>
#include <stdexcept>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {

HRESULT ITopologyNode::Flush() {
  WQ_TRACE(Verbose, GetTraceName());
  return S_OK;
}

HRESULT ITopologyNode::Propagate(PropagateOrder order, const NodeLambda &lambda) {
  switch (order) {
    case PropagateOrder::CallLambdaAndPropagate:
      RETURN_IF_FAILED(lambda(this));
      for (const auto &node : nextNodes) {
        RETURN_IF_FAILED(node->Propagate(order, lambda));
      }
      return S_OK;
    case PropagateOrder::PropagateAndCallLambda:
      for (const auto &node : nextNodes) {
        RETURN_IF_FAILED(node->Propagate(order, lambda));
      }
      RETURN_IF_FAILED(lambda(this));
      return S_OK;
  }
  throw std::invalid_argument("unsupported order");
}

HRESULT ITopologyNode::Process(IMFSample *sample) {
  // Without observers the caller's reference covers the call: no reference counting per frame.
  if (observerCount.load(std::memory_order_acquire) == 0) return ProcessSample(sample);
  // An observer may let the caller's reference go; keep one for the call.
  Microsoft::WRL::ComPtr<IMFSample> keep(sample);
  NotifyObserversOnSample(sample);
  return ProcessSample(sample);
}

void ITopologyNode::NotifyObserversOnSample(IMFSample *sample) {
  if (observerCount.load(std::memory_order_acquire) == 0) return;
  user_space_frameworks::AutoLock guard(observersLock);
  for (const auto &entry : observers) {
    if (auto observer = entry.lock()) observer->Invoke(sample);
  }
}

void ITopologyNode::RegisterPreProcessObserver(const std::shared_ptr<SampleObserver> &observer) {
  if (!observer) return;
  user_space_frameworks::AutoLock guard(observersLock);
  // Expired entries are dropped here rather than on the frame path.
  observers.erase(std::remove_if(observers.begin(), observers.end(), [](const auto &entry) { return entry.expired(); }),
                  observers.end());
  observers.push_back(observer);
  observerCount.store(observers.size(), std::memory_order_release);
}

void ITopologyNode::UnregisterPreProcessObserver(const std::shared_ptr<SampleObserver> &observer) {
  user_space_frameworks::AutoLock guard(observersLock);
  observers.erase(std::remove_if(observers.begin(), observers.end(),
                                 [&](const auto &entry) {
                                   auto live = entry.lock();
                                   return !live || live == observer;
                                 }),
                  observers.end());
  observerCount.store(observers.size(), std::memory_order_release);
}

void ITopologyNode::AddNextNode(std::shared_ptr<ITopologyNode> node) {
  if (node) nextNodes.push_back(std::move(node));
}

void ITopologyNode::ClearNextNodes() { nextNodes.clear(); }

HRESULT ITopologyNode::PassToNextNodes(IMFSample *sample) {
  for (const auto &node : nextNodes) {
    RETURN_IF_FAILED(node->Process(sample));
  }
  return S_OK;
}

}  // namespace mft_core
