/* A duty-cycled program: SysTick ticks every 200 microseconds; of every
 * TICKS_PER_CYCLE ticks the program works through AWAKE_TICKS (busy from the
 * tick until the next one) and sleeps in WFI through the others. The first
 * awake tick of a cycle reports over the UART, which is on through that
 * tick only. */
#include <stdint.h>

#include "board.h"
#include "work.h"

#define AWAKE_TICKS 3u
#define TICKS_PER_CYCLE 8u

volatile uint32_t ticks;
volatile uint32_t result;

void SysTick_Handler(void) { ticks++; }

int main(void) {
  uint32_t seed = 1u;
  SYST_RVR = board_tick_reload;
  SYST_CVR = 0u;
  SYST_CSR = 7u;
  uint32_t seen = 0;
  enable_irq();
  for (;;) {
    /* Interrupts masked between the check and WFI, so a tick that comes in
     * between still wakes it (WFI wakes on a pending interrupt). */
    disable_irq();
    while (ticks == seen) {
      wait_for_interrupt();
      enable_irq();
      disable_irq();
    }
    enable_irq();
    const uint32_t tick = ticks;
    seen = tick;
    if (tick % TICKS_PER_CYCLE >= AWAKE_TICKS) continue;
    const int reporting = tick % TICKS_PER_CYCLE == 0u;
    if (reporting) {
      board_uart_on();
      report(result);
    }
    while (ticks == tick) {
      seed = process_block(seed);
      result = seed;
    }
    if (reporting) board_uart_off();
  }
}
