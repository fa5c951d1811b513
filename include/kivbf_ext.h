/*
 * kivbf extensions: capabilities beyond the calls of AudioBfProcess.h. Every
 * extension is off in a freshly initialised or reset handle, so that a caller
 * who never uses these calls gets exactly the output it always had. Status
 * codes lie in 0x10000400..0x100004FF, a sub-range per extension.
 */
#ifndef KIVBF_EXT_H
#define KIVBF_EXT_H

#include "AudioBfProcess.h"

#ifdef __cplusplus
extern "C" {
#endif

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

#ifdef __cplusplus
}
#endif

#endif /* KIVBF_EXT_H */
