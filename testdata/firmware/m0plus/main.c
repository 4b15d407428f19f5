#include "../common/device.h"
#include "sensor.h"

volatile uint32_t ticks;
static uint32_t reading = 100;
static uint8_t frame[16];

void SysTick_Handler(void) {
  ticks++;
  reading = clamp12(reading * 3u + 7u);
  sensor_record(reading);
}

static void build_frame(uint32_t average) {
  for (uint32_t i = 0; i < sizeof frame; ++i) {
    frame[i] = (uint8_t)(average >> (i & 3u)) ^ (uint8_t)i;
  }
}

int main(void) {
  SYST_RVR = 4800u - 1u;
  SYST_CSR = 7u;
  enable_irq();
  for (;;) {
    wait_for_interrupt();
    disable_irq();
    uint32_t average = sensor_average();
    enable_irq();
    build_frame(average);
    GPIO_OUT = checksum(frame, sizeof frame);
  }
}
