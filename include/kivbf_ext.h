/*
 * kivbf extensions: capabilities beyond the calls of AudioBfProcess.h.
 *
 * Every extension is off in a freshly initialised or reset handle, and while
 * it is off every KivBf_* call behaves and every output sample stays exactly
 * as without it. Extension calls return KIVBF_OK, one of the KIVBF_ERR_*
 * codes of AudioBfProcess.h, or one of the KIVBFEXT_ERR_* codes below
 * (0x10000400..0x100004FF, each section its own sub-range).
 */
#ifndef KIVBF_EXT_H
#define KIVBF_EXT_H

#include "AudioBfProcess.h"

#ifdef __cplusplus
extern "C" {
#endif

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
