// Broadcast-safe colour checks: whether a colour's composite signal would exceed the
// legal level, and the repair that scales its chroma back. The constants are the
// classic ones, including the 0.144 blue weight of both YUV checks.
#include <cmath>

#include "ostra/kayuv.h"

namespace {

double clamp01(double v) { return v < 0 ? 0 : (v > 1 ? 1 : v); }

struct Yuv {
  double y, c1, c2;
};
Yuv toYiq(const KAHOTPIXEL& p) {
  return {0.114 * p.b + 0.587 * p.g + 0.299 * p.r, 0.595879 * p.r - 0.274133 * p.g - 0.321746 * p.b,
          0.211205 * p.r - 0.523083 * p.g + 0.311878 * p.b};
}
Yuv toYuv(const KAHOTPIXEL& p) {
  return {0.144 * p.b + 0.587 * p.g + 0.299 * p.r, 0.436798 * p.b - 0.289391 * p.g - 0.147407 * p.r,
          0.614777 * p.r - 0.514799 * p.g - 0.099978 * p.b};
}
bool illegal(const Yuv& v, double level) {
  const double l = level - v.y;
  return l * l < v.c1 * v.c1 + v.c2 * v.c2;
}
constexpr double kNtscLevel = 1.2162162;
constexpr double kPalLevel = 1.2;

double ntscFactor(const Yuv& v) {
  const double s = 0.925 * std::sqrt(v.c1 * v.c1 + v.c2 * v.c2);
  const double f = (s - (0.925 * v.y + 0.075 + s - 1.15)) / s;
  return f > 1.0 ? 1.0 : f;
}
double palFactor(const Yuv& v) {
  const double a = std::sqrt(v.c1 * v.c1 + v.c2 * v.c2);
  const double f = (a - (v.y + a - 1.15)) / a;
  return f > 1.0 ? 1.0 : f;
}
void fromYiq(KAHOTPIXEL* p, const Yuv& v) {
  p->r = clamp01(v.y + 0.956295 * v.c1 + 0.621025 * v.c2);
  p->g = clamp01(v.y - 0.272558 * v.c1 - 0.646709 * v.c2);
  p->b = clamp01(v.y - 1.104744 * v.c1 + 1.701157 * v.c2);
}
void fromYuv(KAHOTPIXEL* p, const Yuv& v) {
  // c1 is U, c2 is V.
  p->r = clamp01(v.y + 1.140251 * v.c2);
  p->g = clamp01(v.y - 0.393931 * v.c1 - 0.580809 * v.c2);
  p->b = clamp01(v.y + 2.028398 * v.c1);
}

}  // namespace

int HotCheckNTSCYIQ(const KAHOTPIXEL* p) noexcept {
  return p && illegal(toYiq(*p), kNtscLevel) ? 1 : 0;
}
int HotCheckNTSCYUV(const KAHOTPIXEL* p) noexcept {
  return p && illegal(toYuv(*p), kNtscLevel) ? 1 : 0;
}
int HotCheckPALYUV(const KAHOTPIXEL* p) noexcept {
  return p && illegal(toYuv(*p), kPalLevel) ? 1 : 0;
}

int HotCheckNTSCYIQReturn(KAHOTPIXEL* p) noexcept {
  if (!p) return 0;
  Yuv v = toYiq(*p);
  if (!illegal(v, kNtscLevel)) return 0;
  const double f = ntscFactor(v);
  v.c1 *= f;
  v.c2 *= f;
  fromYiq(p, v);
  return 1;
}

int HotCheckNTSCYUVReturn(KAHOTPIXEL* p) noexcept {
  if (!p) return 0;
  Yuv v = toYuv(*p);
  if (!illegal(v, kNtscLevel)) return 0;
  const double f = ntscFactor(v);
  v.c1 *= f;
  v.c2 *= f;
  fromYuv(p, v);
  return 1;
}

int HotCheckPALYUVReturn(KAHOTPIXEL* p) noexcept {
  if (!p) return 0;
  Yuv v = toYuv(*p);
  if (!illegal(v, kPalLevel)) return 0;
  const double f = palFactor(v);
  v.c1 *= f;
  v.c2 *= f;
  fromYuv(p, v);
  return 1;
}
