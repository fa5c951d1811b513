/*
 * kivbf: frequency-domain beamformer for a two-microphone array.
 *
 * The library allocates nothing. Ask for the working-buffer size, allocate it
 * (16-byte aligned, as malloc gives), initialise it, configure it, then feed
 * one block of 128 interleaved stereo samples per call:
 *
 *   uint32_t size = KivBf_GetBufferSize();
 *   void *buf = malloc(size);
 *   AudioBfInit init = { 128, 16000, 5.0f, 2 };        // 5 cm spacing
 *   AudioBfHandle h = KivBf_Init(buf, &init);
 *   AudioBfConfig cfg;
 *   KivBf_GetConfig(h, &cfg);                          // start from defaults
 *   cfg.temperature = 20;
 *   KivBf_SetConfig(h, &cfg);
 *   KivBf_SetShape(h, KIVBF_GEOMETRY_LINEAR);
 *   KivBf_SetMode(h, KIVBF_MODE_FIXED, 0.0f);          // look at broadside
 *   float direction = 0.0f;
 *   while (read_block(in))                             // 256 int16: L R L R ...
 *       KivBf_Run(h, in, out, &direction);             // 128 int16 out
 *   KivBf_Free(h);
 *   free(buf);
 *
 * Every call returns KIVBF_OK (0) or one of the status codes below, except
 * KivBf_Init / KivBf_Reset (handle or NULL) and KivBf_Run, which returns
 * KIVBF_ERR_DUMP_OPEN (0xFFFFFFFF) when a PCM dump file cannot be opened.
 * Calls on one handle must be serialised by the caller; distinct handles are
 * independent.
 */
#ifndef KIVBF_AUDIO_BF_PROCESS_H
#define KIVBF_AUDIO_BF_PROCESS_H

#include <stdint.h>

#if defined(_WIN32)
#define KIVBF_API
#elif defined(__GNUC__)
#define KIVBF_API __attribute__((visibility("default")))
#else
#define KIVBF_API
#endif

#if defined(__GNUC__)
#define KIVBF_WARN_UNUSED __attribute__((warn_unused_result))
#else
#define KIVBF_WARN_UNUSED
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes. The low three hex digits count like decimal numbers, so
 * 0x10000319 does not exist. */
#define KIVBF_OK                      0x00000000u
#define KIVBF_ERR_NOT_INITIALISED     0x10000301u /* KivBf_Init missing */
#define KIVBF_ERR_NULL_CONFIG         0x10000302u /* null AudioBfConfig */
#define KIVBF_ERR_HANDLE              0x10000303u /* null or dirty handle */
#define KIVBF_ERR_NOISE_ESTIMATION    0x10000304u /* Noise_estimation not 0/1 */
#define KIVBF_ERR_VAD_ENABLE          0x10000305u /* vad_enable not 0/1 */
#define KIVBF_ERR_OUTPUT_GAIN         0x10000306u /* output_gain not in (0, 1] */
#define KIVBF_ERR_NULL_POINTER        0x10000307u /* null data pointer */
#define KIVBF_ERR_SAMPLE_RATE         0x10000308u /* not 8/16/32/48 kHz */
#define KIVBF_ERR_POINT_NUMBER        0x10000309u /* point_number not 128 */
#define KIVBF_ERR_MIC_NUMBER          0x10000310u /* mic_number not 2 */
#define KIVBF_ERR_PREREQUISITE        0x10000311u /* SetConfig/SetShape/SetMode missing */
#define KIVBF_ERR_SHAPE_AFTER_RUN     0x10000312u /* shape change after the first block */
#define KIVBF_ERR_ARRAY_GEOMETRY      0x10000313u /* bad geometry / arbitrary shape */
#define KIVBF_ERR_MIC_DISTANCE        0x10000314u /* microphone_distance not > 0 */
#define KIVBF_ERR_DYNAMIC_LOADING     0x10000315u /* bad band / intensity / is_dynamic */
#define KIVBF_ERR_MODE                0x10000316u /* bad or unsupported mode */
#define KIVBF_ERR_NO_SHAPE            0x10000317u /* GetArrayPosition before a shape */
#define KIVBF_ERR_ADAPTIVE_INTENSITY  0x10000318u /* intensity not 0..4, or mode 4 */
#define KIVBF_ERR_PF_FLOW             0x10000320u /* post-filter flow not 0..2 */
#define KIVBF_ERR_CALIBRATION         0x10000321u /* calibration_flag not 0/1 */
#define KIVBF_ERR_DUMP_OPEN           0xFFFFFFFFu /* KivBf_Run: dump file open failed */

/* Operating modes for KivBf_SetMode. */
#define KIVBF_MODE_ADAPTIVE           0u /* adaptive MVDR */
#define KIVBF_MODE_FIXED              1u /* fixed superdirective beam */
#define KIVBF_MODE_FIXED_CANCELLER    2u /* fixed beam + adaptive sidelobe canceller */
#define KIVBF_MODE_POSTFILTER         3u /* adaptive + post-filter */
#define KIVBF_MODE_POSTFILTER_NO_BAND 4u /* refused by SetMode, still runs */

