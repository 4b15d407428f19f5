#include "sensor.h"

/* Fletcher-16 over a buffer; the loop is what the trace tests follow. */
uint32_t checksum(const uint8_t* data, uint32_t length) {
  uint32_t sum1 = 0;
  uint32_t sum2 = 0;
  while (length--) {
    sum1 = (sum1 + *data++) % 255u;
    sum2 = (sum2 + sum1) % 255u;
  }
  return (sum2 << 8) | sum1;
}
