// The messages between the file I/O manager and a surrogate process: a fixed request
// header with an optional payload, answered by a fixed reply header with an optional
// payload. Sample and frame data go through the shared memory the host maps with kMap;
// everything else travels in the payloads. Objects in the surrogate are named by ids.
// Shared with surrogate/ (the program on the other end).
#pragma once

#include <cstdint>

namespace ostra::surrogate {

enum Op : uint32_t {
  kMap = 1,          // payload: shared memory name; a: its size
  kRegister,         // payload: plug-in path (UTF-16); the plug-ins this surrogate hosts
  kLoad,             // payload: plug-in path -> x: factory id
  kGetInfo,          // factory -> payload: KAFIOPLUGININFO
  kGetClass,         // factory, payload: CLSID, IID -> x: class id
  kClassName,        // class, a: chars -> payload: text
  kClassExtensions,  // class, a: chars -> payload: text
  kClassMerit,       // class -> x: merit
  kCreateReader,     // reader class -> x: reader id
  kCreateRenderer,   // renderer class -> x: renderer id
  kOpen,             // reader, payload: path, a: flags
  kClose,            // reader
  kStreamCount,      // reader -> x
  kGetStream,        // reader, a: index -> x: stream id, y: stream type
  kGetMeta,          // reader, payload: IID -> x: meta id
  kDuration,         // stream -> x: duration, y: start
  kAudioFormat,      // audio stream, a: size -> payload: format
  kFrameCount,       // stream -> x
  kAudioRead,        // audio stream, a: position, b: frames -> shared memory, x: frames read
  kFrameFormat,      // video stream -> payload: BITMAPINFOHEADER, x: numerator, y: denominator
  kReadFrame,        // video stream, a: frame, b: bytes, payload: header -> shared memory, x: time
  kReadText,         // text stream, a: time, b: chars -> payload, x: start, y: end
  kMetaValue,        // meta, payload: key, a: chars -> payload: text
  kProjectPath,      // meta, a: chars -> payload
  kRenderCreate,     // renderer, a: flags, b: format bytes, payload: format then path
  kWriteAudio,       // renderer, a: frames, b: bytes in shared memory
  kFinish,           // renderer
  kRelease,          // any object
};

struct Request {
  uint32_t op;
  uint32_t object;
  uint64_t a;
  uint64_t b;
  uint32_t payload;  // bytes following
  uint32_t reserved;
};

struct Reply {
  int32_t hr;
  uint32_t payload;  // bytes following
  uint64_t x;
  uint64_t y;
};

inline constexpr uint32_t kMaxPayload = 1u << 20;
// The surrogate's first message after connecting: its process id in x.
inline constexpr int32_t kHelloResult = 0x4F535247;  // "OSRG"

}  // namespace ostra::surrogate
