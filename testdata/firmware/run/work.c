/* The work of an awake tick: samples from a pseudo-random source through the
 * filter, and now and then a report over the UART. */
#include "work.h"

#include "board.h"
#include "filter.h"

uint32_t process_block(uint32_t seed) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < 4u; ++i) {
    seed = seed * 1103515245u + 12345u;
    value = filter_step(seed >> 16);
  }
  return value;
}

void report(uint32_t value) {
  static const char hex[] = "0123456789ABCDEF";
  for (int shift = 28; shift >= 0; shift -= 4) board_uart_put((uint8_t)hex[(value >> shift) & 15u]);
  board_uart_put('\n');
}
