// A set of input-stream chains switched on and off together when an output stream starts or stops.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mft_core/streams/ITopologyNode.h"
#include "mft_core/streams/InputStream.h"
#include "mft_core/streams/OutputStream.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

struct TopologyItem {
  std::shared_ptr<InputStream> inputStream;
  std::shared_ptr<ITopologyNode> firstNode;  // the node the input stream feeds
  Microsoft::WRL::ComPtr<IMFMediaType> mediaType;  // the type the input stream is to run with
};

class Topology : public virtual user_space_frameworks::Object {
 public:
  explicit Topology(std::string name);
  ~Topology() override = default;

  // Connects each chain, then asks the frame server to run its input stream. E_UNEXPECTED if active.
  virtual HRESULT Activate();
  // Stops each input stream, flushes its chain and disconnects it. E_UNEXPECTED if not active.
  virtual HRESULT Deactivate();

  bool IsActive() const { return isActive; }
  const std::list<TopologyItem> &GetItems() const { return items; }
  const std::string &GetName() const { return name; }
  const char *GetTraceName() const override { return name.c_str(); }

 protected:
  void AddItem(std::shared_ptr<InputStream> inputStream, std::shared_ptr<ITopologyNode> firstNode,
               Microsoft::WRL::ComPtr<IMFMediaType> mediaType);

  std::list<TopologyItem> items;
  bool isActive = false;

 private:
  std::string name;
};

// Checks that each input stream lists its media type exactly.
class TopologySettings {
 public:
  void Add(std::shared_ptr<InputStream> inputStream, Microsoft::WRL::ComPtr<IMFMediaType> mediaType);
  HRESULT Validate() const;

 private:
  std::vector<std::pair<std::shared_ptr<InputStream>, Microsoft::WRL::ComPtr<IMFMediaType>>> entries;
};

// One input stream wired straight to one output stream.
class PassThroughTopology : public Topology {
 public:
  PassThroughTopology() : Topology("Pass Through Topology") {}

  // E_INVALIDARG unless the input stream lists `mediaType` exactly.
  HRESULT Init(std::shared_ptr<InputStream> inputStream, std::shared_ptr<OutputStream> outputStream,
               IMFMediaType *mediaType);
};

}  // namespace mft_core
