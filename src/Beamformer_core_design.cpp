// Beam design and the preparations KivBf_SetMode makes for each mode.
#include "Beamformer_core.h"

#include "vector_kernels.h"

using namespace kivbf;

void Bf_ResetCovariance(BfCoreState &s) {
    for (float(&matrix)[8] : s.noise_covariance) {
        for (float &value : matrix) value = 0.0f;
        matrix[0] = 1.0f;  // (0, 0) real
        matrix[6] = 1.0f;  // (1, 1) real
    }
}

void Bf_ResetCanceller(BfCoreState &s) {
    for (int32_t k = 0; k < kBins; ++k) {
        s.anc_filter[2 * k] = 1.0f;
        s.anc_filter[2 * k + 1] = 0.0f;
    }
    vec_fill(s.reference_power, 0.0f, kBins);
}

void Bf_SetUnityGains(BfCoreState &s) {
    s.band_weight_low = 1.0f;
    s.band_weight_wide = 1.0f;
    s.band_weight_mid = 1.0f;
    vec_fill(s.unit_vector, 1.0f, kBins);
}

void Bf_DesignFixedBeam(BfCoreState &) {}