/* Array shapes for KivBf_SetShape. */
#define KIVBF_GEOMETRY_LINEAR         0u
#define KIVBF_GEOMETRY_CIRCULAR       1u

/* Samples per channel per block. */
#define KIVBF_POINT_NUMBER            128u

typedef void *AudioBfHandle;

/* Initialisation record, read by KivBf_Init / KivBf_Reset and not kept. */
typedef struct {
    uint32_t point_number;     /* samples per channel per block: must be 128 */
    uint32_t sample_rate;      /* Hz: 8000, 16000, 32000 or 48000 */
    float microphone_distance; /* centimetres between the microphones, > 0 */
    uint32_t mic_number;       /* must be 2 */
} AudioBfInit;

/* Run-time configuration (KivBf_SetConfig / KivBf_GetConfig). */
typedef struct {
    uint32_t temperature;       /* degrees Celsius; speed of sound 331 + 0.6 T */
    int32_t noise_threshold_db; /* dBFS noise gate, clamped to [-80, 0] */
    uint32_t Noise_estimation;  /* 0 or 1: noise covariance averaging path */
    float output_gain;          /* (0, 1]; 0.7 is unity */
    uint32_t vad_enable;        /* 1: VAD picks noise blocks; 0: level gate */
    int32_t diagonal_loading;   /* 1..100 in units of 0.0001 (clamped) */
} AudioBfConfig;

/* Size in bytes of the working buffer one handle needs. */
KIVBF_API uint32_t KivBf_GetBufferSize(void);
/* Lays a handle out in working_buffer (KivBf_GetBufferSize bytes, 16-byte
 * aligned). Returns the handle (== working_buffer) or NULL. */
KIVBF_API AudioBfHandle KivBf_Init(void *working_buffer, const AudioBfInit *init) KIVBF_WARN_UNUSED;
/* Re-initialises a handle in place; all configuration must be repeated. */
KIVBF_API AudioBfHandle KivBf_Reset(AudioBfHandle handle, const AudioBfInit *init) KIVBF_WARN_UNUSED;
/* Marks the handle freed; the caller releases the buffer itself. */
KIVBF_API uint32_t KivBf_Free(AudioBfHandle handle);
/* Always 1.5. */
KIVBF_API uint32_t KivBf_GetAPIVersion(uint16_t *major, uint16_t *minor);
/* Accepted for compatibility; does nothing. */
KIVBF_API uint32_t KivBf_SetCallbackFunction(void *a, void *b, void *c, void *d);
/* Processes one block: input 256 interleaved int16 (mic 0, mic 1, ...),
 * output 128 int16, direction in degrees (0 = broadside). */
KIVBF_API uint32_t KivBf_Run(AudioBfHandle handle, const int16_t *input, int16_t *output,
                             const float *direction);
/* Out-of-range noise_threshold_db and diagonal_loading are clamped and
 * written back into *config. */
KIVBF_API uint32_t KivBf_SetConfig(AudioBfHandle handle, AudioBfConfig *config);
KIVBF_API uint32_t KivBf_GetConfig(AudioBfHandle handle, AudioBfConfig *config);
/* Only between Init/Reset and the first KivBf_Run. */
KIVBF_API uint32_t KivBf_SetShape(AudioBfHandle handle, uint32_t array_geometry);
/* array_pos: x, y per microphone in cm. A two-microphone array is always
 * refused (use KivBf_SetShape). */
KIVBF_API uint32_t KivBf_SetArbitraryShape(AudioBfHandle handle, const float *array_pos);
/* array_pos: room for x, y, z per microphone in cm (6 floats). */
KIVBF_API uint32_t KivBf_GetArrayPosition(AudioBfHandle handle, float *array_pos);
/* Selects the mode; modes 1 and 2 design the fixed beam toward angle + 90. */
KIVBF_API uint32_t KivBf_SetMode(AudioBfHandle handle, uint32_t mode, float angle);
/* 0..4: strength of the adaptive noise reduction. */
KIVBF_API uint32_t KivBf_SetAdaptiveIntensity(AudioBfHandle handle, int32_t intensity);
/* band: 6 ascending bins in [1, 128]; dl_intensity: 7 factors in [1, 1000]. */
KIVBF_API uint32_t KivBf_DynamicLoading(AudioBfHandle handle, const int32_t *band,
                                        const int32_t *dl_intensity, uint32_t is_dynamic);
/* 0, 1 or 2: 1 applies the post-filter, others only mix its gain. */
KIVBF_API uint32_t KivBf_SetPfFlow(AudioBfHandle handle, uint32_t flow);
/* 0 or 1: equalise microphone 1 to microphone 0. */
KIVBF_API uint32_t KivBf_SetCalibration(AudioBfHandle handle, uint32_t calibration_flag);

#ifdef __cplusplus
}
#endif

#endif /* KIVBF_AUDIO_BF_PROCESS_H */
