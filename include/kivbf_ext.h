/*
 * kivbf extensions: capabilities beyond the calls of AudioBfProcess.h.
 *
 * Every extension is off until the caller turns it on; with none turned on the
 * library behaves, prints and outputs exactly as without this header. Calls are
 * prefixed KivBfExt_ and return KIVBF_OK (0) or a KIVBFEXT_ERR_* code from
 * their own range, 0x10000400..0x100004FF. The header is grouped in sections,
 * one per extension.
 */
#ifndef KIVBF_EXT_H
#define KIVBF_EXT_H

#include <stdint.h>

#include "AudioBfProcess.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------ */

#define KIVBFEXT_ERR_MESSAGE_SINK     0x10000401u /* bad message sink record */

/* ---- Messages ------------------------------------------------------------
 *
 * The library prints its diagnostics (see "Diagnostics" in the README) to
 * standard output. A process can send them elsewhere instead: to standard
 * error, to a callback, or nowhere, and can replace the level mask that is
 * otherwise read from the level file at Init.
 *
 *   static const KivBfExtMessageSink to_stderr = {
 *       KIVBFEXT_SINK_STDERR, NULL, NULL, KIVBFEXT_LEVEL_FROM_FILE };
 *   KivBfExt_SetMessageSink(&to_stderr);
 *
 * The setting is per process and shared by every handle. The library keeps
 * only the pointer: the record must stay valid and unchanged until another
 * record (or NULL) has been set and no library call that started before that
 * can still be printing. A static const record is the simple way.
 */

/* Where messages go. */
#define KIVBFEXT_SINK_STDOUT          0u /* standard output (the default) */
#define KIVBFEXT_SINK_STDERR          1u /* standard error */
#define KIVBFEXT_SINK_CALLBACK        2u /* the record's callback */
#define KIVBFEXT_SINK_DISCARD         3u /* nowhere */

/* Level value that keeps the mask read from the level file. */
#define KIVBFEXT_LEVEL_FROM_FILE      (-1)

/* Receives one message: `kind` is 1 (error), 2 (warning) or 4 (information),
 * `text` the whole message as it would have been printed, NUL-terminated,
 * cut to 1023 bytes. Called on the thread of the library call that prints;
 * it must not call back into the library on the same handle. */
typedef void (*KivBfExtMessageFn)(void *user, int32_t kind, const char *text);

typedef struct {
    uint32_t destination;       /* KIVBFEXT_SINK_* */
    KivBfExtMessageFn callback; /* required for KIVBFEXT_SINK_CALLBACK, else ignored */
    void *user;                 /* handed to the callback as is */
    int32_t level;              /* KIVBFEXT_LEVEL_FROM_FILE, or a mask 0, 1, 3, 7 or 15
                                   used instead of the file's; messages about null
                                   handles and pointers are printed at every level */
} KivBfExtMessageSink;

/* Sets the process's message sink; NULL restores standard output and the
 * file's level. KIVBFEXT_ERR_MESSAGE_SINK (nothing changed) for an unknown
 * destination, a callback destination without a callback, or another level. */
KIVBF_API uint32_t KivBfExt_SetMessageSink(const KivBfExtMessageSink *sink);

/* ---- Automatic steering / direction finding --------------------------------
 *
 * A direction finder runs inside KivBf_Run on the block's own spectra
 * (steered response power with phase-transform weighting over a grid of
 * directions, on bins up to the pair's spatial-aliasing limit). It learns the
 * steady cross-spectrum of the noise (fans, vents, a TV's hiss) and weighs bins
 * by how far the block rises above it, so stationary sources do not capture it;
 * blocks without a rise above the noise leave the estimate where it was.
 *
 * Directions are degrees in the convention of KivBf_Run's direction: 0 is
 * broadside, positive towards microphone 0, -90..+90. A pair cannot tell front
 * from back, so with the circular shape (two microphones on a circle) the
 * estimate is also -90..+90: the direction's angle to the pair's axis.
 *
 * With automatic steering on, modes 0, 3 and 4 steer at the estimate instead
 * of *direction (which must still point at a float); until the first estimate
 * they use *direction. Modes 1 and 2 keep the angle given to KivBf_SetMode.
 * KivBf_Init and KivBf_Reset turn both switches off and clear the window.
 */
