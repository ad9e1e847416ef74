#include "sim/RecordedCameraFilter.h"

#include <cstring>

#include "device_events/Timeline.h"
#include "mft_core/recorder/MfValues.h"

using Microsoft::WRL::ComPtr;
using device_events::Record;
using device_events::Value;
using device_events::ValueTag;

namespace sim {

namespace {

constexpr HRESULT kNotRecorded = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
constexpr size_t kFlagsOffset = 20;  // of Flags in a KS identifier
constexpr uint64_t kNoCall = RecordedCameraFilter::kNoCall;
// The recorded return of the call this thread is replaying (kNoCall: none, e.g. a work-queue thread).
thread_local uint64_t callExitOffset = kNoCall;
thread_local uint32_t callThread = 0;  // the recorded thread of that call

uint32_t U32(const Record &record, size_t index, bool &ok) {
  ok = ok && index < record.values.size() && record.values[index].tag == ValueTag::U32;
  return ok ? static_cast<uint32_t>(record.values[index].number) : 0;
}

std::string IdentifierText(uint32_t kind, const void *identifier, ULONG length) {
  if (identifier == nullptr) return "disable-event request";
  const device_events::Names names;
  return names.KsIdentifierName(static_cast<device_events::KsKind>(kind),
                                std::string(static_cast<const char *>(identifier), length));
}

}  // namespace

HRESULT RecordedCameraFilter::Create(const Record &filter, std::vector<Record> driverRequests,
                                     ComPtr<RecordedCameraFilter> &created) {
  ComPtr<RecordedCameraFilter> result = user_space_frameworks::MakeComObject<RecordedCameraFilter>();
  if (!result) return E_OUTOFMEMORY;
  // input count, output count, identifiers' result, per stream: id, attributes, type count, types; nodes.
  bool ok = true;
  result->inputCount = U32(filter, 0, ok);
  const uint32_t outputs = U32(filter, 1, ok);
  result->idsResult = static_cast<HRESULT>(U32(filter, 2, ok));
  size_t at = 3;
  for (uint32_t s = 0; ok && s < outputs; ++s) {
    Stream stream;
    stream.id = U32(filter, at, ok);
    if (!ok || at + 2 >= filter.values.size()) return E_INVALIDARG;
    stream.attributes = filter.values[at + 1];
    const uint32_t types = U32(filter, at + 2, ok);
    if (!ok || at + 3 + types > filter.values.size()) return E_INVALIDARG;
    for (uint32_t t = 0; t < types; ++t) stream.types.push_back(filter.values[at + 3 + t]);
    result->streams.push_back(std::move(stream));
    at += 3 + types;
  }
  if (!ok) return E_INVALIDARG;
  if (at < filter.values.size() && filter.values[at].tag == ValueTag::U32) {
    result->hasTopology = true;
    const uint64_t nodes = filter.values[at].number;
    for (uint64_t n = 0; n < nodes && at + 1 + n < filter.values.size(); ++n) {
      result->nodes.push_back(mft_core::FromRecorded(filter.values[at + 1 + n].guid));
    }
  }
  result->requests = std::move(driverRequests);
  result->used.assign(result->requests.size(), false);
  created = result;
  return S_OK;
}

RecordedCameraFilter::~RecordedCameraFilter() {
  for (auto &subscription : subscriptions) CloseHandle(subscription.event);
}

HRESULT RecordedCameraFilter::CreateFilterAttributes(const Value &recorded, IMFAttributes **attributes) {
  ComPtr<IMFAttributes> result;
  HRESULT hr = mft_core::DecodeAttributes(recorded, &result);
  if (SUCCEEDED(hr)) hr = result->SetUnknown(MF_DEVICEMFT_CONNECTED_FILTER_KSCONTROL, static_cast<IMFTransform *>(this));
  if (SUCCEEDED(hr)) *attributes = result.Detach();
  return hr;
}

bool RecordedCameraFilter::SignalEvent(const GUID &set, ULONG id) {
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto &subscription : subscriptions) {
    if (subscription.set == set && subscription.id == id) return SetEvent(subscription.event) != FALSE;
  }
  return false;
}

std::vector<RecordedCameraFilter::Divergence> RecordedCameraFilter::Divergences() {
  std::lock_guard<std::mutex> lock(mutex);
  return divergences;
}

