#include "mft_core/streams/ITopologyNode.h"

#include <algorithm>
#include <stdexcept>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

HRESULT ITopologyNode::Flush() {
  WQ_SCOPE_BEGIN(HRESULT);
  WQ_TRACE(Verbose, GetTraceName());
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT ITopologyNode::Propagate(PropagateOrder order, const NodeLambda &lambda) {
  WQ_SCOPE_BEGIN(HRESULT);
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
  WQ_SCOPE_END;
}

HRESULT ITopologyNode::Process(IMFSample *sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  // Without observers the caller's reference covers the call: no reference counting per frame.
  if (observerCount.load(std::memory_order_acquire) == 0) return ProcessSample(sample);
  // An observer may let the caller's reference go; keep one for the call.
  Microsoft::WRL::ComPtr<IMFSample> keep(sample);
  NotifyObserversOnSample(sample);
  return ProcessSample(sample);
  WQ_SCOPE_END;
}

void ITopologyNode::NotifyObserversOnSample(IMFSample *sample) {
  WQ_SCOPE();
  if (observerCount.load(std::memory_order_acquire) == 0) return;
  user_space_frameworks::AutoLock guard(observersLock);
  for (const auto &entry : observers) {
    if (auto observer = entry.lock()) observer->Invoke(sample);
  }
}

void ITopologyNode::RegisterPreProcessObserver(const std::shared_ptr<SampleObserver> &observer) {
  WQ_SCOPE();
  if (!observer) return;
  user_space_frameworks::AutoLock guard(observersLock);
  // Expired entries are dropped here rather than on the frame path.
  observers.erase(std::remove_if(observers.begin(), observers.end(), [](const auto &entry) { return entry.expired(); }),
                  observers.end());
  // Held at most once: a second registration would show the observer every frame twice.
  for (const auto &entry : observers) {
    if (entry.lock() == observer) return;
  }
  observers.push_back(observer);
  observerCount.store(observers.size(), std::memory_order_release);
}

void ITopologyNode::UnregisterPreProcessObserver(const std::shared_ptr<SampleObserver> &observer) {
  WQ_SCOPE();
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
  WQ_SCOPE();
  if (node) nextNodes.push_back(std::move(node));
}

void ITopologyNode::ClearNextNodes() { nextNodes.clear(); }

HRESULT ITopologyNode::PassToNextNodes(IMFSample *sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  for (const auto &node : nextNodes) {
    RETURN_IF_FAILED(node->Process(sample));
  }
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