#define KIVBFEXT_ERR_AUTO_STEER 0x10000410u    /* switch value not 0 or 1 */
#define KIVBFEXT_ERR_SEARCH_WINDOW 0x10000411u /* centre not in -90..90, half-width not in (0, 180], or not finite */

/* 1: the finder runs and its estimate steers modes 0, 3 and 4; 0: off (default). */
KIVBF_API uint32_t KivBfExt_SetAutoSteer(AudioBfHandle handle, uint32_t on);

/* 1: the finder runs (KivBfExt_GetDirection) without steering; 0: off (default). */
KIVBF_API uint32_t KivBfExt_SetDirectionFinder(AudioBfHandle handle, uint32_t on);

/* Restricts the estimate to centre +- half_width degrees (clipped to -90..90);
 * half_width 180 searches everywhere again (the default). The finder keeps
 * learning everywhere; only the answer is confined. */
KIVBF_API uint32_t KivBfExt_SetSearchWindow(AudioBfHandle handle, float centre_deg,
                                            float half_width_deg);

/* The latest estimate: degrees in -90..90 and a confidence in 0..1, the
 * share of the recent weighted evidence that agrees with that direction
 * (0 until the finder has seen a block with a source above the noise; the
 * direction is then 0). Either pointer may be NULL. */
KIVBF_API uint32_t KivBfExt_GetDirection(AudioBfHandle handle, float *degrees, float *confidence);
/* ---- Enhanced mode (0x10000420..0x1000042F) -----------------------------------------
 *
 * A speech-enhancement chain for reverberant rooms that runs instead of the
 * operating mode while it is on: a per-bin probability that the talker (the
 * direction given to KivBf_Run) dominates, from spatial and spectral cues, so
 * that interfering talkers count as noise; a noise covariance updated every
 * block at a presence-dependent rate; an MVDR beam steered by an estimated
 * relative transfer function held near the look direction; a Wiener
 * post-filter with a -6 dB floor. Same framing, spectra and one-block latency
 * as the operating modes.
 *
 *   KivBf_SetMode(h, KIVBF_MODE_FIXED, 0.0f);
 *   KivBfExt_SetEnhancedMode(h, 1);      // on: KivBf_Run runs the chain
 *   ...                                  // KivBf_Run(h, in, out, &direction)
 *   KivBf_SetMode(h, KIVBF_MODE_ADAPTIVE, 0.0f);  // off again, mode 0 as always
 *
 * The chain keeps its own state and leaves every operating mode's adaptive
 * state untouched, so a successful KivBf_SetMode (which turns the chain off)
 * leaves the handle as one that had stayed in the previous mode without
 * adapting. Blocks the library answers with silence (input RMS below 1e-6)
 * do not update the chain either.
 */
#define KIVBFEXT_ERR_ENHANCED_SWITCH 0x10000420u /* enable not 0 or 1 */

/* enable 1 turns the enhanced mode on (its state starts afresh), 0 turns it
 * off (KivBf_Run runs the operating mode again). Needs Init, SetConfig and
 * SetShape (KIVBF_ERR_NOT_INITIALISED / KIVBF_ERR_PREREQUISITE otherwise);
 * KIVBF_ERR_HANDLE for a null or overwritten handle. */
KIVBF_API uint32_t KivBfExt_SetEnhancedMode(AudioBfHandle handle, uint32_t enable);

/* *enabled receives 1 while the enhanced mode is on, else 0. */
KIVBF_API uint32_t KivBfExt_GetEnhancedMode(AudioBfHandle handle, uint32_t *enabled);

#ifdef __cplusplus
}
#endif

#endif /* KIVBF_EXT_H */
