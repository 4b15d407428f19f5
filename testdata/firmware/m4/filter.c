#include "filter.h"

static const int16_t coefficients[TAPS] = {3, 9, 16, 9, 3};
static int16_t history[TAPS];

int16_t fir_step(int16_t sample) {
  for (int i = TAPS - 1; i > 0; --i) history[i] = history[i - 1];
  history[0] = sample;
  int32_t acc = 0;
  for (int i = 0; i < TAPS; ++i) acc += (int32_t)coefficients[i] * history[i];
  return saturate16(acc / 40);
}

float fir_gain(const int16_t* block, uint32_t count) {
  float energy = 0.0f;
  for (uint32_t i = 0; i < count; ++i) energy += (float)block[i] * (float)block[i];
  return count ? energy / (float)count : 0.0f;
}
