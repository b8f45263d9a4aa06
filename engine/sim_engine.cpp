// The simulated play engine (see engine/internal/sim_engine.h).
#include "engine/internal/sim_engine.h"

namespace ostra::engine {

SimulatedEngine::SimulatedEngine(TimeSource* time) noexcept : time_(time) {
  KaInitializeCriticalSection(&lock_);
}

HRESULT SimulatedEngine::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != IID_IKAPlayEngine) return E_NOINTERFACE;
  *ppv = static_cast<IKAPlayEngine*>(this);
  AddRef();
  return S_OK;
}

ULONG SimulatedEngine::AddRef() { return ++refs_; }

ULONG SimulatedEngine::Release() {
  const ULONG r = --refs_;
  if (r == 0) delete this;
  return r;
}

INT64 SimulatedEngine::positionNow() noexcept {
  if (!running_.load() || frozen_) return anchor_;
  return anchor_ + INT64(DWORD(time_->millis() - anchorTime_)) * 10000;
}

HRESULT SimulatedEngine::QueryState() { return stateAnswer_.load(); }

HRESULT SimulatedEngine::GetPosition(INT64* ticks, double* rate, const void*) {
  if (!ticks) return E_POINTER;
  CsGuard g(lock_);
  *ticks = positionNow();
  if (rate) *rate = reportedRate_.load();
  return S_OK;
}

HRESULT SimulatedEngine::GetBufferDuration(INT64* ticks) {
  if (!ticks) return E_POINTER;
  *ticks = buffer_.load();
  return S_OK;
}

HRESULT SimulatedEngine::Start(DWORD flags, INT64 position, INT64 end) {
  startFlags_ = flags;
  CsGuard g(lock_);
  anchor_ = position < 0 ? 0 : position;
  anchorTime_ = time_->millis();
  end_ = end;
  running_ = true;
  starts_.fetch_add(1);
  return S_OK;
}

HRESULT SimulatedEngine::Stop(DWORD flags, DWORD extra) {
  stopFlags_ = flags;
  stopExtra_ = extra;
  CsGuard g(lock_);
  anchor_ = positionNow();
  running_ = false;
  stops_.fetch_add(1);
  return S_OK;
}

HRESULT SimulatedEngine::Seek(INT64 position, INT64 end) {
  seeks_.fetch_add(1);
  const HRESULT r = seekResult_.load();
  if (FAILED(r)) return r;
  CsGuard g(lock_);
  if (position >= 0) {
    anchor_ = position;
    anchorTime_ = time_->millis();
  }
  if (end >= 0) end_ = end;
  return S_OK;
}

HRESULT SimulatedEngine::SetEnd(INT64 end) {
  end_ = end;
  return S_OK;
}

HRESULT SimulatedEngine::SetRate(double) { return S_OK; }

void SimulatedEngine::setFrozen(bool frozen) noexcept {
  CsGuard g(lock_);
  if (frozen == frozen_) return;
  if (frozen) {
    anchor_ = positionNow();
  } else {
    anchorTime_ = time_->millis();
  }
  frozen_ = frozen;
}

HRESULT SimulatedEngine::StartPreview(DWORD, const KATRANSPORTPREVIEW* preview) {
  return preview ? S_OK : E_POINTER;
}

HRESULT SimulatedEngine::StopPreview(DWORD) { return S_OK; }

HRESULT SimulatedEngine::SeekPreview(DWORD, const KATRANSPORTPREVIEW* preview) {
  return preview ? S_OK : E_POINTER;
}

// The simulated engine keeps no MIDI preview clock: the transport times it.
HRESULT SimulatedEngine::GetPreviewPosition(DWORD, INT64*) { return E_NOTIMPL; }

HRESULT SimulatedEngine::ArmInput(BOOL arm, const KATRANSPORTRECORD*) {
  if (arm) {
    const HRESULT r = armResult_.load();
    if (FAILED(r)) return r;
  }
  armed_ = arm != FALSE;
  return S_OK;
}

}  // namespace ostra::engine