std::vector<const Record *> RecordedCameraFilter::UnusedRequests() {
  std::lock_guard<std::mutex> lock(mutex);
  std::vector<const Record *> unused;
  for (size_t i = 0; i < requests.size(); ++i) {
    if (!used[i]) unused.push_back(&requests[i]);
  }
  return unused;
}

bool RecordedCameraFilter::Answered(size_t index) {
  std::lock_guard<std::mutex> lock(mutex);
  return index < used.size() && used[index];
}

RecordedCameraFilter::CallScope::CallScope(uint32_t recordedThread, uint64_t exitOffset)
    : previousThread(callThread), previousOffset(callExitOffset) {
  callThread = recordedThread;
  callExitOffset = exitOffset;
}

RecordedCameraFilter::CallScope::~CallScope() {
  callThread = previousThread;
  callExitOffset = previousOffset;
}

STDMETHODIMP RecordedCameraFilter::GetStreamCount(DWORD *pcInputStreams, DWORD *pcOutputStreams) {
  if (pcInputStreams == nullptr || pcOutputStreams == nullptr) return E_POINTER;
  *pcInputStreams = inputCount;
  *pcOutputStreams = static_cast<DWORD>(streams.size());
  return S_OK;
}

STDMETHODIMP RecordedCameraFilter::GetStreamIDs(DWORD, DWORD *, DWORD dwOutputIDArraySize, DWORD *pdwOutputIDs) {
  if (FAILED(idsResult)) return idsResult;
  if (pdwOutputIDs == nullptr) return E_POINTER;
  if (dwOutputIDArraySize < streams.size()) return MF_E_BUFFERTOOSMALL;
  for (size_t i = 0; i < streams.size(); ++i) pdwOutputIDs[i] = streams[i].id;
  return S_OK;
}

STDMETHODIMP RecordedCameraFilter::GetOutputStreamAttributes(DWORD dwOutputStreamID, IMFAttributes **pAttributes) {
  if (pAttributes == nullptr) return E_POINTER;
  for (const auto &stream : streams) {
    if (stream.id != dwOutputStreamID) continue;
    if (stream.attributes.IsNull()) return E_NOTIMPL;
    return mft_core::DecodeAttributes(stream.attributes, pAttributes);
  }
  return MF_E_INVALIDSTREAMNUMBER;
}

STDMETHODIMP RecordedCameraFilter::GetOutputAvailableType(DWORD dwOutputStreamID, DWORD dwTypeIndex,
                                                          IMFMediaType **ppType) {
  if (ppType == nullptr) return E_POINTER;
  for (const auto &stream : streams) {
    if (stream.id != dwOutputStreamID) continue;
    if (dwTypeIndex >= stream.types.size()) return MF_E_NO_MORE_TYPES;
    return mft_core::DecodeMediaType(stream.types[dwTypeIndex], ppType);
  }
  return MF_E_INVALIDSTREAMNUMBER;
}

STDMETHODIMP RecordedCameraFilter::get_NumNodes(DWORD *pdwNumNodes) {
  if (!hasTopology) return E_NOTIMPL;
  if (pdwNumNodes == nullptr) return E_POINTER;
  *pdwNumNodes = static_cast<DWORD>(nodes.size());
  return S_OK;
}

STDMETHODIMP RecordedCameraFilter::get_NodeType(DWORD dwNodeId, GUID *pNodeType) {
  if (pNodeType == nullptr) return E_POINTER;
  if (dwNodeId >= nodes.size()) return E_INVALIDARG;
  *pNodeType = nodes[dwNodeId];
  return S_OK;
}

STDMETHODIMP RecordedCameraFilter::KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                              ULONG ulDataLength, ULONG *pBytesReturned) {
  return Answer(static_cast<uint32_t>(device_events::KsKind::Property), pProperty, ulPropertyLength, pPropertyData,
                ulDataLength, pBytesReturned);
}

STDMETHODIMP RecordedCameraFilter::KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData,
                                            ULONG ulDataLength, ULONG *pBytesReturned) {
  return Answer(static_cast<uint32_t>(device_events::KsKind::Method), pMethod, ulMethodLength, pMethodData,
                ulDataLength, pBytesReturned);
}

STDMETHODIMP RecordedCameraFilter::KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData,
                                           ULONG ulDataLength, ULONG *pBytesReturned) {
  return Answer(static_cast<uint32_t>(device_events::KsKind::Event), pEvent, ulEventLength, pEventData, ulDataLength,
                pBytesReturned);
}

