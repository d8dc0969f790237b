// Where the application's scene puts what, and in which colours. The
// end-to-end test reads the pictures at these places.
#pragma once

#include <cstdint>

namespace vcam::layout {

// Every stream of the virtual camera is on this channel.
inline constexpr unsigned kChannel = 0;

// Priorities: higher first in a stream's request, so the clock is on top.
inline constexpr int32_t kClockPriority = 60;
inline constexpr int32_t kLogoPriority = 50;
inline constexpr int32_t kTickerPriority = 40;
inline constexpr int32_t kBandPriority = 30;
inline constexpr int32_t kStreamOverlayPriority = 20;
inline constexpr int32_t kBitmapPriority = 10;

// Date-and-time stamp, top left, on every stream (normalized coordinates).
inline constexpr char kClockText[] = "#D #T";
inline constexpr float kClockX = 0.02f;
inline constexpr float kClockY = 0.03f;
inline constexpr int32_t kClockFontSize = 40;

// Logo from an ".ovl" file, top right, on every stream.
inline constexpr float kLogoX = 0.78f;
inline constexpr float kLogoY = 0.03f;

// Scrolling text under the clock, on the channel.
inline constexpr float kTickerY = 0.12f;
inline constexpr int32_t kTickerFontSize = 28;
inline constexpr int32_t kTickerSpeed = 6;
inline constexpr char kTickerText[] = "Lobby camera - visitors please report at the front desk";
inline constexpr char kTickerTextAfter[] = "Delivery expected at gate 2 - doors open at 12:30";

// Legacy band across the bottom of the picture, on the channel.
inline constexpr float kBandY = 1.0f;
inline constexpr int32_t kBandFontSize = 24;
inline constexpr char kBandText[] = "CAM-01  Entrance north";
inline constexpr char kBandTextAfter[] = "CAM-01  Entrance north  -  motion detected";

// Plain ARGB overlay on stream kPlainStream, in pixels; at the change it is
// painted again in another colour and moved.
inline constexpr unsigned kPlainStream = 0;
inline constexpr uint32_t kPlainWidth = 160;
inline constexpr uint32_t kPlainHeight = 90;
inline constexpr uint32_t kPlainBorder = 4;
inline constexpr float kPlainX = 1600;
inline constexpr float kPlainY = 760;
inline constexpr float kPlainMovedX = 1200;
inline constexpr float kPlainMovedY = 760;
inline constexpr uint32_t kPlainColor = 0xFF1E90FF;
inline constexpr uint32_t kPlainColorAfter = 0xFFFF8C00;
inline constexpr uint32_t kPlainBorderColor = 0xFFFFFFFF;

// 16 palette swatches (4-bit dual, user bank) on stream kSwatchStream; at
// the change kChangedIndex, which the default palette leaves transparent,
// becomes kChangedColor.
inline constexpr unsigned kSwatchStream = 1;
inline constexpr float kSwatchX = 0.55f;
inline constexpr float kSwatchY = 0.80f;
inline constexpr uint32_t kSwatchCellWidth = 16;
inline constexpr uint32_t kSwatchWidth = 16 * kSwatchCellWidth;
inline constexpr uint32_t kSwatchHeight = 32;
inline constexpr unsigned kChangedIndex = 15;
inline constexpr uint32_t kChangedColor = 0xFF00C000;

// Scalable image from a bitmap, on every stream one by one.
inline constexpr uint32_t kBitmapWidth = 320;
inline constexpr uint32_t kBitmapHeight = 180;
inline constexpr float kBitmapX = 0.02f;
inline constexpr float kBitmapY = 0.62f;

// Recording badge on stream kRecStream, destroyed at the change.
inline constexpr unsigned kRecStream = 2;
inline constexpr char kRecText[] = "\u25CF REC";
inline constexpr float kRecX = 0.84f;
inline constexpr float kRecY = 0.84f;
inline constexpr int32_t kRecFontSize = 32;

}  // namespace vcam::layout
