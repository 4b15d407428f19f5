#ifndef FILTER_H
#define FILTER_H
#include <stdint.h>

#define TAPS 5
#define RING_SIZE 32

/* Saturates a 32-bit accumulator into a 16-bit sample. */
static inline int16_t saturate16(int32_t value) {
  if (value > 32767) return 32767;
  if (value < -32768) return -32768;
  return (int16_t)value;
}

int16_t fir_step(int16_t sample);
float fir_gain(const int16_t* block, uint32_t count);
void ring_put(int16_t value);
int ring_get(int16_t* value);

#endif
