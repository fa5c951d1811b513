// Layout of a detector instance inside its fixed 1600-byte block: a header,
// a reserved region, the mono frame, the down-sampled frame and the detector
// state. The header records where each region starts as a byte offset from
// the block, so a byte copy of the block is a working instance.
#pragma once

#include <cstddef>
#include <cstdint>

#include "AudioVadProcess.h"
#include "webrtc/webrtc_vad.h"

namespace kivbf::vad {

struct KivVadHeader {
    uint32_t sample_rate;               // Hz, from the set-up record
    uint32_t channel_num;               // 1 mono, else two interleaved channels
    uint32_t point_number;              // samples per channel per frame
    uint32_t mono_frame_offset;         // bytes from the block to the mono frame
    uint32_t downsampled_frame_offset;  // bytes from the block to the 8 kHz frame
    uint32_t detector_offset;           // bytes from the block to the VadDetectorState
    uint32_t delay_frames;              // decision delay, stored and reported only
    uint32_t mode;                      // 0 after set-up; only 1 classifies
    uint32_t spare[3];                  // zero
    int32_t msg_level;                  // message-level mask read at set-up
};

inline constexpr size_t kReservedBytes = 400;  // kept zero
inline constexpr size_t kFramePoints = 128;    // capacity of each frame buffer

inline constexpr size_t kMonoFrameOffset = sizeof(KivVadHeader) + kReservedBytes;
inline constexpr size_t kDownsampledFrameOffset = kMonoFrameOffset + kFramePoints * sizeof(int16_t);
inline constexpr size_t kDetectorOffset = kDownsampledFrameOffset + kFramePoints * sizeof(int16_t);

static_assert(kFramePoints == kMaxInputFrame);
static_assert(kMonoFrameOffset % alignof(int16_t) == 0);
static_assert(kDetectorOffset % alignof(VadDetectorState) == 0);
static_assert(kDetectorOffset + sizeof(VadDetectorState) <= kKivVadInstanceSize,
              "the detector state must fit the instance block");

inline int16_t *MonoFrame(KivVadHeader &h) {
    return reinterpret_cast<int16_t *>(reinterpret_cast<unsigned char *>(&h) + h.mono_frame_offset);
}
inline int16_t *DownsampledFrame(KivVadHeader &h) {
    return reinterpret_cast<int16_t *>(reinterpret_cast<unsigned char *>(&h) +
                                       h.downsampled_frame_offset);
}
inline VadDetectorState &Detector(KivVadHeader &h) {
    return *reinterpret_cast<VadDetectorState *>(reinterpret_cast<unsigned char *>(&h) +
                                                 h.detector_offset);
}

}  // namespace kivbf::vad
