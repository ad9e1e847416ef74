#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>

#include "user_space_frameworks/Callback.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/FpsMonitor.h"
#include "user_space_frameworks/FrameClock.h"
#include "user_space_frameworks/RollingAverage.h"
#include "user_space_frameworks/Sync.h"
#include "user_space_frameworks/TraceScope.h"

// Allocation fails on a thread that asks for it: the guard's handlers must still return their code.
namespace {
thread_local bool failAllocations = false;
}  // namespace

void *operator new(std::size_t size) {
  if (failAllocations) throw std::bad_alloc();
  if (void *memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }

namespace user_space_frameworks {
namespace {

struct GuardCase {
  const char *name;
  void (*thrower)();
  HRESULT expected;
  const char *message;
};

const GuardCase kGuardCases[] = {
    {"com", [] { throw _com_error(MF_E_NO_MORE_TYPES); }, MF_E_NO_MORE_TYPES, "Caught Com Exception error"},
    {"alloc", [] { throw std::bad_alloc(); }, E_OUTOFMEMORY, "Bad allocation exception trapped"},
    {"range", [] { throw std::out_of_range("x"); }, MF_E_INVALIDINDEX, "Out of range exception trapped"},
    {"std", [] { throw std::invalid_argument("unsupported order"); }, E_FAIL, "Standard exception trapped: unsupported order"},
    {"other", [] { throw 42; }, E_FAIL, "General exception trapped"},
};

class GuardTest : public ::testing::TestWithParam<GuardCase> {};

TEST_P(GuardTest, MapsEachKindOnceAndTracesIt) {
  auto sink = std::make_shared<CapturingTraceSink>();
  trace::ScopedSink scoped(sink, TraceLevel::Verbose);
  const GuardCase &c = GetParam();
  const HRESULT hr = WQ_GUARDED([&]() -> HRESULT {
    c.thrower();
    return S_OK;
  });
  EXPECT_EQ(c.expected, hr);
  EXPECT_EQ(1u, sink->Count(c.message));
  EXPECT_TRUE(sink->Contains("==>"));
  EXPECT_TRUE(sink->Contains("<== " + trace::HrText(c.expected)));
}

INSTANTIATE_TEST_SUITE_P(AllKinds, GuardTest, ::testing::ValuesIn(kGuardCases),
                         [](const auto &info) { return std::string(info.param.name); });

// Memory runs out and stays out: tracing the catch cannot allocate either, and the host process must
// still get the code back rather than be ended by an exception leaving the guard.
TEST(GuardOutOfMemory, EachHandlerReturnsItsCodeWhenItsTraceCannotAllocate) {
  auto sink = std::make_shared<CapturingTraceSink>();
  trace::ScopedSink scoped(sink, TraceLevel::Error);
  const std::invalid_argument standard("unsupported order");  // made while memory is still there
  const std::out_of_range range("x");
  const auto guarded = [](auto thrower) {
    return ExceptionGuard(WQ_HERE, [&]() -> HRESULT {
      failAllocations = true;
      thrower();
      return S_OK;
    });
  };
  const HRESULT alloc = guarded([] { throw std::bad_alloc(); });
  const HRESULT com = guarded([] { throw _com_error(MF_E_NO_MORE_TYPES); });
  const HRESULT outOfRange = guarded([&] { throw range; });
  const HRESULT other = guarded([&] { throw standard; });
  const HRESULT general = guarded([] { throw 42; });
  failAllocations = false;
  EXPECT_EQ(E_OUTOFMEMORY, alloc);
  EXPECT_EQ(MF_E_NO_MORE_TYPES, com);
  EXPECT_EQ(MF_E_INVALIDINDEX, outOfRange);
  EXPECT_EQ(E_FAIL, other);
  EXPECT_EQ(E_FAIL, general);
}

struct Probe {
  HRESULT Fails() { return E_ACCESSDENIED; }
  static constexpr int kCheckLine = __LINE__ + 2;
  HRESULT CallsFailing() {
    RETURN_IF_FAILED(Fails());
    return S_OK;
  }
  HRESULT PassesFailureUp() {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(CallsFailing());
    return S_OK;
    WQ_SCOPE_END;
  }
  static constexpr int kMarkedLine = __LINE__ + 1;
  void Marked() { WQ_SCOPE(); }
  bool Flag() {
    WQ_SCOPE_BEGIN(bool);
    return true;
    WQ_SCOPE_END;
  }
  size_t Count() {
    WQ_SCOPE_BEGIN(size_t);
    return 7;
    WQ_SCOPE_END;
  }
  const int *Pointer() {
    WQ_SCOPE_BEGIN(const int *);
    return nullptr;
    WQ_SCOPE_END;
  }
  HRESULT RefusesNull(int *value) {
    RETURN_IF_NULL(value);
    return S_OK;
  }
};

TEST(CheckTest, TracesQualifiedNameExpressionAndCodeOnce) {
  auto sink = std::make_shared<CapturingTraceSink>();
  trace::ScopedSink scoped(sink, TraceLevel::Error);
  Probe probe;
  EXPECT_EQ(E_ACCESSDENIED, probe.CallsFailing());
  ASSERT_EQ(1u, sink->Lines().size());
  const auto line = sink->Lines()[0];
  EXPECT_EQ("user_space_frameworks::{anonymous}::Probe::CallsFailing", line.function);
  EXPECT_EQ(Probe::kCheckLine, line.line);
  EXPECT_NE(std::string::npos, line.message.find("Fails()"));
  EXPECT_NE(std::string::npos, line.message.find("0x80070005"));

  // The caller that only passes the code up does not repeat the error; a new public call starts afresh.
  sink->Clear();
  EXPECT_EQ(E_ACCESSDENIED, probe.PassesFailureUp());
  EXPECT_EQ(E_ACCESSDENIED, Guarded({"HRESULT ns::Entry::Call()", 1}, [&] { return probe.PassesFailureUp(); }));
  ASSERT_EQ(2u, sink->Lines().size());
  EXPECT_EQ("user_space_frameworks::{anonymous}::Probe::CallsFailing", sink->Lines()[1].function);

  sink->Clear();
  EXPECT_EQ(E_POINTER, probe.RefusesNull(nullptr));
  ASSERT_EQ(1u, sink->Lines().size());
  EXPECT_NE(std::string::npos, sink->Lines()[0].message.find("value is nullptr, expected valid pointer"));
}

TEST(ScopeMarksTest, EntryAndExitWithTheResultUnderTheCompilersQualifiedName) {
  auto sink = std::make_shared<CapturingTraceSink>();
  trace::ScopedSink scoped(sink, TraceLevel::Verbose);
  Probe probe;
  EXPECT_EQ(E_ACCESSDENIED, probe.PassesFailureUp());
  probe.Marked();
  probe.Flag();
  probe.Count();
  probe.Pointer();
  std::vector<std::string> marks;
  for (const auto &line : sink->Lines()) {
    if (line.message.rfind("==>", 0) == 0 || line.message.rfind("<==", 0) == 0) {
      marks.push_back(line.function.substr(line.function.rfind(':') + 1) + " " + line.message);
      if (line.function.find("Marked") != std::string::npos) EXPECT_EQ(Probe::kMarkedLine, line.line);
    }
  }
  EXPECT_EQ(sink->Lines().front().function, "user_space_frameworks::{anonymous}::Probe::PassesFailureUp");
  EXPECT_EQ((std::vector<std::string>{"PassesFailureUp ==>", "PassesFailureUp <== 0x80070005", "Marked ==>",
                                      "Marked <==", "Flag ==>", "Flag <== true", "Count ==>", "Count <== 7",
                                      "Pointer ==>", "Pointer <== nullptr"}),
            marks);
}

TEST(QualifiedNameTest, StripsReturnTypeArgumentsAndLambdaSuffix) {
  EXPECT_EQ("mft_core::MFDeviceTransform::CheckShutdown",
            trace::QualifiedName("virtual HRESULT mft_core::MFDeviceTransform::CheckShutdown()"));
  EXPECT_EQ("mft_core::A::Get",
            trace::QualifiedName("std::vector<std::pair<int, int> > mft_core::A::Get(int) const"));
  EXPECT_EQ("ns::X::Run",
            trace::QualifiedName("ns::X::Run(DWORD)::<lambda()>"));
  EXPECT_EQ("ns::X::operator()", trace::QualifiedName("long int ns::X::operator()(int)"));
}

TEST(RollingAverageTest, AveragesTheLastWindowOnly) {
  RollingAverage<uint64_t, 4> average;
  EXPECT_EQ(0u, average.Average());
  average.Add(10);
  average.Add(20);
  EXPECT_EQ(15u, average.Average());
  for (uint64_t v : {100, 100, 100, 100}) average.Add(v);
  EXPECT_EQ(100u, average.Average());
}

struct FpsProbe {
  int calls = 0;
  void OnFps(const FpsMonitor &) { ++calls; }
};

TEST(FpsMonitorTest, ResetRefusesZero) {
  FpsMonitor monitor("input", 30000, 1);
  try {
    monitor.Reset(0);
    FAIL();
  } catch (const std::invalid_argument &e) {
    EXPECT_STREQ("FPS must be > 0", e.what());
  }
}

TEST(FpsMonitorTest, SuddenChangeIsFollowedOneThresholdStepPerSample) {
  FpsProbe probe;
  FpsMonitor monitor("topology", 0, 1);
  monitor.SetCallback(std::make_shared<Callback<FpsProbe, const FpsMonitor &>>(&probe, &FpsProbe::OnFps));
  monitor.Reset(30);
  monitor.SetThreshold(2);
  // 15 fps from the start: the reported rate walks 30 -> 28 -> ... -> 16 and then holds.
  for (uint64_t i = 0; i < 40; ++i) monitor.OnSample(i * 66666);
  EXPECT_EQ(7, probe.calls);
  EXPECT_DOUBLE_EQ(16.0, monitor.GetCurrentFps());
}

// As the input stream sets it up: only the nominal rate is given, the monitor picks its own threshold.
TEST(FpsMonitorTest, ReportsPeriodicallyAtASteadyRateAndFollowsARealChange) {
  FpsProbe probe;
  FpsMonitor monitor("input", 30000, 1);
  monitor.SetCallback(std::make_shared<Callback<FpsProbe, const FpsMonitor &>>(&probe, &FpsProbe::OnFps));
  monitor.Reset(30);
  EXPECT_GT(monitor.GetThreshold(), 0.0);
  EXPECT_LE(monitor.GetThreshold(), 3.0);
  // 65 s at 30 fps with a little jitter: the two periodic reports and nothing else.
  uint64_t t = 5000000;
  for (int i = 0; i < 65 * 30; ++i) {
    t += 33333 + (i % 3 == 0 ? 400 : 0) - (i % 3 == 1 ? 400 : 0);
    monitor.OnSample(t);
  }
  EXPECT_EQ(2, probe.calls);
  EXPECT_DOUBLE_EQ(30.0, monitor.GetCurrentFps());

  // The camera drops to 15 fps: reported at once, and the reported rate ends within a threshold of it.
  probe.calls = 0;
  for (int i = 0; i < 5 * 15; ++i) monitor.OnSample(t += 66667);
  EXPECT_GE(probe.calls, 1);
  EXPECT_NEAR(15.0, monitor.GetCurrentFps(), monitor.GetThreshold());

  // The clock steps back: no interval is measured across the step, the rate stays put.
  probe.calls = 0;
  monitor.OnSample(t - 1000000);
  monitor.OnSample(t - 1000000 + 66667);
  EXPECT_EQ(0, probe.calls);
  EXPECT_NEAR(15.0, monitor.GetMeasuredFps(), 0.5);
}

// A transform's three streams pulled together at each frame: the calls come in bursts, and the average
// of 32 intervals holds ten or eleven whole frame periods by turns. Once the reported rate has walked up
// from the nominal one, that swing is no change.
TEST(FpsMonitorTest, AStreamPulledInBurstsIsQuietOnceFollowed) {
  FpsProbe probe;
  FpsMonitor monitor("process output", 0, 1);
  monitor.SetCallback(std::make_shared<Callback<FpsProbe, const FpsMonitor &>>(&probe, &FpsProbe::OnFps));
  monitor.Reset(90);
  uint64_t frame = 1000000;
  auto pullForOneSecond = [&] {
    for (int i = 0; i < 90; ++i, frame += 11111 + (i % 2 ? 300 : -300))
      for (uint64_t call = 0; call < 3; ++call) monitor.OnSample(frame + call * 20);
  };
  pullForOneSecond();
  EXPECT_GE(probe.calls, 1);
  EXPECT_NEAR(270.0, monitor.GetCurrentFps(), monitor.GetThreshold());
  probe.calls = 0;
  for (int second = 0; second < 10; ++second) pullForOneSecond();
  EXPECT_EQ(0, probe.calls);
}

}  // namespace
}  // namespace user_space_frameworks

namespace user_space_frameworks {
namespace {

uint64_t SystemUs() {
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  return ((static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime) / 10;
}

TEST(FrameClockTest, FollowsTheSystemClockAndNeverStepsBack) {
  const uint64_t clockStart = FrameClock::NowUs();
  const uint64_t systemStart = SystemUs();
  // Near the system time at all, not on some other epoch.
  EXPECT_LT(clockStart > systemStart ? clockStart - systemStart : systemStart - clockStart, 1000000u);
  uint64_t previous = clockStart;
  for (int i = 0; i < 100000; ++i) {
    const uint64_t now = FrameClock::NowUs();
    ASSERT_GE(now, previous);
    previous = now;
  }
  Sleep(200);
  const double clockElapsed = static_cast<double>(FrameClock::NowUs() - clockStart);
  const double systemElapsed = static_cast<double>(SystemUs() - systemStart);
  // A wrongly measured counter rate shows as a proportional error.
  EXPECT_NEAR(systemElapsed, clockElapsed, systemElapsed * 0.02 + 2000);
}

}  // namespace
}  // namespace user_space_frameworks

TEST(ConditionVariableTest, AWaitEndsByItsTimeoutOrByAWakeWithTheSectionHeldAgain) {
  user_space_frameworks::CriticalSection section;
  user_space_frameworks::ConditionVariable variable;
  {
    user_space_frameworks::AutoLock lock(section);
    EXPECT_FALSE(variable.Wait(section, 1));
  }
  bool ready = false;
  std::thread waker([&] {
    user_space_frameworks::AutoLock lock(section);
    ready = true;
    variable.WakeOne();
  });
  {
    user_space_frameworks::AutoLock lock(section);
    // Spurious wakes aside, the waker's flag is seen once a wait ends by the wake (a minute at most).
    for (int i = 0; i < 60 && !ready; ++i) variable.Wait(section, 1000);
    EXPECT_TRUE(ready);
  }
  waker.join();
}