HRESULT RecordedCameraFilter::Answer(uint32_t kind, const void *identifier, ULONG identifierLength, LPVOID data,
                                     ULONG dataLength, ULONG *bytesReturned) {
  std::lock_guard<std::mutex> lock(mutex);
  const std::string identifierBytes =
      identifier != nullptr ? std::string(static_cast<const char *>(identifier), identifierLength) : std::string();
  // The earliest recorded request of the same kind and identifier that has not been answered yet:
  // requests of different threads may come in another order than they were recorded. A replayed call
  // takes first the one its own thread made before the call returned.
  size_t chosen = requests.size();
  for (size_t i = 0; i < requests.size(); ++i) {
    if (used[i]) continue;
    const Record &request = requests[i];
    bool ok = true;
    if (U32(request, 0, ok) != kind || !ok || request.values.size() < 6) continue;
    const Value &recordedIdentifier = request.values[1];
    if (identifier == nullptr ? !recordedIdentifier.IsNull() : recordedIdentifier.bytes != identifierBytes) continue;
    if (chosen == requests.size()) chosen = i;
    if (callExitOffset == kNoCall) break;
    if (request.threadId == callThread && request.offset <= callExitOffset) {
      chosen = i;
      break;
    }
  }
  if (chosen < requests.size()) {
    const size_t i = chosen;
    const Record &request = requests[i];
    used[i] = true;
    if (callExitOffset != kNoCall && request.offset > callExitOffset) {
      divergences.push_back({"driver request " + IdentifierText(kind, identifier, identifierLength) +
                                 " made earlier than recorded: the recording has it at offset " +
                                 std::to_string(request.offset) + ", after the return of the call that made it now",
                             callExitOffset});
    }
    // Data the transform sends must be what it sent when recorded (a GET's buffer is not compared).
    ULONG flags = 0;
    if (identifierBytes.size() >= kFlagsOffset + 4) std::memcpy(&flags, identifierBytes.data() + kFlagsOffset, 4);
    const bool sends = kind == static_cast<uint32_t>(device_events::KsKind::Property) && (flags & KSPROPERTY_TYPE_SET);
    const Value &dataIn = request.values[2];
    if (sends && !dataIn.IsNull() && data != nullptr &&
        (dataIn.bytes.size() != dataLength || std::memcmp(dataIn.bytes.data(), data, dataLength) != 0)) {
      divergences.push_back({"driver request " + IdentifierText(kind, identifier, identifierLength) +
                                 " (recorded at offset " + std::to_string(request.offset) +
                                 ") sent other data than recorded",
                             callExitOffset});
    }
    // Subscriptions keep the transform's event handle, so that recorded driver events can be signalled.
    const bool enable = kind == static_cast<uint32_t>(device_events::KsKind::Event) && identifier != nullptr &&
                        (flags & (KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ONESHOT)) && data != nullptr &&
                        dataLength >= sizeof(KSEVENTDATA);
    const HRESULT result = static_cast<HRESULT>(request.result);
    if (enable && SUCCEEDED(result)) {
      const auto *eventData = static_cast<const KSEVENTDATA *>(data);
      const auto *event = static_cast<const KSEVENT *>(identifier);
      HANDLE duplicate = nullptr;
      if (DuplicateHandle(GetCurrentProcess(), eventData->EventHandle.Event, GetCurrentProcess(), &duplicate, 0, FALSE,
                          DUPLICATE_SAME_ACCESS)) {
        subscriptions.push_back({event->Set, event->Id, duplicate, data});
      }
    }
    if (identifier == nullptr) {
      for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
        if (it->eventData == data) {
          CloseHandle(it->event);
          subscriptions.erase(it);
          break;
        }
      }
    }
    const Value &dataOut = request.values[4];
    if (!dataOut.IsNull() && data != nullptr) {
      std::memcpy(data, dataOut.bytes.data(), std::min<size_t>(dataOut.bytes.size(), dataLength));
    }
    if (bytesReturned != nullptr && request.values[5].tag == ValueTag::U32) {
      *bytesReturned = static_cast<ULONG>(request.values[5].number);
    }
    return result;
  }
  divergences.push_back(
      {"the transform made a driver request the recording does not have: " + IdentifierText(kind, identifier, identifierLength),
       callExitOffset});
  return kNotRecorded;
}

}  // namespace sim
