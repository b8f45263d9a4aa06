// A play engine that plays nothing: its position advances on a TimeSource (the kernel's
// clock, or a manual clock in tests), and its answers can be set. The tests, the
// benchmarks and the tool's transport demonstration drive the transport through it.
#pragma once

#include <atomic>

#include "engine/internal/transport_impl.h"

namespace ostra::engine {

class SimulatedEngine final : public IKAPlayEngine {
 public:
  explicit SimulatedEngine(TimeSource* time) noexcept;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE QueryState() override;
  HRESULT STDMETHODCALLTYPE GetPosition(INT64* ticks, double* rate, const void* request) override;
  HRESULT STDMETHODCALLTYPE GetBufferDuration(INT64* ticks) override;
  HRESULT STDMETHODCALLTYPE Start(DWORD flags, INT64 position, INT64 end) override;
  HRESULT STDMETHODCALLTYPE Stop(DWORD flags, DWORD extra) override;
  HRESULT STDMETHODCALLTYPE Seek(INT64 position, INT64 end) override;
  HRESULT STDMETHODCALLTYPE SetEnd(INT64 end) override;
  HRESULT STDMETHODCALLTYPE SetRate(double rate) override;
  HRESULT STDMETHODCALLTYPE StartPreview(DWORD kind, const KATRANSPORTPREVIEW* preview) override;
  HRESULT STDMETHODCALLTYPE StopPreview(DWORD kind) override;
  HRESULT STDMETHODCALLTYPE SeekPreview(DWORD kind, const KATRANSPORTPREVIEW* preview) override;
  HRESULT STDMETHODCALLTYPE GetPreviewPosition(DWORD kind, INT64* ticks) override;
  INT64 STDMETHODCALLTYPE AdjustPreviewClock(INT64 ticks) override { return ticks; }
  HRESULT STDMETHODCALLTYPE ArmInput(BOOL arm, const KATRANSPORTRECORD* record) override;

  // What QueryState answers (S_FALSE healthy; S_OK the engine has stopped delivering).
  void setStateAnswer(HRESULT r) noexcept { stateAnswer_ = r; }
  // While frozen the position stays where it is (an engine that is behind).
  void setFrozen(bool frozen) noexcept;
  void setBufferDuration(INT64 ticks) noexcept { buffer_ = ticks; }
  void setSeekResult(HRESULT r) noexcept { seekResult_ = r; }
  void setArmResult(HRESULT r) noexcept { armResult_ = r; }
  void setReportedRate(double rate) noexcept { reportedRate_ = rate; }
  bool running() const noexcept { return running_.load(); }
  bool armed() const noexcept { return armed_.load(); }
  int starts() const noexcept { return starts_.load(); }
  int stops() const noexcept { return stops_.load(); }
  int seeks() const noexcept { return seeks_.load(); }
  INT64 lastEnd() const noexcept { return end_.load(); }
  DWORD lastStartFlags() const noexcept { return startFlags_.load(); }
  DWORD lastStopFlags() const noexcept { return stopFlags_.load(); }
  DWORD lastStopExtra() const noexcept { return stopExtra_.load(); }

 private:
  ~SimulatedEngine() = default;
  INT64 positionNow() noexcept;
  std::atomic<ULONG> refs_{1};
  TimeSource* time_;
  KACRITICAL_SECTION lock_;
  INT64 anchor_ = 0;
  DWORD anchorTime_ = 0;
  bool frozen_ = false;
  std::atomic<bool> running_{false}, armed_{false};
  std::atomic<HRESULT> stateAnswer_{S_FALSE}, seekResult_{S_OK}, armResult_{S_OK};
  std::atomic<INT64> buffer_{400000}, end_{-1};
  std::atomic<double> reportedRate_{1.0};
  std::atomic<int> starts_{0}, stops_{0}, seeks_{0};
  std::atomic<DWORD> startFlags_{0}, stopFlags_{0}, stopExtra_{0};
};

}  // namespace ostra::engine
