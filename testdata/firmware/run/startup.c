/* Vector table and reset of the programs that run under emulation. Thumb-1
 * only in the reset path, so one file serves Armv6-M and Armv7-M. */
#include <stdint.h>

extern uint32_t __data_load__, __data_start__, __data_end__;
extern uint32_t __bss_start__, __bss_end__;
extern uint32_t __stack_top__;

int main(void);
void Reset_Handler(void);
void HardFault_Handler(void);
void SysTick_Handler(void);
void Default_Handler(void);

typedef void (*vector_fn)(void);

__attribute__((section(".vectors"), used)) const vector_fn vector_table[16] = {
    (vector_fn)&__stack_top__,
    Reset_Handler,
    Default_Handler, /* NMI */
    HardFault_Handler,
    0, 0, 0, 0, 0, 0, 0,
    Default_Handler, /* SVC */
    0, 0,
    Default_Handler, /* PendSV */
    SysTick_Handler,
};

void Reset_Handler(void) {
  uint32_t* src = &__data_load__;
  for (uint32_t* dst = &__data_start__; dst < &__data_end__;) *dst++ = *src++;
  for (uint32_t* dst = &__bss_start__; dst < &__bss_end__;) *dst++ = 0;
  main();
  for (;;) {
    __asm volatile("wfi");
  }
}

void Default_Handler(void) {
  for (;;) {
  }
}
