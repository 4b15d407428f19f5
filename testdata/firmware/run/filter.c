/* A moving average over eight samples, folded into a running checksum. */
#include "filter.h"

#include "checksum.h"

static uint32_t history[8];
static uint32_t next;
static uint32_t crc = 0xFFFFFFFFu;

uint32_t filter_step(uint32_t sample) {
  history[next] = sample;
  next = (next + 1u) & 7u;
  uint32_t sum = 0;
  for (uint32_t i = 0; i < 8u; ++i) sum += history[i];
  crc = crc_update(crc, (uint8_t)(sum >> 3));
  return crc;
}
