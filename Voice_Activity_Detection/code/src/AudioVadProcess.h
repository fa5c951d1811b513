// Voice activity detector wrapper: one detector instance in a fixed 1600-byte
// block of the caller's memory, sensitivity presets, one decision per block.
#pragma once

#include <cstdint>

extern "C" {

typedef struct {
    uint32_t point_number;  // samples per frame per channel (128)
    uint32_t channel_num;   // 1 mono; anything else: two interleaved channels, averaged
    uint32_t sample_rate;   // 8000, 16000 or 48000
} KivVadSetup;              // the instance set-up record (vad_config)

typedef struct {
    uint32_t delay_frames;  // stored and reported
    uint32_t sensitivity;   // 0 Low, 1 mid, 2 high
} KivVadInit;               // the configuration record (vad_init)

inline constexpr uint32_t kKivVadInstanceSize = 1600;

uint32_t KivVad_GetBufferSize(void);  // 1600
// Clears and carves the block; returns the instance (even when the detector's
// set-up failed, after printing so), or null for a null block or record.
void *KivVad_Init(void *working_buffer, const KivVadSetup *config);
int32_t KivVad_Config(void *vad, const KivVadInit *init);  // 0 or -1
int32_t KivVad_SetMode(void *vad, uint32_t mode);          // 0 or -1; only mode 1 is built
// 1 speech, 0 no speech (or a mode that is not built), -1 no instance.
int32_t KivVad_Run(void *vad, const int16_t *frame);

}
