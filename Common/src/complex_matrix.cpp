// Placeholder: filled in by the stage's owner.
#include "complex_matrix.h"

void cmat2_split(const float *, float *, float *) {}
void cmat2_inverse(const float *, float *) {}
void cmat2_product(const float *, const float *, float *) {}
void cmat2_sum(const float *, const float *, float *) {}
void cmat2_difference(const float *, const float *, float *) {}
void cmat2_trace(const float *, float *) {}
void cmat2_normalise(const float *, const float *, float *) {}
