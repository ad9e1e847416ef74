// Each camera transform, created through the DLL, fed frames whose capture metadata is mutated (bytes
// flipped, item sizes and ids rewritten, buffers cut short, padded, replaced by noise or missing) as
// fast as it takes them on a running stream. The metadata ends at a guard page: reading past it faults. Every delivered sample carries, for each record the
// transform publishes, exactly what an independent reading of the bytes the camera sent for that frame
// finds there, or nothing; never another frame's record, never a record the bytes do not hold.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "common/CaptureMetadataSamples.h"
#include "robustness/RobustnessSupport.h"
#include "sim/FrameServerHost.h"

using Microsoft::WRL::ComPtr;

namespace robustness {
namespace {

// Offsets of the item heads a walk from byte 40 meets before anything ends it.
std::vector<size_t> ItemHeads(const std::vector<uint8_t> &raw) {
  std::vector<size_t> heads;
  size_t at = 40;
  while (at + 8 <= raw.size()) {
    uint32_t size = 0;
    std::memcpy(&size, &raw[at + 4], sizeof(size));
    if (size < 8 || size > raw.size() - at) break;
    heads.push_back(at);
    at += size;
  }
  return heads;
}

// One to four mutations of a well-formed frame, or none for about a third of the frames (so that
// records, sticky ones among them, keep arriving intact between spoiled frames).
void Mutate(std::mt19937 &random, std::vector<uint8_t> &raw) {
  if (random() % 3 == 0) return;
  for (int m = 1 + static_cast<int>(random() % 4); m > 0; --m) {
    const std::vector<size_t> heads = ItemHeads(raw);
    const size_t head = heads.empty() ? 0 : heads[random() % heads.size()];
    switch (random() % 9) {
      case 0:
        if (!raw.empty()) raw[random() % raw.size()] = static_cast<uint8_t>(random());
        break;
      case 1: {  // an item's size: zero, a few bytes off, past the end, or anything
        if (heads.empty()) break;
        uint32_t size = 0;
        std::memcpy(&size, &raw[head + 4], sizeof(size));
        static const uint32_t kSizes[] = {0, 1, 7, 8, 0xFFFFFFFF, 0x80000000};
        switch (random() % 4) {
          case 0: size = kSizes[random() % std::size(kSizes)]; break;
          case 1: size += static_cast<uint32_t>(static_cast<int>(random() % 9) - 4); break;
          case 2: size = static_cast<uint32_t>(raw.size() - head + 1 + random() % 64); break;
          default: size = static_cast<uint32_t>(random()); break;
        }
        std::memcpy(&raw[head + 4], &size, sizeof(size));
        break;
      }
      case 2: {  // an item's id: another record's, or anything
        if (heads.empty()) break;
        static const uint32_t kIds[] = {2, 4, 5, 0x80000000, 0x80000001, 0x80000002, 0x80000003,
                                        0x80000004, 0x80000005, 0x80000007};
        const uint32_t id = random() % 2 ? kIds[random() % std::size(kIds)] : static_cast<uint32_t>(random());
        std::memcpy(&raw[head], &id, sizeof(id));
        break;
      }
      case 3:
        if (!raw.empty()) raw.resize(random() % raw.size());
        break;
      case 4:
        raw.resize(raw.size() + 1 + random() % 24, static_cast<uint8_t>(random()));
        break;
      case 5: {  // the first item's id (the USB video header must come first)
        if (raw.size() < 4) break;
        const uint32_t id = random() % 3;
        std::memcpy(raw.data(), &id, sizeof(id));
        break;
      }
      case 6: {  // noise of any length
        raw.resize(random() % 400);
        for (auto &byte : raw) byte = static_cast<uint8_t>(random());
        if (raw.size() >= 4 && random() % 2) raw[0] = 2, raw[1] = raw[2] = raw[3] = 0;
        break;
      }
      case 7:
        raw.clear();
        break;
      default:  // cut in the middle of an item head
        if (!heads.empty()) raw.resize(head + random() % 8);
        break;
    }
  }
}

struct Comparison {
  uint64_t delivered = 0;
  uint64_t unknown = 0;           // delivered samples the test did not send
  uint64_t mismatched = 0;        // a record that differs from, or is not in, the bytes sent
  uint64_t withheld = 0;          // records the bytes held that the sample went without
  uint64_t recordsDelivered = 0;  // records delivered intact
  std::string firstMismatch;
};

// Holds a delivered sample against what the reading of its frame's bytes expected.
void Compare(IMFSample *sample, const std::vector<GUID> &keys, const std::vector<ExpectedAttribute> &expected,
             Comparison &result) {
  for (const GUID &key : keys) {
    const ExpectedAttribute *want = nullptr;
    for (const auto &attribute : expected) {
      if (attribute.key == key) want = &attribute;
    }
    MF_ATTRIBUTE_TYPE type = MF_ATTRIBUTE_UINT32;
    const bool present = SUCCEEDED(sample->GetItemType(key, &type));
    if (!present) {
      if (want != nullptr) ++result.withheld;
      continue;
    }
    bool same = want != nullptr;
    if (same && want->isUint32) {
      UINT32 value = 0;
      same = type == MF_ATTRIBUTE_UINT32 && SUCCEEDED(sample->GetUINT32(key, &value)) && value == want->value;
    } else if (same) {
      const auto blob = test_samples::GetBlob(sample, key);
      same = type == MF_ATTRIBUTE_BLOB && blob && *blob == want->blob;
    }
    if (same) {
      ++result.recordsDelivered;
    } else if (result.mismatched++ == 0) {
      wchar_t text[64] = {};
      StringFromGUID2(key, text, 64);
      result.firstMismatch = std::string(text, text + wcslen(text)) + (want ? " differs" : " not in the bytes sent");
    }
  }
}

// One image buffer of the stream's size, shared by every sample the test sends (nothing writes it).
ComPtr<IMFMediaBuffer> ImageBuffer(IMFMediaType *type) {
  UINT32 width = 0, height = 0;
  MFGetAttributeSize(type, MF_MT_FRAME_SIZE, &width, &height);
  const DWORD size = width * height * 2;
  ComPtr<IMFMediaBuffer> buffer;
  if (FAILED(MFCreateMemoryBuffer(size, buffer.GetAddressOf()))) return nullptr;
  BYTE *bytes = nullptr;
  if (SUCCEEDED(buffer->Lock(&bytes, nullptr, nullptr))) {
    std::memset(bytes, 0x60, size);
    buffer->Unlock();
  }
  buffer->SetCurrentLength(size);
  return buffer;
}

// One running stream, fed by its own thread: its frames in flight by sample time and what came out.
struct FedStream {
  explicit FedStream(sim::CameraKind kind) : reference(kind) {}
  DWORD outputId = 0;
  DWORD inputId = 0;
  ComPtr<IMFMediaBuffer> image;
  ReferenceMetadataReader reference;
  std::map<LONGLONG, std::vector<ExpectedAttribute>> inFlight;
  Comparison result;
  uint64_t refused = 0;
};

class MetadataFuzz : public ::testing::TestWithParam<std::string> {};

// Every stream of the camera at once (the depth camera's depth and both infrared streams), each input
// stream with its own parser and its own feeding thread.
TEST_P(MetadataFuzz, DeliveredSamplesCarryTheRecordsTheCameraSentOrNone) {
  TransformOnCamera subject(GetParam());
  ASSERT_TRUE(subject.host);
  const sim::CameraConfig &camera = subject.camera;
  IMFDeviceTransform *device = subject.device.Get();
  sim::FrameServerHost &host = *subject.host;

  std::vector<std::unique_ptr<FedStream>> streams;
  for (size_t i = 0; i < camera.streams.size(); ++i) {
    streams.push_back(std::make_unique<FedStream>(camera.metadataKind));
    streams.back()->outputId = static_cast<DWORD>(i);
  }
  const std::vector<GUID> keys = streams.front()->reference.Keys();
  std::mutex mutex;
  std::condition_variable drained;
  host.SetOutputObserver([&](DWORD outputId, IMFSample *sample) {
    if (outputId >= streams.size()) return;
    FedStream &stream = *streams[outputId];
    LONGLONG time = 0;
    sample->GetSampleTime(&time);
    std::unique_lock<std::mutex> lock(mutex);
    ++stream.result.delivered;
    auto found = stream.inFlight.find(time);
    if (found == stream.inFlight.end()) {
      ++stream.result.unknown;
      return;
    }
    const std::vector<ExpectedAttribute> expected = std::move(found->second);
    stream.inFlight.erase(found);
    lock.unlock();
    drained.notify_all();
    Comparison one;
    Compare(sample, keys, expected, one);
    lock.lock();
    stream.result.mismatched += one.mismatched;
    stream.result.withheld += one.withheld;
    stream.result.recordsDelivered += one.recordsDelivered;
    if (stream.result.firstMismatch.empty() && !one.firstMismatch.empty()) {
      stream.result.firstMismatch = one.firstMismatch + " at sample time " + std::to_string(time);
    }
  });
  // The camera's own frames are held back: the test is the camera's streaming threads, as fast as the
  // transform takes frames.
  host.Source().SetMetadataHook([](IMFSample *, const sim::FrameInfo &) { return E_ABORT; });
  ASSERT_EQ(S_OK, host.Initialize());
  for (auto &stream : streams) {
    ComPtr<IMFMediaType> type;
    ASSERT_EQ(S_OK, device->GetOutputAvailableType(stream->outputId, 0, type.GetAddressOf()));
    ASSERT_EQ(S_OK, host.StartStream(stream->outputId, type.Get()));
    stream->image = ImageBuffer(type.Get());
    ASSERT_TRUE(stream->image);
    for (const auto &stats : host.Stats()) {
      if (stats.outputStreamId == stream->outputId) stream->inputId = stats.inputStreamId;
    }
    ASSERT_TRUE(WaitFor([&] { return host.Source().IsRunning(stream->inputId); }));
  }

  const uint64_t frames = Scaled(100000);
  const uint64_t framesPerStream = (frames + streams.size() - 1) / streams.size();
  constexpr size_t kMostInFlight = 8;  // a frame server pulling at frame rate keeps the queue this short
  {
    RoundWatchdog watchdog("metadata fuzz", std::chrono::seconds(30));
    std::vector<std::thread> feeders;
    for (auto &stream : streams) {
      feeders.emplace_back([&, fed = stream.get()] {
        std::mt19937 random(99 + 7 * fed->outputId + static_cast<uint32_t>(GetParam().size()));
        sim::CameraMetadataWriter writer(camera.metadataKind);
        for (uint64_t frame = 0; frame < framesPerStream; ++frame) {
          if (fed->outputId == 0 && frame % 1024 == 0) watchdog.BeginRound("frame " + std::to_string(frame));
          std::vector<uint8_t> raw = writer.BuildNextFrame();
          Mutate(random, raw);
          const LONGLONG time = static_cast<LONGLONG>(frame + 1) * 333333;
          ComPtr<IMFSample> sample = test_samples::MakeSample(time);
          HRESULT hr = S_OK;
          if (!raw.empty() || random() % 2 == 0) hr = AttachGuardedCaptureMetadata(sample.Get(), raw);
          if (SUCCEEDED(hr)) hr = sample->AddBuffer(fed->image.Get());
          if (FAILED(hr)) {
            ADD_FAILURE() << "cannot make a sample: " << std::hex << hr;
            return;
          }
          {
            std::unique_lock<std::mutex> lock(mutex);
            drained.wait(lock, [&] { return fed->inFlight.size() < kMostInFlight; });
            fed->inFlight[time] = fed->reference.Read(raw);
          }
          if (FAILED(device->ProcessInput(fed->inputId, sample.Get(), 0))) {
            std::lock_guard<std::mutex> lock(mutex);
            ++fed->refused;
            fed->inFlight.erase(time);
          }
        }
      });
    }
    for (auto &feeder : feeders) feeder.join();
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(drained.wait_for(lock, std::chrono::seconds(10), [&] {
      for (const auto &stream : streams) {
        if (!stream->inFlight.empty()) return false;
      }
      return true;
    })) << "frames never came out";
  }
  EXPECT_EQ(S_OK, host.Shutdown());
  for (const auto &stream : streams) {
    const Comparison &result = stream->result;
    std::printf("%s stream %lu: %llu frames sent, %llu delivered, %llu records intact, %llu withheld\n",
                GetParam().c_str(), stream->outputId, static_cast<unsigned long long>(framesPerStream),
                static_cast<unsigned long long>(result.delivered),
                static_cast<unsigned long long>(result.recordsDelivered),
                static_cast<unsigned long long>(result.withheld));
    EXPECT_EQ(0u, stream->refused);
    EXPECT_EQ(framesPerStream, result.delivered);
    EXPECT_EQ(0u, result.unknown);
    EXPECT_EQ(0u, result.mismatched) << "stream " << stream->outputId << ": " << result.firstMismatch;
    // Most records of most frames get through: the comparison is not passing on empty samples.
    EXPECT_GT(result.recordsDelivered, framesPerStream * 2);
  }
}

INSTANTIATE_TEST_SUITE_P(EachCamera, MetadataFuzz, ::testing::ValuesIn(CameraNames()),
                         [](const ::testing::TestParamInfo<std::string> &info) { return info.param; });

}  // namespace
}  // namespace robustness
