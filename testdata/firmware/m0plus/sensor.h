#ifndef SENSOR_H
#define SENSOR_H
#include <stdint.h>

#define SAMPLE_COUNT 8

/* Clamps a raw reading into the sensor's 12-bit range. Inlined into every
 * caller, so its lines show up inside other functions. */
static inline uint32_t clamp12(uint32_t value) {
  if (value > 0xFFFu) return 0xFFFu;
  return value;
}

void sensor_record(uint32_t raw);
uint32_t sensor_average(void);
uint32_t checksum(const uint8_t* data, uint32_t length);

#endif
