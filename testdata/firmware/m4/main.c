#include "../common/device.h"
#include "filter.h"

volatile uint32_t overruns;
volatile float last_gain;
static int16_t block[8];
static int32_t phase = 1000;

/* Timer interrupt: feeds one filtered sample into the ring. */
void TIMER0_IRQHandler(void) {
  TIMER0_STATUS = 1u;
  phase = (phase * 1103515245 + 12345) & 0x7FFF;
  ring_put(fir_step(saturate16(phase - 16384)));
}

static uint32_t critical_enter(void) {
  uint32_t primask;
  __asm volatile("mrs %0, primask" : "=r"(primask));
  disable_irq();
  return primask;
}

static void critical_leave(uint32_t primask) {
  __asm volatile("msr primask, %0" ::"r"(primask) : "memory");
}

int main(void) {
  TIMER0_CTRL = 1u;
  NVIC_ISER = 1u;
  enable_irq();
  for (;;) {
    wait_for_interrupt();
    uint32_t count = 0;
    uint32_t saved = critical_enter();
    while (count < 8 && ring_get(&block[count])) count++;
    critical_leave(saved);
    if (count == 0) overruns++;
    last_gain = fir_gain(block, count);
    GPIO_OUT = (uint32_t)last_gain;
  }
}
