#include "filter.h"

static int16_t ring[RING_SIZE];
static uint32_t head;
static uint32_t tail;

void ring_put(int16_t value) {
  ring[head % RING_SIZE] = value;
  head++;
  if (head - tail > RING_SIZE) tail = head - RING_SIZE;
}

int ring_get(int16_t* value) {
  if (head == tail) return 0;
  *value = ring[tail % RING_SIZE];
  tail++;
  return 1;
}
