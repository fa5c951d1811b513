/* Minimal kivbf client in C: a 1 kHz tone arriving from broadside (the same
 * on both microphones) through the fixed beam, which passes it unchanged. */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <AudioBfProcess.h>

#define BLOCKS 50

int main(void) {
    void *buffer = malloc(KivBf_GetBufferSize());
    AudioBfInit init = {KIVBF_POINT_NUMBER, 16000, 5.0f, 2};
    AudioBfHandle h = buffer ? KivBf_Init(buffer, &init) : NULL;
    if (h == NULL) return 1;

    AudioBfConfig config;
    uint32_t status = KivBf_GetConfig(h, &config);
    config.temperature = 20;
    if (status == KIVBF_OK) status = KivBf_SetConfig(h, &config);
    if (status == KIVBF_OK) status = KivBf_SetShape(h, KIVBF_GEOMETRY_LINEAR);
    if (status == KIVBF_OK) status = KivBf_SetMode(h, KIVBF_MODE_FIXED, 0.0f);

    int16_t input[2 * KIVBF_POINT_NUMBER];
    int16_t output[KIVBF_POINT_NUMBER];
    float direction = 0.0f;
    double in_energy = 0.0, out_energy = 0.0;
    for (int b = 0; b < BLOCKS && status == KIVBF_OK; ++b) {
        for (int n = 0; n < (int)KIVBF_POINT_NUMBER; ++n) {
            const double t = (b * (int)KIVBF_POINT_NUMBER + n) / 16000.0;
            const int16_t sample = (int16_t)(8000.0 * sin(2.0 * 3.14159265358979 * 1000.0 * t));
            input[2 * n] = input[2 * n + 1] = sample;
            if (b > 0) in_energy += (double)sample * sample;
        }
        status = KivBf_Run(h, input, output, &direction);
        /* One block of latency: compare from the second block on. */
        for (int n = 0; n < (int)KIVBF_POINT_NUMBER && b > 0; ++n)
            out_energy += (double)output[n] * output[n];
    }
    KivBf_Free(h);
    free(buffer);
    if (status != KIVBF_OK) {
        fprintf(stderr, "kivbf call failed: 0x%08X\n", status);
        return 1;
    }
    const double gain_db = 10.0 * log10(out_energy / in_energy);
    printf("c example: broadside tone gain %.2f dB\n", gain_db);
    return fabs(gain_db) < 1.0 ? 0 : 1;
}
