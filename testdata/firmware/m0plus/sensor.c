#include "sensor.h"

static uint32_t samples[SAMPLE_COUNT];
static uint32_t next_sample;
static uint32_t sample_count;

void sensor_record(uint32_t raw) {
  samples[next_sample] = clamp12(raw);
  next_sample = (next_sample + 1u) % SAMPLE_COUNT;
  if (sample_count < SAMPLE_COUNT) sample_count++;
}

uint32_t sensor_average(void) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < sample_count; ++i) {
    sum += samples[i];
  }
  /* Armv6-M has no divide instruction: this calls into libgcc. */
  return sample_count ? sum / sample_count : 0u;
}
